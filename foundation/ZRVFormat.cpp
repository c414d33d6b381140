#include <ZRVKit/ZRVFormat.h>

#include <cstdio>
#include <string>

namespace {

struct Specifier {
  bool zeroPad = false;
  bool leftAlign = false;
  int width = 0;
  int precision = -1;
  char conversion = 0;
};

// Parses "%[-0][width][.precision][hh|h|l|ll|z|q]conv" starting after the '%'. Returns the index past it.
std::size_t parseSpecifier(std::string_view format, std::size_t index, Specifier& spec) {
  while (index < format.size() && (format[index] == '0' || format[index] == '-')) {
    (format[index] == '0' ? spec.zeroPad : spec.leftAlign) = true;
    ++index;
  }
  while (index < format.size() && format[index] >= '0' && format[index] <= '9') {
    spec.width = spec.width * 10 + (format[index++] - '0');
  }
  if (index < format.size() && format[index] == '.') {
    spec.precision = 0;
    ++index;
    while (index < format.size() && format[index] >= '0' && format[index] <= '9') {
      spec.precision = spec.precision * 10 + (format[index++] - '0');
    }
  }
  while (index < format.size() && (format[index] == 'l' || format[index] == 'h' || format[index] == 'z' ||
                                   format[index] == 'q' || format[index] == 'j')) {
    ++index;
  }
  if (index < format.size()) spec.conversion = format[index++];
  return index;
}

std::string pad(std::string text, const Specifier& spec) {
  if (static_cast<int>(text.size()) >= spec.width) return text;
  std::size_t missing = static_cast<std::size_t>(spec.width) - text.size();
  if (spec.leftAlign) return text + std::string(missing, ' ');
  if (spec.zeroPad && spec.conversion != '@' && spec.conversion != 's') {
    std::size_t signLength = (!text.empty() && text[0] == '-') ? 1 : 0;
    return text.insert(signLength, missing, '0');
  }
  return std::string(missing, ' ') + text;
}

long long asSigned(const ZRVFormatArgument::Value& value) {
  if (auto* number = std::get_if<long long>(&value)) return *number;
  if (auto* number = std::get_if<unsigned long long>(&value)) return static_cast<long long>(*number);
  if (auto* number = std::get_if<double>(&value)) return static_cast<long long>(*number);
  return 0;
}

unsigned long long asUnsigned(const ZRVFormatArgument::Value& value) {
  if (auto* number = std::get_if<unsigned long long>(&value)) return *number;
  return static_cast<unsigned long long>(asSigned(value));
}

std::string objectText(const ZRVFormatArgument::Value& value) {
  if (auto* text = std::get_if<std::string>(&value)) return *text;
  if (auto* number = std::get_if<long long>(&value)) return std::to_string(*number);
  if (auto* number = std::get_if<unsigned long long>(&value)) return std::to_string(*number);
  if (auto* number = std::get_if<double>(&value)) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g", *number);
    return buffer;
  }
  return "(null)";
}

void appendUTF8(std::string& out, unsigned long long unit) {
  auto code = static_cast<std::uint32_t>(unit);
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | ((code >> 12) & 0x0F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

std::string render(const Specifier& spec, const ZRVFormatArgument::Value& value) {
  char buffer[128];
  switch (spec.conversion) {
    case '@':
    case 's':
      return pad(objectText(value), spec);
    case 'd':
    case 'i':
      std::snprintf(buffer, sizeof buffer, "%lld", asSigned(value));
      return pad(buffer, spec);
    case 'u':
      std::snprintf(buffer, sizeof buffer, "%llu", asUnsigned(value));
      return pad(buffer, spec);
    case 'x':
      std::snprintf(buffer, sizeof buffer, "%llx", asUnsigned(value));
      return pad(buffer, spec);
    case 'X':
      std::snprintf(buffer, sizeof buffer, "%llX", asUnsigned(value));
      return pad(buffer, spec);
    case 'f': {
      double number = std::holds_alternative<double>(value) ? std::get<double>(value)
                                                             : static_cast<double>(asSigned(value));
      std::snprintf(buffer, sizeof buffer, "%.*f", spec.precision < 0 ? 6 : spec.precision, number);
      return pad(buffer, spec);
    }
    case 'C':
    case 'c': {
      std::string text;
      appendUTF8(text, asUnsigned(value));
      return pad(text, spec);
    }
    default:
      return {};
  }
}

}  // namespace

std::string ZRVFormatList(std::string_view format, std::initializer_list<ZRVFormatArgument> arguments) {
  std::string out;
  out.reserve(format.size() + 16 * arguments.size());
  auto next = arguments.begin();
  static const ZRVFormatArgument absent(std::nullopt);
  for (std::size_t index = 0; index < format.size();) {
    char c = format[index];
    if (c != '%') {
      out += c;
      ++index;
      continue;
    }
    if (index + 1 < format.size() && format[index + 1] == '%') {
      out += '%';
      index += 2;
      continue;
    }
    Specifier spec;
    std::size_t end = parseSpecifier(format, index + 1, spec);
    if (spec.conversion == 0) {  // a lone '%' at the end stays as it is
      out.append(format.substr(index));
      break;
    }
    const ZRVFormatArgument& argument = next != arguments.end() ? *next++ : absent;
    out += render(spec, argument.value());
    index = end;
  }
  return out;
}
