// Files that only this device can read or make: authenticated encryption with a key of the device's
// own.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "msgapi/dmmsg.h"

namespace msgsvr {

// The values are those that requesters get.
enum class SealStatus : uint32_t {
  kOk = 0,
  // Not an absolute path to where such files may be, or a link is on the way.
  kBadPath = ORP_CFM_ERR_FILE_PLACE,
  kNoKey = ORP_CFM_ERR_FILE_KEY,         // the key file cannot be read or made
  kNotWritten = ORP_CFM_ERR_FILE_WRITE,  // errno says why
  kNotRead = ORP_CFM_ERR_FILE_READ,
  // Not such a file, damaged, cut off, or made with another key.
  kForeign = ORP_CFM_ERR_FILE_FOREIGN,
  kTaken = ORP_CFM_ERR_FILE_TAKEN,  // something other than a sealed file has that name
};

// What it means, for log lines.
const char *seal_text(SealStatus status);

// Where the key is and where sealed files may be.
struct SealOptions {
  std::string key_path;
  std::vector<std::string> directories;  // each ends in "/"; they may be links themselves
};

// Writes `content` to `path`. The file appears whole or not at all, is readable for its owner only,
// and may replace another sealed file. The key is made if there is none.
SealStatus write_sealed(const SealOptions &options, const std::string &path,
                        std::span<const char> content, uint32_t user);

// Reads it back. `limit` bounds the content.
SealStatus read_sealed(const SealOptions &options, const std::string &path, size_t limit,
                       std::vector<char> *content);

}  // namespace msgsvr
