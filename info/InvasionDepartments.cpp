#include "info/InvasionDepartments.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVJSON.h>

#include <algorithm>

namespace zrv::resources {
extern const std::string_view DepartmentsTable;
}

namespace {

char foldCase(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// Blanks, hyphens and the feed's U+0003 joiner compare as they are: only letter case is ignored.
bool sameIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return foldCase(x) == foldCase(y); });
}

[[noreturn]] void malformed(std::string_view why) {
  throw ZRVException(std::string(ZRVException::kInternalInconsistency),
                     "The department table is malformed: " + std::string(why));
}

}  // namespace

const InvasionDepartments& InvasionDepartments::gameDepartments() {
  static const auto* table = new InvasionDepartments(zrv::resources::DepartmentsTable);
  return *table;
}

InvasionDepartments::InvasionDepartments(std::string_view json) {
  ZRVJSON document = ZRVBoundedJSON::read(json).document.value_or(nullptr);
  if (!document.is_array() || document.empty()) malformed("not a list of departments");
  for (const ZRVJSON& entry : document) {
    auto name = entry.find("department");
    auto types = entry.find("types");
    if (!entry.is_object() || name == entry.end() || !name->is_string() || types == entry.end() ||
        !types->is_array()) {
      malformed("a department needs a \"department\" text and a \"types\" list");
    }
    Department department{name->get<std::string>(), {}};
    for (const ZRVJSON& type : *types) {
      if (!type.is_string()) malformed("enemy types are texts");
      department.types.push_back(type.get<std::string>());
    }
    departments_.push_back(std::move(department));
  }
}

const std::string& InvasionDepartments::departmentForType(std::string_view type) const {
  for (const Department& department : departments_) {
    for (const std::string& spelling : department.types) {
      if (sameIgnoringCase(spelling, type)) return department.name;
    }
  }
  return departments_.front().name;
}
