#include "foundation/NumericValue.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace zrv {

namespace {

constexpr std::string_view kBlanks = " \t\n\r\v\f";

std::string_view withoutLeadingBlanks(std::string_view text) {
  auto start = text.find_first_not_of(kBlanks);
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

long long clampedInteger(double number) {
  if (std::isnan(number)) return 0;
  // 2^63 is exactly representable; anything at or beyond it does not fit.
  constexpr double kLimit = 9223372036854775808.0;
  if (number >= kLimit) return std::numeric_limits<long long>::max();
  if (number < -kLimit) return std::numeric_limits<long long>::min();
  return static_cast<long long>(number);
}

}  // namespace

double doubleValueOfText(std::string_view text) {
  text = withoutLeadingBlanks(text);
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  // Only decimal notation counts: "inf", "nan" and hexadecimal forms read 0.
  if (text.empty() || !(isDigit(text[0]) || (text[0] == '.' && text.size() > 1 && isDigit(text[1])))) return 0;
  double number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::general);
  if (error != std::errc()) return 0;
  return negative ? -number : number;
}

long long integerValueOfText(std::string_view text) {
  text = withoutLeadingBlanks(text);
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  unsigned long long magnitude = 0;
  constexpr unsigned long long kMaxMagnitude = static_cast<unsigned long long>(std::numeric_limits<long long>::max());
  bool overflow = false;
  for (char c : text) {
    if (!isDigit(c)) break;
    if (magnitude > (kMaxMagnitude + 1 - static_cast<unsigned long long>(c - '0')) / 10) {
      overflow = true;
      break;
    }
    magnitude = magnitude * 10 + static_cast<unsigned long long>(c - '0');
  }
  if (overflow) return negative ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
  if (negative) return magnitude == kMaxMagnitude + 1 ? std::numeric_limits<long long>::min()
                                                      : -static_cast<long long>(magnitude);
  return magnitude > kMaxMagnitude ? std::numeric_limits<long long>::max() : static_cast<long long>(magnitude);
}

bool boolValueOfText(std::string_view text) {
  text = withoutLeadingBlanks(text);
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
  while (!text.empty() && text[0] == '0') text.remove_prefix(1);
  if (text.empty()) return false;
  char c = text[0];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

double doubleValue(const ZRVJSON& value) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string()) return doubleValueOfText(value.get_ref<const std::string&>());
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  return 0;
}

long long integerValue(const ZRVJSON& value) {
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<long long>();
  if (value.is_number_unsigned()) {
    auto number = value.get<unsigned long long>();
    return number > static_cast<unsigned long long>(std::numeric_limits<long long>::max())
               ? std::numeric_limits<long long>::max()
               : static_cast<long long>(number);
  }
  if (value.is_number_float()) return clampedInteger(value.get<double>());
  if (value.is_string()) return integerValueOfText(value.get_ref<const std::string&>());
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  return 0;
}

bool boolValue(const ZRVJSON& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number_float()) return value.get<double>() != 0;
  if (value.is_number()) return integerValue(value) != 0;
  if (value.is_string()) return boolValueOfText(value.get_ref<const std::string&>());
  return false;
}

}  // namespace zrv
