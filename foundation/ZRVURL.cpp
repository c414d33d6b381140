#include <ZRVKit/ZRVURL.h>

#include <curl/curl.h>

#include <memory>

namespace {

struct URLHandleDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using URLHandle = std::unique_ptr<CURLU, URLHandleDeleter>;

URLHandle parse(const std::string& text) {
  URLHandle handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return nullptr;
  return handle;
}

std::string part(const std::string& text, CURLUPart which, unsigned flags = 0) {
  if (text.empty()) return {};
  URLHandle handle = parse(text);
  char* value = nullptr;
  if (!handle || curl_url_get(handle.get(), which, &value, flags) != CURLUE_OK || !value) return {};
  std::string result(value);
  curl_free(value);
  return result;
}

// Characters that stand for themselves in a path segment; everything else is percent-encoded.
bool isPathCharacter(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-': case '.': case '_': case '~': case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=': case ':': case '@': case '/':
      return true;
    default:
      return false;
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<ZRVURL> ZRVURL::URLWithString(std::string_view text) {
  if (text.empty()) return ZRVURL();
  URLHandle handle = parse(std::string(text));
  if (!handle) return std::nullopt;
  char* normalized = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_URL, &normalized, 0) != CURLUE_OK || !normalized) return std::nullopt;
  ZRVURL url{std::string(normalized)};
  curl_free(normalized);
  return url;
}

std::string ZRVURL::scheme() const { return part(text_, CURLUPART_SCHEME); }
std::string ZRVURL::host() const { return part(text_, CURLUPART_HOST); }
std::string ZRVURL::path() const { return part(text_, CURLUPART_PATH); }
std::string ZRVURL::query() const { return part(text_, CURLUPART_QUERY); }

int ZRVURL::port() const {
  std::string text = part(text_, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  return text.empty() ? 0 : std::stoi(text);
}

std::optional<ZRVURL> ZRVURL::URLByAppendingPathComponent(std::string_view component) const {
  if (text_.empty()) return std::nullopt;
  URLHandle handle = parse(text_);
  if (!handle) return std::nullopt;
  std::string path = part(text_, CURLUPART_PATH);
  if (path.empty() || path.back() != '/') path += '/';
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : component) {
    if (isPathCharacter(c)) {
      path += static_cast<char>(c);
    } else {
      path += '%';
      path += kHex[c >> 4];
      path += kHex[c & 15];
    }
  }
  if (curl_url_set(handle.get(), CURLUPART_PATH, path.c_str(), 0) != CURLUE_OK) return std::nullopt;
  char* joined = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_URL, &joined, 0) != CURLUE_OK || !joined) return std::nullopt;
  ZRVURL url{std::string(joined)};
  curl_free(joined);
  return url;
}

std::optional<std::string> ZRVURL::removingPercentEncoding(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    char byte = static_cast<char>(high * 16 + low);
    if (byte == '\0') return std::nullopt;
    decoded += byte;
    i += 2;
  }
  return decoded;
}
