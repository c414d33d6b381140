#pragma once
// An error record: a domain, a code, user information and an optional underlying error.

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

class ZRVKIT_EXPORT ZRVError {
 public:
  /// Domain of errors that carry an errno value as their code.
  static constexpr std::string_view kPOSIXDomain = "POSIX";
  /// Domain of file-system failures; they carry the POSIX error as their underlying error.
  static constexpr std::string_view kFileDomain = "ZRVFileErrorDomain";
  /// Domain of transport failures of the HTTP client; the code is libcurl's result code.
  static constexpr std::string_view kHTTPDomain = "ZRVHTTPErrorDomain";
  /// User-information key of a human-readable description.
  static constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
  /// User-information key under which the library's own domains carry their message.
  static constexpr std::string_view kMessageKey = "error";

  ZRVError(std::string domain, long code, ZRVJSON userInfo = ZRVJSON::object(),
           std::shared_ptr<const ZRVError> underlying = nullptr);

  /// An error of the POSIX domain with the given errno value.
  static ZRVError posix(int errorNumber);
  /// A file-system failure on `path`, with the POSIX error as its underlying error.
  static ZRVError file(int errorNumber, const std::filesystem::path& path);
  static ZRVError file(const std::error_code& code, const std::filesystem::path& path);
  /// An error of one of the library's own domains: "<bundle identifier>.<word>", the message under "error".
  static ZRVError library(std::string_view word, long code, std::string message);
  /// "<bundle identifier>.<word>", the library's own error domains.
  static std::string libraryDomain(std::string_view word);

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  const ZRVJSON& userInfo() const { return userInfo_; }
  const ZRVError* underlyingError() const { return underlying_.get(); }

  /// True when this is the POSIX error `errorNumber`.
  bool isPOSIX(int errorNumber) const;
  /// True when the underlying error exists and is the POSIX error `errorNumber`.
  bool hasUnderlyingPOSIX(int errorNumber) const;

  /// A text for people: the description entry, else the message entry, else a generic sentence.
  std::string localizedDescription() const;

  bool operator==(const ZRVError& other) const;

 private:
  std::string domain_;
  long code_;
  ZRVJSON userInfo_;
  std::shared_ptr<const ZRVError> underlying_;
};
