#pragma once
// A mirror list: a JSON array of base URLs, in the order in which the mirrors are tried.

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVURL.h>

#include <vector>

namespace zrv::update {

/// The list's URLs in order; elements that are not texts or do not form a URL are dropped.
std::vector<ZRVURL> mirrorURLsFromList(const ZRVJSON& list);

}  // namespace zrv::update
