// Files that only this device can read and that nobody else can have made: authenticated
// encryption with a key of the device's own.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace msgsvr {

enum class SealStatus : uint32_t {
  kOk = 0,
  kBadPath = 1,     // not an absolute path to where such files may be
  kNoKey = 2,       // the key file cannot be read or made
  kNotWritten = 3,  // errno says why
  kNotRead = 4,
  kForeign = 5,  // not such a file, damaged, cut off, or made with another key
};

// Where the key is and where sealed files may be.
struct SealOptions {
  std::string key_path;
  std::vector<std::string> directories;  // each ends in "/"
};

// Writes `content` to `path`, which appears whole or not at all, readable for its owner only. The
// key is made if there is none.
SealStatus write_sealed(const SealOptions &options, const std::string &path,
                        std::span<const char> content, uint32_t user);

// Reads it back. `limit` bounds the content.
SealStatus read_sealed(const SealOptions &options, const std::string &path, size_t limit,
                       std::vector<char> *content);

}  // namespace msgsvr
