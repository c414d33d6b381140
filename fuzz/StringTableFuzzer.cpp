// Fuzzes a string table (the library's texts and their translations share the form): the input is the
// table, looked up for a present and a missing key. A table that cannot be read counts as empty.

#include <ZRVKit/ZRVBundle.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path resources = [] {
    std::filesystem::path made = fuzz::scratchFolder() / "resources";
    std::filesystem::create_directories(made);
    return made;
  }();
  fuzz::writeBytes(resources / "Localizable.de.json", data, size);
  ZRVBundle bundle("com.example.fuzz", resources);
  bundle.setBuiltInTable("Localizable", "en", R"({"A": "a", "B": "b"})");
  bundle.setLanguage("de");
  (void)bundle.localizedString("A");
  (void)bundle.localizedString("MISSING", "fallback");
  return 0;
}
