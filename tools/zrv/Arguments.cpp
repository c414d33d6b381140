#include "Arguments.h"

#include <charconv>

Arguments::Arguments(const std::vector<std::string>& words, std::set<std::string> flags,
                     std::set<std::string> options) {
  bool onlyPositional = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (onlyPositional || word.size() < 2 || word[0] != '-') {
      positional_.push_back(word);
    } else if (word == "--") {
      onlyPositional = true;
    } else if (flags.count(word)) {
      flags_.insert(word);
    } else if (auto equals = word.find('='); equals != std::string::npos && options.count(word.substr(0, equals))) {
      values_[word.substr(0, equals)].push_back(word.substr(equals + 1));
    } else if (options.count(word)) {
      if (i + 1 >= words.size()) throw UsageError(word + " needs a value");
      values_[word].push_back(words[++i]);
    } else {
      throw UsageError("unknown option " + word);
    }
  }
}

std::optional<std::string> Arguments::value(const std::string& name) const {
  auto found = values_.find(name);
  if (found == values_.end()) return std::nullopt;
  return found->second.back();
}

std::vector<std::string> Arguments::values(const std::string& name) const {
  auto found = values_.find(name);
  return found == values_.end() ? std::vector<std::string>{} : found->second;
}

std::optional<long> Arguments::number(const std::string& name, long minimum, long maximum) const {
  auto text = value(name);
  if (!text) return std::nullopt;
  long parsed = 0;
  auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), parsed);
  if (error != std::errc() || end != text->data() + text->size() || parsed < minimum || parsed > maximum) {
    throw UsageError(name + " takes a whole number from " + std::to_string(minimum) + " to " +
                     std::to_string(maximum));
  }
  return parsed;
}

void Arguments::expectPositional(std::size_t minimum, std::size_t maximum) const {
  if (positional_.size() < minimum) throw UsageError("missing arguments");
  if (positional_.size() > maximum) throw UsageError("unexpected argument " + positional_[maximum]);
}
