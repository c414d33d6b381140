#pragma once
// Asking the status service whether the game servers are open, and waiting on the main queue for the answer.

#include <ZRVKit/ZRVError.h>

#include <optional>

struct ServerStatusAnswer {
  bool online = true;
  std::optional<ZRVError> error;  ///< set when the status could not be read (online is then assumed)
};

ServerStatusAnswer askServerStatus();
