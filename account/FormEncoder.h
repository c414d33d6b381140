#pragma once
// The login form's encoding of one value: Unicode letters, marks and digits of every script and "*-._" pass
// as they are; everything else is percent-encoded byte by byte (a space as "%20", never "+").

#include <optional>
#include <string>

namespace zrv::account {

/// The value form-encoded; absent in, absent out.
std::optional<std::string> encoded(const std::optional<std::string>& text);

}  // namespace zrv::account
