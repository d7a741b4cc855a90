// Conversion of whole strings by the kernel's conversion device, and guessing an encoding.
//
// The device is asked twice: first for the length of the result, then for the result itself. The
// platform decides which encodings it knows.

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/memory.h"
#include "base/text.h"
#include "msgapi/charset.h"

namespace msgapi::charset {
namespace {

constexpr const char *kGuesses[] = {"utf8", "cp936", "cp950", "iso8859-1"};

// Open for the life of the process.
int g_device = -1;
// What ORP_NLS_TryConvertToUtf8NoFree returned last; owned.
char *g_kept_text;

bool send_request(ORP_NLS_REQUEST_ST *request) {
  if (g_device < 0) g_device = ::open(ORP_NLS_DEVICE, O_RDWR | O_CLOEXEC);
  return g_device >= 0 &&
         ::ioctl(g_device, static_cast<unsigned long>(ORP_NLS_DEVICE_REQUEST), request) >= 0;
}

struct Input {
  const char *encoding;
  const char *bytes;
  uint32_t length;
};

// False, with a console line in the name of `function`, for an encoding name that is too long.
bool fill_request(ORP_NLS_REQUEST_ST *request, const char *function, uint32_t operation,
                  const Input &input, const char *output_encoding) {
  *request = {};
  request->ulOperation = operation;
  request->pvInput = input.bytes;
  request->ulInputLength = input.length;
  if (!copy_exact(request->aucInputEncoding, input.encoding)) {
    std::printf("%s copy inputEncoding error.", function);
    return false;
  }
  if (!copy_exact(request->aucOutputEncoding, output_encoding)) {
    std::printf("%s copy outputEncoding error.", function);
    return false;
  }
  return true;
}

uint32_t measure(const Input &input, const char *output_encoding, bool accept_partial) {
  ORP_NLS_REQUEST_ST request;
  if (input.encoding == nullptr || input.bytes == nullptr || output_encoding == nullptr ||
      !fill_request(&request, "ORP_NLS_ConvertGetLength", ORP_NLS_MEASURE, input,
                    output_encoding) ||
      !send_request(&request)) {
    return ORP_NLS_NO_LENGTH;
  }
  return accept_partial || request.ulUnclean == 0 ? request.ulOutputLength : ORP_NLS_NO_LENGTH;
}

Owned<char> convert(const Input &input, const char *output_encoding, uint32_t *output_length) {
  const uint32_t length = measure(input, output_encoding, true);
  if (static_cast<int32_t>(length) < 1) return nullptr;

  ORP_NLS_REQUEST_ST request;
  if (!fill_request(&request, "ORP_NLS_ConvertString", ORP_NLS_CONVERT, input, output_encoding)) {
    return nullptr;
  }
  Owned<char> output(static_cast<char *>(guarded_zalloc(uint64_t{length} + 1)));
  if (!output) return nullptr;
  request.ulOutputLength = length;
  request.pvOutput = output.get();
  if (!send_request(&request)) return nullptr;

  *output_length = length;
  return output;
}

Owned<char> convert_text(const char *text, const char *output_encoding,
                         const char *input_encoding) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  if (size > UINT32_MAX) return nullptr;
  uint32_t ignored;
  return convert({input_encoding, text, static_cast<uint32_t>(size)}, output_encoding, &ignored);
}

Owned<char> guess_utf8(const char *text) {
  for (const char *encoding : kGuesses) {
    Owned<char> converted = convert_text(text, "utf8", encoding);
    if (converted) return converted;
  }
  return nullptr;
}

// Continuation bytes after `lead` (RFC 3629 section 3), or -1 for a byte that may not lead.
constexpr int continuation_count(uint8_t lead) {
  if (lead < 0x80) return 0;
  if (lead < 0xC0 || lead >= 0xF0) return -1;
  return lead < 0xE0 ? 1 : 2;
}

// The text ends with a NUL, which is no continuation byte.
bool is_utf8(const char *text) {
  while (*text != '\0') {
    int count = continuation_count(static_cast<uint8_t>(*text++));
    if (count < 0) return false;
    for (; count > 0; --count) {
      if ((static_cast<uint8_t>(*text++) & 0xC0) != 0x80) return false;
    }
  }
  return true;
}

}  // namespace
}  // namespace msgapi::charset

using namespace msgapi;
using namespace msgapi::charset;

static_assert(sizeof(void *) != 4 || sizeof(ORP_NLS_REQUEST_ST) == 88);
static_assert(sizeof(void *) != 4 || offsetof(ORP_NLS_REQUEST_ST, ulOutputLength) == 80);

extern "C" uint32_t ORP_NLS_ConvertGetLength(const char *input_encoding, const char *input,
                                             uint32_t length, const char *output_encoding,
                                             uint32_t accept_partial) {
  return measure({input_encoding, input, length}, output_encoding, accept_partial != 0);
}

extern "C" char *ORP_NLS_ConvertString(const char *input_encoding, const char *input,
                                       uint32_t length, const char *output_encoding,
                                       uint32_t *output_length) {
  uint32_t ignored;
  if (output_length == nullptr) output_length = &ignored;
  *output_length = 0;
  return convert({input_encoding, input, length}, output_encoding, output_length).release();
}

extern "C" char *ORP_NLS_GbConvert(const char *text, const char *output_encoding,
                                   const char *input_encoding) {
  return convert_text(text, output_encoding, input_encoding).release();
}

extern "C" char *ORP_NLS_GB2312Convert(const char *text, const char *output_encoding,
                                       const char *input_encoding) {
  return convert_text(text, output_encoding, input_encoding).release();
}

extern "C" char *ORP_NLS_IconvConvert(const char *text, const char *output_encoding,
                                      const char *input_encoding) {
  return convert_text(text, output_encoding, input_encoding).release();
}

extern "C" uint32_t ORP_NLS_IsStringUtf8(const char *text) {
  return text == nullptr || is_utf8(text) ? 1 : 0;
}

extern "C" char *ORP_NLS_TryConvertToUtf8(const char *text) {
  return guess_utf8(text).release();
}

extern "C" const char *ORP_NLS_TryConvertToUtf8NoFree(const char *text) {
  Owned<char> converted = guess_utf8(text);
  if (!converted) return text;
  // Freed only now: `text` may be the kept text.
  std::free(std::exchange(g_kept_text, converted.release()));
  return g_kept_text;
}
