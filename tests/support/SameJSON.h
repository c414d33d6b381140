#pragma once
// Whether two documents are the same down to what nlohmann's == leaves out: the kind of every number
// (unsigned, signed, floating) and the order of every object's members.

#include <ZRVKit/ZRVJSON.h>

#include <cstddef>

inline bool sameJSON(const ZRVJSON& left, const ZRVJSON& right) {
  if (left.type() != right.type() || left.size() != right.size()) return false;
  if (left.is_object()) {
    for (auto l = left.begin(), r = right.begin(); l != left.end(); ++l, ++r) {
      if (l.key() != r.key() || !sameJSON(*l, *r)) return false;
    }
    return true;
  }
  if (left.is_array()) {
    for (std::size_t i = 0; i < left.size(); ++i) {
      if (!sameJSON(left[i], right[i])) return false;
    }
    return true;
  }
  return left == right;
}
