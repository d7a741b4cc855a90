// A sealed file is a 40-byte head, the encrypted content and a 16-byte tag:
//
//   0   8  "CFGSEAL1"
//   8   4  the user for whom it was written, little-endian
//   12  4  0
//   16  24 nonce
//
// The content is encrypted with XChaCha20-Poly1305 (draft-irtf-cfrg-xchacha); the first 16 bytes of
// the head are authenticated with it.

#include "msgsvr/sealed_file.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "common/unique_fd.h"
#include "common/whole_file.h"
#include "common/write_all.h"

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

// Where a sealed file is or will be. The directory is held open, so it stays the same one whatever
// becomes of its path.
struct Place {
  UniqueFd directory;
  std::string name;
};

// Whether this is a plain name in a directory, with no way out of it.
bool is_plain(std::string_view name) {
  return !name.empty() && name != "." && name != "..";
}

bool same_file(int one, const struct stat &other) {
  struct stat status {};
  return ::fstat(one, &status) == 0 && status.st_dev == other.st_dev &&
         status.st_ino == other.st_ino;
}

// The place that `path` names, if sealed files may be there. Opens one directory after the other
// and refuses links. So nobody can lead us elsewhere, neither by an existing link nor by one that
// replaces a directory at the right moment.
std::optional<Place> place_of(const SealOptions &options, const std::string &path) {
  if (path.size() >= PATH_MAX) return std::nullopt;
  std::string base;
  for (const std::string &each : options.directories) {
    if (path.starts_with(each) && each.size() > base.size()) base = each;
  }
  if (base.empty()) return std::nullopt;
  UniqueFd directory(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string_view rest = std::string_view(path).substr(base.size());
  for (size_t slash; directory && (slash = rest.find('/')) != std::string_view::npos;) {
    const std::string name(rest.substr(0, slash));
    rest.remove_prefix(slash + 1);
    if (name.empty() || name == ".") continue;
    if (!is_plain(name)) return std::nullopt;
    directory = UniqueFd(
        ::openat(directory.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!directory || !is_plain(rest)) return std::nullopt;
  // The key's directory holds the store as well.
  struct stat store {};
  const std::string store_path = options.key_path.substr(0, options.key_path.rfind('/') + 1);
  if (::stat(store_path.c_str(), &store) == 0 && same_file(directory.get(), store)) {
    return std::nullopt;
  }
  return Place{std::move(directory), std::string(rest)};
}

// Opens what is there for reading, without following a link or waiting.
UniqueFd open_file(const Place &place) {
  return UniqueFd(::openat(place.directory.get(), place.name.c_str(),
                           O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
}

// Whether nothing is there, or a regular file that begins like a sealed one.
bool may_be_replaced(const Place &place) {
  struct stat status {};
  if (::fstatat(place.directory.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT;
  }
  if (!S_ISREG(status.st_mode)) return false;
  const UniqueFd file = open_file(place);
  char begin[kMagic.size()];
  return file && same_file(file.get(), status) && read_all(file.get(), begin, sizeof begin) &&
         std::string_view(begin, sizeof begin) == kMagic;
}

// A new key appears whole under its name, or not at all.
bool make_key(const std::string &path, Key *key) {
  ::randombytes_buf(key->bytes.data(), key->bytes.size());
  std::string fresh = path + ".XXXXXX";
  const UniqueFd file(::mkostemp(fresh.data(), O_CLOEXEC));  // mode 0600
  if (!file) return false;
  const bool made =
      servers::write_all(file.get(),
                         {reinterpret_cast<const char *>(key->bytes.data()), kKeySize}) &&
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

const char *seal_text(SealStatus status) {
  switch (status) {
    case SealStatus::kOk:
      return "done";
    case SealStatus::kBadPath:
      return "files may not be there, or a link is on the way";
    case SealStatus::kNoKey:
      return "the key cannot be read or made";
    case SealStatus::kNotWritten:
      return "the file cannot be written";
    case SealStatus::kNotRead:
      return "the file cannot be read";
    case SealStatus::kForeign:
      return "the file is damaged or not from this device";
    case SealStatus::kTaken:
      return "there is something else, which is not replaced";
  }
  return "failed";
}

SealStatus write_sealed(const SealOptions &options, const std::string &path,
                        std::span<const char> content, uint32_t user) {
  const auto target = place_of(options, path);
  if (!target) return SealStatus::kBadPath;
  if (!may_be_replaced(*target)) return SealStatus::kTaken;
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

  const bool written = servers::replace_file_in(
      target->directory.get(), target->name,
      {reinterpret_cast<const char *>(file_bytes.data()), file_bytes.size()});
  return written ? SealStatus::kOk : SealStatus::kNotWritten;
}

SealStatus read_sealed(const SealOptions &options, const std::string &path, size_t limit,
                       std::vector<char> *content) {
  const auto source = place_of(options, path);
  if (!source) return SealStatus::kBadPath;
  Key key;
  if (::sodium_init() < 0 || !read_key(options.key_path, &key)) return SealStatus::kNoKey;

  const UniqueFd file = open_file(*source);
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
