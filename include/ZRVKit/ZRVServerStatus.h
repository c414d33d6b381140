#pragma once
// Whether the game servers are open, from the web API's status document. Whenever the answer cannot be read
// the servers are reported online (with the error): the launcher must never keep players out by mistake.

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVKitExport.h>

#include <functional>
#include <optional>

class ZRVKIT_EXPORT ZRVServerStatus {
 public:
  using Callback = std::function<void(bool online, std::optional<ZRVError> error)>;

  /// The one shared instance, made on first use.
  static ZRVServerStatus& currentStatus();

  /// Asks "/api/status" once; `callback` runs exactly once on a work-queue thread.
  void getServerStatus(Callback callback);

 private:
  ZRVServerStatus() = default;
};
