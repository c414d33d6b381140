#pragma once
// Which department an invading enemy type belongs to. The table is game content (resources/Departments.json,
// compiled in): the departments in their search order, each with every spelling the feed uses for its types.

#include <string>
#include <string_view>
#include <vector>

class InvasionDepartments {
 public:
  struct Department {
    std::string name;                ///< the department text of invasion records ("Northwing")
    std::vector<std::string> types;  ///< every spelling of its enemy types, as listed
  };

  /// The game's own table.
  static const InvasionDepartments& gameDepartments();

  /// Reads a table in the form of Departments.json; throws ZRVException when the text is not such a table.
  explicit InvasionDepartments(std::string_view json);

  /// The first department with a spelling equal to `type` (ignoring case); the first department otherwise.
  const std::string& departmentForType(std::string_view type) const;

  const std::vector<Department>& departments() const { return departments_; }

 private:
  std::vector<Department> departments_;
};
