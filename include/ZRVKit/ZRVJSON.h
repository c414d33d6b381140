#pragma once
// Dictionaries read from and written to JSON keep the document's member order; members are found by name in
// constant time (ZRVOrderedMap), so large documents are read and looked up in time linear in their size.

#include <ZRVKit/ZRVOrderedMap.h>

#include <nlohmann/json.hpp>

using ZRVJSON = nlohmann::basic_json<ZRVOrderedMap>;
