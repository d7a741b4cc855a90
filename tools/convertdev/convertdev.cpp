// Stands in for the kernel's conversion device on machines without it.
//
// Preloaded into a program (LD_PRELOAD=libconvertdev.so), it opens /proc/convert and answers the
// device's request with the C library's iconv. It knows iconv's encoding names. All other calls go
// to the kernel unchanged.
//
// Characters that the output encoding lacks become "?" and mark the request as unclean. Bytes that
// mean nothing in the input encoding mark it, too: measuring then covers the bytes before them, and
// converting fails with EILSEQ. So callers can find out an encoding by trying.

#include <fcntl.h>
#include <iconv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "msgapi/charset.h"

namespace {

constexpr char kDescriptorName[] = "convert";
constexpr std::string_view kDescriptorLink = "/memfd:convert";

class Iconv {
 public:
  Iconv(const std::string &to, const std::string &from)
      : handle_(::iconv_open(to.c_str(), from.c_str())) {}
  Iconv(const Iconv &) = delete;
  Iconv &operator=(const Iconv &) = delete;
  ~Iconv() {
    if (ok()) ::iconv_close(handle_);
  }

  bool ok() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  // Appends the converted characters and cuts them off `*input`. Stops early, with false, at the
  // first that cannot be converted.
  bool convert(std::string_view *input, std::string *output) {
    while (!input->empty()) {
      char buffer[256];
      char *from = const_cast<char *>(input->data()), *to = buffer;
      size_t from_left = input->size(), to_left = sizeof buffer;
      const size_t result = ::iconv(handle_, &from, &from_left, &to, &to_left);
      output->append(buffer, to);
      input->remove_prefix(input->size() - from_left);
      if (result == static_cast<size_t>(-1) && errno != E2BIG) return false;
    }
    return true;
  }

 private:
  iconv_t handle_;
};

struct Converted {
  std::string bytes;
  bool whole = true;  // no undecodable bytes
  bool exact = true;  // nothing replaced
};

// None when an encoding is unknown.
std::optional<Converted> convert(std::string_view input, const std::string &input_encoding,
                                 const std::string &output_encoding) {
  Iconv decoder("WCHAR_T", input_encoding), encoder(output_encoding, "WCHAR_T");
  if (!decoder.ok() || !encoder.ok()) return std::nullopt;

  Converted converted;
  std::string wide;
  converted.whole = decoder.convert(&input, &wide);
  std::string_view rest = wide;
  while (!encoder.convert(&rest, &converted.bytes)) {
    constexpr wchar_t kReplacement = L'?';
    std::string_view replacement(reinterpret_cast<const char *>(&kReplacement),
                                 sizeof kReplacement);
    if (!encoder.convert(&replacement, &converted.bytes)) return std::nullopt;
    rest.remove_prefix(std::min(rest.size(), sizeof(wchar_t)));
    converted.exact = false;
  }
  return converted;
}

std::string name_of(const char (&field)[ORP_NLS_NAME_SIZE]) {
  return {field, ::strnlen(field, sizeof field)};
}

int fail(int error) {
  errno = error;
  return -1;
}

int answer(ORP_NLS_REQUEST_ST *request) {
  if (request == nullptr || request->pvInput == nullptr) return fail(EFAULT);
  const std::string_view input(static_cast<const char *>(request->pvInput), request->ulInputLength);
  const std::optional<Converted> converted =
      convert(input, name_of(request->aucInputEncoding), name_of(request->aucOutputEncoding));
  if (!converted) return fail(EINVAL);
  request->ulUnclean = converted->whole && converted->exact ? 0 : 1;

  if (request->ulOperation == ORP_NLS_MEASURE) {
    request->ulOutputLength = static_cast<uint32_t>(converted->bytes.size());
    return 0;
  }
  if (!converted->whole) return fail(EILSEQ);
  if (request->pvOutput == nullptr) return fail(EFAULT);
  const size_t length = std::min<size_t>(converted->bytes.size(), request->ulOutputLength);
  std::memcpy(request->pvOutput, converted->bytes.data(), length);
  return 0;
}

// For its callers this is a system call, which throws nothing.
int answer_without_exceptions(ORP_NLS_REQUEST_ST *request) try {
  return answer(request);
} catch (const std::bad_alloc &) {
  return fail(ENOMEM);
} catch (const std::length_error &) {
  return fail(ENOMEM);
}

bool is_device(int fd) {
  char path[32], link[64];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  const ssize_t length = ::readlink(path, link, sizeof link);
  return length > 0 &&
         std::string_view(link, static_cast<size_t>(length)).substr(0, kDescriptorLink.size()) ==
             kDescriptorLink;
}

int open_path(const char *path, int flags, mode_t mode) {
  if (path != nullptr && std::strcmp(path, ORP_NLS_DEVICE) == 0) {
    return ::memfd_create(kDescriptorName, (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0u);
  }
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

// Whether open() has a third argument.
bool has_mode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

}  // namespace

#define CONVERTDEV_EXPORT extern "C" __attribute__((visibility("default")))

CONVERTDEV_EXPORT int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = has_mode(flags) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return open_path(path, flags, mode);
}

CONVERTDEV_EXPORT int open64(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = has_mode(flags) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return open_path(path, flags | O_LARGEFILE, mode);
}

// Programs built with _FORTIFY_SOURCE call this one.
CONVERTDEV_EXPORT int __open_2(const char *path, int flags) {
  return open_path(path, flags, 0);
}

CONVERTDEV_EXPORT int __open64_2(const char *path, int flags) {
  return open_path(path, flags | O_LARGEFILE, 0);
}

CONVERTDEV_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *const argument = va_arg(arguments, void *);
  va_end(arguments);
  if (static_cast<uint32_t>(request) == ORP_NLS_DEVICE_REQUEST && is_device(fd)) {
    return answer_without_exceptions(static_cast<ORP_NLS_REQUEST_ST *>(argument));
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}
