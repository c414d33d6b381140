#pragma once
// The library's one exception class: a name ("bsdiff", "bzip2", ...) and a reason ("Corrupt patch", ...).

#include <ZRVKit/ZRVKitExport.h>
#include <exception>
#include <string>
#include <string_view>

class ZRVKIT_EXPORT ZRVException : public std::exception {
 public:
  /// Raised for a programming fault, such as a fixed URL that cannot be formed.
  static constexpr std::string_view kInternalInconsistency = "InternalInconsistencyException";
  /// Raised when the per-user application-data folder cannot be found.
  static constexpr std::string_view kApplicationCorruption = "Application Corruption";

  ZRVException(std::string name, std::string reason);

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  /// "<name>: <reason>".
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::string what_;
};
