#pragma once
// The host names of the game's services, in one table, with one redirect that sends every host
// (scheme included) to another base address: a developer's local server, the demo, the tests.

#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVURL.h>

#include <optional>
#include <string>
#include <string_view>

enum class ZRVHost {
  content,             ///< manifest, mirror list, safe mirror, framework archive
  webAPI,              ///< login, status, invasions
  webAPIMirrors,       ///< the API's mirror list, served under a second name of the web API host
  developmentMirrors,  ///< the development mirror list
};

class ZRVKIT_EXPORT ZRVHosts {
 public:
  /// The base address of `host` ("https://name"), or the redirect when one is set.
  static std::string baseAddress(ZRVHost host);

  /// base address + `pathAndQuery` ("/api/status"); nothing if that does not form a valid URL.
  static std::optional<ZRVURL> URL(ZRVHost host, std::string_view pathAndQuery);

  /// Redirects every host to `base` ("http://127.0.0.1:8080"); nothing restores the real hosts.
  static void setRedirect(std::optional<std::string> base);
  static std::optional<std::string> redirect();
};
