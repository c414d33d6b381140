#pragma once
// The formatter for the library's format strings ("-[%@ %@]+%d: error %@.", "%02x", ...).
// Supported: %@ (text; an absent text prints "(null)"), %d %i %u %ld %lu %lld %llu, %x %X with
// optional zero padding and width, %f with optional precision, %C (a UTF-16 unit), %s and %%.

#include <ZRVKit/ZRVKitExport.h>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

class ZRVKIT_EXPORT ZRVFormatArgument {
 public:
  using Value = std::variant<std::monostate, std::string, long long, unsigned long long, double>;

  ZRVFormatArgument(std::nullopt_t) {}
  ZRVFormatArgument(const char* text) { if (text) value_ = std::string(text); }
  ZRVFormatArgument(std::string text) : value_(std::move(text)) {}
  ZRVFormatArgument(std::string_view text) : value_(std::string(text)) {}
  ZRVFormatArgument(const std::filesystem::path& path) : value_(path.string()) {}
  ZRVFormatArgument(double number) : value_(number) {}
  ZRVFormatArgument(bool flag) : value_(static_cast<long long>(flag)) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  ZRVFormatArgument(T number) {
    if constexpr (std::is_signed_v<T>) value_ = static_cast<long long>(number);
    else value_ = static_cast<unsigned long long>(number);
  }
  template <class T>
  ZRVFormatArgument(const std::optional<T>& maybe) {
    if (maybe) value_ = ZRVFormatArgument(*maybe).value_;
  }

  const Value& value() const { return value_; }

 private:
  Value value_;
};

ZRVKIT_EXPORT std::string ZRVFormatList(std::string_view format, std::initializer_list<ZRVFormatArgument> arguments);

/// Renders `format` with the arguments in order, the way the platform's string formatting would.
template <class... Arguments>
std::string ZRVFormat(std::string_view format, const Arguments&... arguments) {
  return ZRVFormatList(format, {ZRVFormatArgument(arguments)...});
}
