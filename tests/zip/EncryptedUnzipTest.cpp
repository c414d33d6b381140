// Password-protected archives as Info-ZIP and 7-Zip write them: ZipCrypto (with the check byte from the CRC or,
// for streamed entries, from the time) and WinZip AES at its three strengths.

#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <map>

namespace fs = std::filesystem;

namespace {

constexpr const char* kPassword = "correct horse";

// Text that deflates well and noise that does not, both longer than several read chunks.
void writeSources(const fs::path& folder) {
  std::string text;
  for (int line = 0; text.size() < 150000; ++line) text += "line " + std::to_string(line) + " of the notes\n";
  std::string noise(70000, '\0');
  std::uint32_t state = 12345;
  for (char& c : noise) c = static_cast<char>((state = state * 1103515245u + 12345u) >> 24);
  writeFile(folder / "notes.txt", text);
  writeFile(folder / "noise.bin", noise);
  writeFile(folder / "small.txt", "tiny");
  writeFile(folder / "empty", "");
}

std::map<std::string, std::string> filesBelow(const fs::path& root) {
  std::map<std::string, std::string> files;
  if (!fs::exists(root)) return files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) files[entry.path().lexically_relative(root).string()] = readFile(entry.path());
  }
  return files;
}

struct Maker {
  const char* what;
  std::string command;    ///< run in the source folder; writes ../archive.zip
  std::string extractor;  ///< the maker's own extraction into ../reference
};

const std::string kFiles = " notes.txt noise.bin small.txt empty";
const std::string kInfoZipExtract = "unzip -qo -P '" + std::string(kPassword) + "' ../archive.zip -d ../reference";
const std::string k7ZipExtract = "7z x -y -bd -p'" + std::string(kPassword) + "' -o../reference ../archive.zip >/dev/null";

std::vector<Maker> makers() {
  const std::string zip = "zip -q -P '" + std::string(kPassword) + "' ";
  const std::string sevenZip = "7z a -tzip -bd -p'" + std::string(kPassword) + "' ";
  return {
      {"Info-ZIP deflated", zip + "../archive.zip" + kFiles, kInfoZipExtract},
      {"Info-ZIP stored", zip + "-0 ../archive.zip" + kFiles, kInfoZipExtract},
      {"Info-ZIP streamed", zip + "- - < notes.txt > ../archive.zip", kInfoZipExtract},
      {"Info-ZIP beside a clear entry", "zip -q ../archive.zip small.txt && " + zip + "../archive.zip notes.txt",
       kInfoZipExtract},
      {"7-Zip ZipCrypto", sevenZip + "-mem=ZipCrypto ../archive.zip" + kFiles + " >/dev/null", k7ZipExtract},
      {"7-Zip AES-128", sevenZip + "-mem=AES128 ../archive.zip" + kFiles + " >/dev/null", k7ZipExtract},
      {"7-Zip AES-192", sevenZip + "-mem=AES192 ../archive.zip" + kFiles + " >/dev/null", k7ZipExtract},
      {"7-Zip AES-256", sevenZip + "-mem=AES256 ../archive.zip" + kFiles + " >/dev/null", k7ZipExtract},
      {"7-Zip AES-256 stored", sevenZip + "-mem=AES256 -mx=0 ../archive.zip" + kFiles + " >/dev/null", k7ZipExtract},
  };
}

void putLittle32(std::string& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// 7-Zip writes AE-2 (no CRC) only: its single-entry archive becomes AE-1 with `crc` in both headers.
void makeAE1(const fs::path& archive, std::uint32_t crc) {
  std::string bytes = readFile(archive);
  const std::string extraField("\x01\x99\x07\x00\x02\x00" "AE", 8);
  for (std::size_t at = bytes.find(extraField); at != std::string::npos; at = bytes.find(extraField, at + 1)) {
    bytes[at + 4] = 1;
  }
  putLittle32(bytes, 14, crc);                                  // local header
  putLittle32(bytes, bytes.find(std::string("PK\x01\x02", 4)) + 16, crc);  // central header
  writeFile(archive, bytes);
}

}  // namespace

TEST(EncryptedUnzip, ArchivesOfInfoZipAnd7ZipUnpackWithTheirPasswordOnly) {
  for (const Maker& maker : makers()) {
    SCOPED_TRACE(maker.what);
    TemporaryDirectory temporary;
    writeSources(temporary / "source");
    ASSERT_EQ(runCommand("cd " + quoted(temporary / "source") + " && " + maker.command), 0);
    ASSERT_EQ(runCommand("cd " + quoted(temporary / "source") + " && " + maker.extractor), 0);
    const std::map<std::string, std::string> reference = filesBelow(temporary / "reference");
    ASSERT_FALSE(reference.empty());

    std::optional<ZRVError> error;
    EXPECT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "archive.zip", temporary / "right", true, kPassword, &error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(filesBelow(temporary / "right") == reference);

    // No password, or a wrong one: the unpack fails, and what is left are only entries that came out right.
    for (const std::optional<std::string>& password :
         {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("correct horsf")}) {
      const fs::path out = temporary / "wrong";
      fs::remove_all(out);
      EXPECT_FALSE(SSZipArchive::unzipFileAtPath(temporary / "archive.zip", out, true, password, &error));
      EXPECT_FALSE(error);
      for (const auto& [name, contents] : filesBelow(out)) {
        EXPECT_TRUE(reference.count(name) && reference.at(name) == contents) << name;
      }
    }
  }
}

// A flipped byte fails the unpack and leaves nothing; so does an AE-1 entry whose CRC is wrong, and only that.
TEST(EncryptedUnzip, TamperedDataFailsWithoutLeavingTheFile) {
  const std::string password(kPassword), sevenZip = "7z a -tzip -bd -p'" + password + "' ";
  const auto flipByteInTheMiddle = [](const fs::path& archive, std::uint32_t) {
    std::string bytes = readFile(archive);
    bytes[bytes.size() / 2] ^= 0x20;
    writeFile(archive, bytes);
  };
  const auto ae1 = [](std::uint32_t flip) {
    return [flip](const fs::path& archive, std::uint32_t crc) { makeAE1(archive, crc ^ flip); };
  };
  const struct {
    std::string command;
    std::function<void(const fs::path&, std::uint32_t crcOfNotes)> tamper;
    bool unpacks;
  } cases[] = {
      {"zip -q -0 -P '" + password + "' ../archive.zip noise.bin", flipByteInTheMiddle, false},
      {sevenZip + "-mem=AES256 -mx=0 ../archive.zip noise.bin >/dev/null", flipByteInTheMiddle, false},
      {sevenZip + "-mem=AES128 ../archive.zip notes.txt >/dev/null", flipByteInTheMiddle, false},
      {sevenZip + "-mem=AES192 ../archive.zip notes.txt >/dev/null", ae1(0), true},
      {sevenZip + "-mem=AES192 ../archive.zip notes.txt >/dev/null", ae1(1), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    TemporaryDirectory temporary;
    writeSources(temporary / "source");
    ASSERT_EQ(runCommand("cd " + quoted(temporary / "source") + " && " + c.command), 0);
    const std::string notes = readFile(temporary / "source" / "notes.txt");
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(notes.data()), static_cast<uInt>(notes.size()));
    c.tamper(temporary / "archive.zip", static_cast<std::uint32_t>(crc));
    EXPECT_EQ(SSZipArchive::unzipFileAtPath(temporary / "archive.zip", temporary / "out", true, password, nullptr),
              c.unpacks);
    const std::map<std::string, std::string> unpacked = filesBelow(temporary / "out");
    using Files = std::map<std::string, std::string>;
    EXPECT_EQ(unpacked, (c.unpacks ? Files{{"notes.txt", notes}} : Files{}));
  }
}
