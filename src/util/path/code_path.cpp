// Paths below /mnt as one word, "-" and the Base64 form of a piece for each, and suffixes.

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/cursor.h"
#include "base/memory.h"
#include "base/text.h"
#include "msgapi/path.h"
#include "orputil.h"

namespace msgapi::path {
namespace {

constexpr std::string_view kStorageRoot = "/mnt";

// Base64 (RFC 4648, section 4) by the platform, which counts in 32 bits; null on failure and for an
// empty result.
Owned<char> encode_piece(std::string_view piece) {
  char *encoded = nullptr;
  if (piece.size() > UINT32_MAX) return nullptr;
  const uint32_t length =
      ORP_UTIL_Base64Encode(piece.data(), static_cast<uint32_t>(piece.size()), &encoded);
  Owned<char> text(encoded);
  return text && length > 0 ? std::move(text) : nullptr;
}

// Also null for a piece with a NUL in it, which is no text.
Owned<char> decode_piece(std::string_view piece) {
  void *decoded = nullptr;
  if (piece.size() > UINT32_MAX) return nullptr;
  const uint32_t length =
      ORP_UTIL_Base64Decode(piece.data(), static_cast<uint32_t>(piece.size()), &decoded);
  Owned<char> text(static_cast<char *>(decoded));
  return text && length > 0 && std::strlen(text.get()) == length ? std::move(text) : nullptr;
}

using Coder = Owned<char> (*)(std::string_view piece);

// Puts `mark` and the coded form of each piece of `text`. False when a piece cannot be coded or
// does not fit.
bool put_pieces(TextWriter *out, std::string_view text, char separator, char mark, Coder code) {
  while (text.data() != nullptr) {
    const Owned<char> coded = code(cut_piece(&text, separator));
    if (!coded || !out->put(mark) || !out->put_text(coded.get())) return false;
  }
  return true;
}

bool encode(std::string_view path, TextWriter *out) {
  if (path.find(kStorageRoot) != path.npos) {
    // Whatever these characters are: the root is assumed to be in front.
    path.remove_prefix(kStorageRoot.size());
    if (path.starts_with('/')) path.remove_prefix(1);
  }
  if (path.empty()) return out->put_text(kStorageRoot);
  return put_pieces(out, path, '/', '-', encode_piece);
}

bool decode(std::string_view token, TextWriter *out) {
  if (!token.starts_with('-') || !out->put_text(kStorageRoot)) return false;
  token.remove_prefix(1);
  return put_pieces(out, token, '-', '/', decode_piece);
}

}  // namespace
}  // namespace msgapi::path

using namespace msgapi;

extern "C" uint32_t ORP_UTIL_RemoveSuffix(const char *text, char *out, uint32_t size,
                                          char separator) {
  if (out == nullptr || size == 0) return 1;
  out[0] = '\0';
  if (text == nullptr || separator == '\0') return 1;
  if (size == 1) return 0;

  const char *end = std::strchr(text, separator);
  if (end == nullptr && *text == '\0') return 1;
  const size_t length = end == nullptr ? std::strlen(text) : static_cast<size_t>(end - text);
  return copy_exact({out, size}, {text, length}) ? 0 : 1;
}

extern "C" uint32_t ORP_UTIL_EncodePath(const char *path, char *out, uint32_t size) {
  if (out == nullptr || size == 0) return ORP_ERR_ARGUMENT;
  out[0] = '\0';
  if (path == nullptr) return ORP_ERR_ARGUMENT;

  TextWriter writer({out, size});
  if (path::encode(path, &writer) && writer.put('\0')) return ORP_OK;
  out[0] = '\0';
  return ORP_ERR_ARGUMENT;
}

extern "C" uint32_t ORP_UTIL_DecodePath(const char *token, char *out, uint32_t size) {
  if (out == nullptr || size == 0) return ORP_ERR_ARGUMENT;
  out[0] = '\0';
  if (token == nullptr) return ORP_ERR_ARGUMENT;
  const Owned<char> copy = duplicate_text(token);
  if (!copy) return ORP_ERR_MEMORY;
  const size_t length = std::strlen(copy.get());
  std::replace(copy.get(), copy.get() + length, ' ', '+');

  TextWriter writer({out, size});
  if (path::decode({copy.get(), length}, &writer) && writer.put('\0')) return ORP_OK;
  out[0] = '\0';
  return ORP_ERR_ARGUMENT;
}
