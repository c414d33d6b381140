#include <ZRVKit/ZRVExtensions.h>

#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

struct DigestContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

DigestContext startSHA1() {
  // Fetched once: naming the digest by EVP_sha1() looks its implementation up again, under a lock, on every
  // start, and an update hashes tens of thousands of files. Never freed, like the library's shared instances.
  static const EVP_MD* const kSHA1 = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    return fetched ? fetched : EVP_sha1();
  }();
  DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), kSHA1, nullptr) != 1) throw std::bad_alloc();
  return context;
}

std::string finishSHA1(EVP_MD_CTX* context) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context, digest, &length);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 15];
  }
  return text;
}

// The SHA-1 of everything `read(buffer, size)` gives until it gives nothing (a negative count is a failure:
// ""). Most files an update checks are tiny, so they are read into a buffer on the stack; only a file that
// fills it gets a large one, left uninitialised (clearing a megabyte for each file cost more than reading and
// hashing it).
template <class Read>
std::string sha1OfReads(Read read) {
  DigestContext context = startSHA1();
  constexpr std::size_t kFirstChunk = 64 << 10, kChunk = 1 << 20;
  std::uint8_t first[kFirstChunk];
  std::unique_ptr<std::uint8_t[]> large;
  std::uint8_t* buffer = first;
  std::size_t capacity = kFirstChunk;
  for (;;) {
    ssize_t count = read(buffer, capacity);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return "";  // a folder, or a read error
    if (count == 0) break;
    EVP_DigestUpdate(context.get(), buffer, static_cast<std::size_t>(count));
    if (!large && static_cast<std::size_t>(count) == capacity) {
      large = std::make_unique_for_overwrite<std::uint8_t[]>(kChunk);
      buffer = large.get();
      capacity = kChunk;
    }
  }
  return finishSHA1(context.get());
}

}  // namespace

namespace ZRVExtensions {

std::string sha1Hash(const std::uint8_t* bytes, std::size_t length) {
  DigestContext context = startSHA1();
  EVP_DigestUpdate(context.get(), bytes, length);
  return finishSHA1(context.get());
}

std::string sha1Hash(const ZRVData& data) { return sha1Hash(data.data(), data.size()); }

std::string sha1Hash(const std::filesystem::path& file) {
  // Streamed rather than read whole: the digest is the same and large game files need no memory. No stdio
  // stream: an update checks tens of thousands of tiny files, and the stream's own buffer and bookkeeping cost
  // more than reading them.
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return "";
  std::string digest = sha1OfReads([descriptor](std::uint8_t* buffer, std::size_t size) {
    return ::read(descriptor, buffer, size);
  });
  ::close(descriptor);
  return digest;
}

std::string sha1HashOfDescriptor(int fd) {
  off_t offset = 0;
  return sha1OfReads([fd, &offset](std::uint8_t* buffer, std::size_t size) {
    ssize_t count = ::pread(fd, buffer, size, offset);
    if (count > 0) offset += count;
    return count;
  });
}

std::size_t utf16Length(std::string_view utf8) {
  std::size_t units = 0;
  for (std::size_t i = 0; i < utf8.size();) {
    auto lead = static_cast<unsigned char>(utf8[i]);
    std::size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 1;
    if (i + length > utf8.size()) length = 1;
    units += length == 4 ? 2 : 1;
    i += length;
  }
  return units;
}

std::string ac_sha1(std::string_view utf8) {
  std::size_t hashed = std::min(utf8.size(), utf16Length(utf8));
  return sha1Hash(reinterpret_cast<const std::uint8_t*>(utf8.data()), hashed);
}

bool containsString(std::string_view haystack, std::string_view needle) {
  return !needle.empty() && haystack.find(needle) != std::string_view::npos;
}

ZRVData subdata(const ZRVData& data, std::size_t offset, std::size_t length) {
  if (offset > data.size() || length > data.size() - offset) {
    throw std::out_of_range("range {" + std::to_string(offset) + ", " + std::to_string(length) +
                            "} out of bounds; length " + std::to_string(data.size()));
  }
  return ZRVData(data.begin() + static_cast<std::ptrdiff_t>(offset),
                 data.begin() + static_cast<std::ptrdiff_t>(offset + length));
}

}  // namespace ZRVExtensions
