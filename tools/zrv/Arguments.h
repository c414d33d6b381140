#pragma once
// The command line of one verb: positional words, flags and options with values.

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

/// A mistake in the command line; the verb prints its usage and exits with kExitUsage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Arguments {
 public:
  /// Splits `words` by the verb's known `flags` ("--json") and `options` ("--port", which take a value).
  Arguments(const std::vector<std::string>& words, std::set<std::string> flags, std::set<std::string> options);

  bool flag(const std::string& name) const { return flags_.count(name) > 0; }
  /// The option's value (the last one when it was given more than once).
  std::optional<std::string> value(const std::string& name) const;
  /// Every value of an option that may be given more than once, in order.
  std::vector<std::string> values(const std::string& name) const;
  /// The option's value as a whole number within [minimum, maximum].
  std::optional<long> number(const std::string& name, long minimum, long maximum) const;
  const std::vector<std::string>& positional() const { return positional_; }
  /// Requires between `minimum` and `maximum` positional words.
  void expectPositional(std::size_t minimum, std::size_t maximum) const;

 private:
  std::set<std::string> flags_;
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::string> positional_;
};
