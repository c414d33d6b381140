#pragma once
// A web address, parsed and validated with libcurl's URL API. The empty URL is a valid value of its own.

#include <ZRVKit/ZRVKitExport.h>
#include <optional>
#include <string>
#include <string_view>

class ZRVKIT_EXPORT ZRVURL {
 public:
  /// The empty URL.
  ZRVURL() = default;

  /// Parses `text`; an empty text gives the empty URL, a text that does not form a valid URL gives nothing.
  static std::optional<ZRVURL> URLWithString(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  bool empty() const { return text_.empty(); }

  std::string scheme() const;
  std::string host() const;
  /// The port number, or the scheme's default.
  int port() const;
  /// The path, percent-encoded as in the URL ("/" when the URL names none).
  std::string path() const;
  /// The query without "?", or "" when there is none.
  std::string query() const;

  /// This URL with `component` appended to its path, percent-encoded, after a "/" separator.
  /// The component may hold "/" to append several levels. Nothing for the empty URL.
  std::optional<ZRVURL> URLByAppendingPathComponent(std::string_view component) const;

  /// Removes percent-encoding; nothing when the text holds a malformed escape or decodes to a NUL.
  static std::optional<std::string> removingPercentEncoding(std::string_view text);

  bool operator==(const ZRVURL& other) const = default;

 private:
  explicit ZRVURL(std::string text) : text_(std::move(text)) {}
  std::string text_;
};
