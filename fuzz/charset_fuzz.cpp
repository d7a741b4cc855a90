// The codecs on buffers of every size, and UTF-8 beside iconv.

#include <iconv.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "msgapi/charset.h"

namespace {

using Units = std::vector<uint16_t>;

void require(bool condition) {
  if (!condition) std::abort();
}

// iconv's result for valid UTF-8 with characters of up to three bytes; none for other input.
std::optional<Units> peer_units(const std::string &text) {
  static const iconv_t to_16 = ::iconv_open("UCS-2", "UTF-8");
  ::iconv(to_16, nullptr, nullptr, nullptr, nullptr);
  Units units(text.size());
  char *in = const_cast<char *>(text.data()), *out = reinterpret_cast<char *>(units.data());
  size_t in_left = text.size(), out_left = 2 * units.size();
  if (::iconv(to_16, &in, &in_left, &out, &out_left) != 0 || in_left != 0) return std::nullopt;
  units.resize(units.size() - out_left / 2);
  return units;
}

Units decode(const std::string &text, uint32_t capacity, uint32_t *status) {
  const std::unique_ptr<uint16_t[]> units(new uint16_t[capacity]);
  uint32_t size = capacity;
  *status = CL_Utf8ToUcs2(text.data(), static_cast<uint32_t>(text.size()), units.get(), &size);
  require(size <= capacity);
  return Units(units.get(), units.get() + size);
}

std::string encode(const Units &units, uint32_t capacity, uint32_t *status) {
  const std::unique_ptr<char[]> text(new char[capacity]);
  uint32_t size = capacity;
  *status = CL_Ucs2ToUtf8(units.data(), static_cast<uint32_t>(units.size()), text.get(), &size);
  require(size < capacity || (size == 0 && *status != CL_OK));
  return std::string(text.get(), size);
}

template <typename Sequence>
bool is_prefix(const Sequence &part, const Sequence &whole) {
  return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

void decode_and_encode(const std::string &text, uint32_t cut) {
  uint32_t status;
  const Units units = decode(text, static_cast<uint32_t>(text.size()) + 1, &status);
  const std::optional<Units> expected =
      text.find('\0') == std::string::npos ? peer_units(text) : std::nullopt;
  if (expected) {
    require(status == CL_OK && units == *expected);
    require(ORP_NLS_IsStringUtf8(text.c_str()) == 1);
  }
  uint32_t cut_status;
  require(is_prefix(decode(text, cut, &cut_status), units));

  if (units.empty()) return;
  const std::string back = encode(units, static_cast<uint32_t>(3 * units.size()) + 1, &status);
  require(status == CL_OK);
  if (expected) require(back == text);
  require(is_prefix(encode(units, cut, &cut_status), back));
  const std::unique_ptr<char[]> by_length(new char[cut]);
  CL_Ucs2ToUtf8ByLen(units.data(), static_cast<uint32_t>(units.size()), by_length.get(), cut);
  require(cut == 0 || is_prefix(std::string(by_length.get()), back));
}

void bytes_and_text(const std::string &input, uint32_t cut) {
  const auto *const bytes = reinterpret_cast<const uint8_t *>(input.data());
  const auto count = static_cast<uint32_t>(input.size());
  std::vector<char> hex(2 * count + 1);
  uint32_t size = 2 * count + 1;
  require(CL_BytesToString(bytes, count, hex.data(), &size) == CL_OK);
  std::vector<uint8_t> back(count);
  uint32_t back_size = count;
  require(CL_StringToBytes(hex.data(), size, back.data(), &back_size) == CL_OK);
  require(std::equal(back.begin(), back.end(), bytes, bytes + count));

  std::vector<uint16_t> units(count / 2 + 1);
  size = count / 2 + 1;
  require(CL_ByteOrderToWideChar(bytes, count, units.data(), &size) == CL_OK);
  if (size > 0) {
    uint32_t pairs_size = 2 * size;
    require(CL_WideCharToByteOrder(reinterpret_cast<const uint8_t *>(units.data()), size,
                                   back.data(), &pairs_size) == CL_OK);
    require(std::equal(back.begin(), back.begin() + pairs_size, bytes));
  }

  // Foreign hex text, with less room than it needs.
  const std::unique_ptr<uint8_t[]> short_out(new uint8_t[cut]);
  size = cut;
  CL_StringToBytes(input.c_str(), count, short_out.get(), &size);
  require(size <= cut);
  uint32_t value;
  CL_StringToNumeric(input.c_str(), count, 10, &value);
  CL_StringToNumeric(input.c_str(), count, 16, &value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const std::string input(reinterpret_cast<const char *>(data) + 1, size - 1);
  decode_and_encode(input, data[0]);
  bytes_and_text(input, data[0]);
  ORP_NLS_IsStringUtf8(input.c_str());
  return 0;
}
