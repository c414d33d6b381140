#include <ZRVKit/ZRVHosts.h>

#include <mutex>

namespace {

// The deployment's host names. Every request of the library is formed from one of these.
constexpr std::string_view kContentHost = "https://download.quillmoor.com";
constexpr std::string_view kWebAPIHost = "https://api.quillmoor.com";
constexpr std::string_view kWebAPIMirrorsHost = "https://www.quillmoor.com";
constexpr std::string_view kDevelopmentMirrorsHost = "https://dev.quillmoor.com";

std::mutex& redirectMutex() {
  static std::mutex mutex;
  return mutex;
}

std::optional<std::string>& redirectBase() {
  static std::optional<std::string> base;
  return base;
}

}  // namespace

std::string ZRVHosts::baseAddress(ZRVHost host) {
  if (auto base = redirect()) return *base;
  switch (host) {
    case ZRVHost::content:
      return std::string(kContentHost);
    case ZRVHost::webAPI:
      return std::string(kWebAPIHost);
    case ZRVHost::webAPIMirrors:
      return std::string(kWebAPIMirrorsHost);
    case ZRVHost::developmentMirrors:
      return std::string(kDevelopmentMirrorsHost);
  }
  return std::string(kWebAPIHost);
}

std::optional<ZRVURL> ZRVHosts::URL(ZRVHost host, std::string_view pathAndQuery) {
  std::string base = baseAddress(host);
  while (!base.empty() && base.back() == '/') base.pop_back();
  return ZRVURL::URLWithString(base + std::string(pathAndQuery));
}

void ZRVHosts::setRedirect(std::optional<std::string> base) {
  std::lock_guard lock(redirectMutex());
  redirectBase() = std::move(base);
}

std::optional<std::string> ZRVHosts::redirect() {
  std::lock_guard lock(redirectMutex());
  return redirectBase();
}
