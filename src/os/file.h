// C streams that close themselves.
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>

namespace msgapi::os {

// Closing keeps errno and reports nothing: a writer that needs to know flushes first.
struct FileCloser {
  void operator()(std::FILE *file) const {
    const int saved = errno;
    std::fclose(file);
    errno = saved;
  }
};

using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace msgapi::os
