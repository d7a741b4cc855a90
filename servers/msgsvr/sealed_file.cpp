// A sealed file is a 40-byte head, the encrypted content and a 16-byte tag:
//
//   0   8  "CFGSEAL1"
//   8   4  the user for whom it was written, little-endian
//   12  4  0
//   16  24 nonce
//
// encrypted with XChaCha20-Poly1305 (draft-irtf-cfrg-xchacha), the first 16 bytes of the head being
// authenticated with the content.

#include "msgsvr/sealed_file.h"

#include <fcntl.h>
#include <sodium.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "common/unique_fd.h"
#include "msgsvr/whole_file.h"

namespace msgsvr {
namespace {

using servers::UniqueFd;

constexpr std::string_view kMagic = "CFGSEAL1";
constexpr size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr size_t kKeySize = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr size_t kAuthenticated = 16;
constexpr size_t kHeadSize = kAuthenticated + kNonceSize;

struct Key {
  std::array<unsigned char, kKeySize> bytes{};
  ~Key() { ::sodium_memzero(bytes.data(), bytes.size()); }
};

bool read_all(int fd, void *data, size_t size) {
  char *next = static_cast<char *>(data);
  while (size > 0) {
    const ssize_t count = ::read(fd, next, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    next += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

// The path with its directory's links resolved, if that is where sealed files may be.
std::optional<std::string> permitted(const SealOptions &options, const std::string &path) {
  const size_t slash = path.rfind('/');
  if (path.empty() || path[0] != '/' || slash + 1 == path.size()) return std::nullopt;
  const std::string name = path.substr(slash + 1);
  if (name == "." || name == "..") return std::nullopt;
  const std::unique_ptr<char, void (*)(void *)> directory(
      ::realpath(path.substr(0, slash + 1).c_str(), nullptr), ::free);
  if (!directory) return std::nullopt;
  std::string resolved = directory.get();
  if (resolved.back() != '/') resolved += '/';
  // The key's directory holds the store as well.
  if (options.key_path.substr(0, options.key_path.rfind('/') + 1) == resolved) return std::nullopt;
  for (const std::string &allowed : options.directories) {
    if (resolved.starts_with(allowed)) return resolved + name;
  }
  return std::nullopt;
}

// A new key appears whole under its name, or not at all.
bool make_key(const std::string &path, Key *key) {
  ::randombytes_buf(key->bytes.data(), key->bytes.size());
  std::string fresh = path + ".XXXXXX";
  const UniqueFd file(::mkostemp(fresh.data(), O_CLOEXEC));  // mode 0600
  if (!file) return false;
  const bool made =
      write_all(file.get(), {reinterpret_cast<const char *>(key->bytes.data()), kKeySize}) &&
      ::fsync(file.get()) == 0 && ::link(fresh.c_str(), path.c_str()) == 0;
  ::unlink(fresh.c_str());
  return made;
}

bool read_key(const std::string &path, Key *key) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file) return false;
  struct stat status {};
  // A key that others can read is no secret.
  if (::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) == 0 &&
      status.st_size == kKeySize && read_all(file.get(), key->bytes.data(), kKeySize)) {
    return true;
  }
  errno = EPERM;
  return false;
}

}  // namespace

SealStatus write_sealed(const SealOptions &options, const std::string &path,
                        std::span<const char> content, uint32_t user) {
  const auto target = permitted(options, path);
  if (!target) return SealStatus::kBadPath;
  Key key;
  if (::sodium_init() < 0) return SealStatus::kNoKey;
  if (!read_key(options.key_path, &key)) {
    if (errno != ENOENT) return SealStatus::kNoKey;
    if (!make_key(options.key_path, &key)) return SealStatus::kNoKey;
  }

  std::vector<unsigned char> file_bytes(kHeadSize + content.size() + kTagSize);
  unsigned char *head = file_bytes.data();
  std::memcpy(head, kMagic.data(), kMagic.size());
  for (size_t i = 0; i < 4; ++i) head[8 + i] = static_cast<unsigned char>(user >> (8 * i));
  ::randombytes_buf(head + kAuthenticated, kNonceSize);
  ::crypto_aead_xchacha20poly1305_ietf_encrypt(
      head + kHeadSize, nullptr, reinterpret_cast<const unsigned char *>(content.data()),
      content.size(), head, kAuthenticated, nullptr, head + kAuthenticated, key.bytes.data());

  const bool written =
      replace_file(*target, {reinterpret_cast<const char *>(file_bytes.data()), file_bytes.size()});
  return written ? SealStatus::kOk : SealStatus::kNotWritten;
}

SealStatus read_sealed(const SealOptions &options, const std::string &path, size_t limit,
                       std::vector<char> *content) {
  const auto source = permitted(options, path);
  if (!source) return SealStatus::kBadPath;
  Key key;
  if (::sodium_init() < 0 || !read_key(options.key_path, &key)) return SealStatus::kNoKey;

  const UniqueFd file(::open(source->c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return SealStatus::kNotRead;
  const uint64_t size = static_cast<uint64_t>(status.st_size);
  if (!S_ISREG(status.st_mode) || size < kHeadSize + kTagSize ||
      size > kHeadSize + kTagSize + uint64_t{limit}) {
    return SealStatus::kForeign;
  }
  std::vector<unsigned char> bytes(static_cast<size_t>(size));
  if (!read_all(file.get(), bytes.data(), bytes.size())) return SealStatus::kNotRead;
  if (std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0) return SealStatus::kForeign;

  content->resize(bytes.size() - kHeadSize - kTagSize);
  if (::crypto_aead_xchacha20poly1305_ietf_decrypt(
          reinterpret_cast<unsigned char *>(content->data()), nullptr, nullptr,
          bytes.data() + kHeadSize, bytes.size() - kHeadSize, bytes.data(), kAuthenticated,
          bytes.data() + kAuthenticated, key.bytes.data()) != 0) {
    content->clear();
    return SealStatus::kForeign;
  }
  return SealStatus::kOk;
}

}  // namespace msgsvr
