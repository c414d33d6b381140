// Fuzzes the saved-login file: the input is the file, read by the file store as the saved logins would
// read it. Whatever it holds, the store answers or refuses; it never crashes.

#include "FuzzSupport.h"
#include "account/SecretStore.h"

#include <sys/stat.h>

#include <cstdlib>

using namespace zrv::account;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path folder = [] {
    setenv("XDG_DATA_HOME", fuzz::scratchFolder().c_str(), 1);
    std::filesystem::path made = fuzz::scratchFolder() / "Quillmoor Launcher";
    ::mkdir(made.c_str(), 0700);
    return made;
  }();
  const std::filesystem::path file = folder / "saved-logins.json";
  fuzz::writeBytes(file, data, size);
  ::chmod(file.c_str(), 0600);
  SecretQuery query{"Quillmoor", std::nullopt, true, true, true};
  SecretMatch match;
  (void)fileSecretStore().copyMatching(query, &match);
  SecretQuery one{"Quillmoor", std::string("player"), false, false, true};
  (void)fileSecretStore().copyMatching(one, &match);
  return 0;
}
