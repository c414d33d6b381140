#include "foundation/PlainJSONReader.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zrv {

namespace {

// Gives up by throwing: the document in progress unwinds with it.
struct NotPlain {};

class PlainReader {
 public:
  PlainReader(std::string_view text, int maxDepth)
      : at_(text.data()), end_(text.data() + text.size()), maxDepth_(maxDepth), gathered_(std::max(maxDepth, 0)) {}

  ZRVJSON document() {
    ZRVJSON value = readValue(0);
    skipSpace();
    if (at_ != end_) throw NotPlain{};
    return value;
  }

 private:
  // `open` is how many arrays and objects enclose the value.
  ZRVJSON readValue(int open) {
    skipSpace();
    if (at_ == end_) throw NotPlain{};
    switch (*at_) {
      case '{': return readObject(open);
      case '[': return readArray(open);
      case '"': return ZRVJSON(readText());
      case 't': return readWord("true", ZRVJSON(true));
      case 'f': return readWord("false", ZRVJSON(false));
      case 'n': return readWord("null", ZRVJSON(nullptr));
      default: return readNumber();
    }
  }

  // The members are gathered in a list kept for this depth, then moved into an object sized for them once:
  // growing each object member by member cost more than reading it.
  ZRVJSON readObject(int open) {
    if (open >= maxDepth_) throw NotPlain{};
    ++at_;
    ZRVJSON object(ZRVJSON::value_t::object);
    if (nextIs('}')) return object;
    Members& members = gathered_[static_cast<std::size_t>(open)];
    members.clear();
    for (;;) {
      skipSpace();
      if (at_ == end_ || *at_ != '"') throw NotPlain{};
      std::string name = readText();
      if (!nextIs(':')) throw NotPlain{};
      ZRVJSON value = readValue(open + 1);
      members.emplace_back(std::move(name), std::move(value));
      if (nextIs(',')) continue;
      if (nextIs('}')) break;
      throw NotPlain{};
    }
    auto& objectMembers = object.get_ref<ZRVJSON::object_t&>();
    objectMembers.reserve(members.size());
    // A name that comes again keeps its first place and takes the last value.
    for (auto& [name, value] : members) objectMembers[std::move(name)] = std::move(value);
    members.clear();
    return object;
  }

  ZRVJSON readArray(int open) {
    if (open >= maxDepth_) throw NotPlain{};
    ++at_;
    ZRVJSON array(ZRVJSON::value_t::array);
    auto& elements = array.get_ref<ZRVJSON::array_t&>();
    if (nextIs(']')) return array;
    for (;;) {
      elements.push_back(readValue(open + 1));
      if (nextIs(',')) continue;
      if (nextIs(']')) return array;
      throw NotPlain{};
    }
  }

  // At the opening quote; ends past the closing one.
  std::string readText() {
    ++at_;
    const char* run = at_;
    std::string text;
    for (;;) {
      while (at_ != end_ && isPlainTextByte(*at_)) ++at_;
      if (at_ == end_) throw NotPlain{};
      text.append(run, at_);
      if (*at_ == '"') {
        ++at_;
        return text;
      }
      if (*at_ != '\\' || end_ - at_ < 2) throw NotPlain{};
      text += escaped(at_[1]);
      at_ += 2;
      run = at_;
    }
  }

  static bool isPlainTextByte(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 0x20 && value < 0x80 && byte != '"' && byte != '\\';
  }

  static char escaped(char letter) {
    switch (letter) {
      case '"': return '"';
      case '\\': return '\\';
      case '/': return '/';
      case 'b': return '\b';
      case 'f': return '\f';
      case 'n': return '\n';
      case 'r': return '\r';
      case 't': return '\t';
      default: throw NotPlain{};  // \u and anything that is no escape
    }
  }

  ZRVJSON readWord(std::string_view word, ZRVJSON value) {
    if (static_cast<std::size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) {
      throw NotPlain{};
    }
    at_ += word.size();
    return value;
  }

  // A whole number: an optional minus, then 0 or a digit 1-9 and more digits, up to 18 in all, so that it
  // fits either kind without a check. nlohmann's reader makes a number without a minus unsigned.
  ZRVJSON readNumber() {
    const bool negative = *at_ == '-';
    if (negative) ++at_;
    const char* digits = at_;
    std::uint64_t value = 0;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') value = value * 10 + static_cast<std::uint64_t>(*at_++ - '0');
    const auto count = at_ - digits;
    if (count == 0 || count > 18 || (count > 1 && *digits == '0')) throw NotPlain{};
    if (at_ != end_ && (*at_ == '.' || *at_ == 'e' || *at_ == 'E')) throw NotPlain{};
    if (negative) return ZRVJSON(-static_cast<std::int64_t>(value));
    return ZRVJSON(value);
  }

  void skipSpace() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
  }

  bool nextIs(char mark) {
    skipSpace();
    if (at_ == end_ || *at_ != mark) return false;
    ++at_;
    return true;
  }

  using Members = std::vector<std::pair<std::string, ZRVJSON>>;

  const char* at_;
  const char* const end_;
  const int maxDepth_;
  std::vector<Members> gathered_;  // one list per depth, reused by every object at that depth; never resized
};

}  // namespace

std::optional<ZRVJSON> readPlainJSON(std::string_view text, int maxDepth) {
  try {
    return PlainReader(text, std::min(maxDepth, kPlainJSONMaxDepth)).document();
  } catch (const NotPlain&) {
    return std::nullopt;
  }
}

}  // namespace zrv
