#include "ring_reader.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

#include "common/unique_fd.h"
#include "msgapi/log.h"
#include "msgapi/ringlog.h"

namespace mlog {
namespace {

constexpr size_t kHeaderSize = MLOG_FILE_HEADER_SIZE;

bool cut_prefix(std::string_view *text, std::string_view prefix) {
  if (!text->starts_with(prefix)) return false;
  text->remove_prefix(prefix.size());
  return true;
}

// Takes a number of exactly `digits` digits off the front.
bool cut_number(std::string_view *text, size_t digits, long *value) {
  if (text->size() < digits || text->front() == '-') return false;
  const char *end = text->data() + digits;
  const auto [stop, error] = std::from_chars(text->data(), end, *value);
  if (error != std::errc() || stop != end) return false;
  text->remove_prefix(digits);
  return true;
}

// Takes "[text]" off the front.
bool cut_bracket(std::string_view *line, std::string_view *text) {
  const size_t end = line->find_first_of("]\n");
  if (!line->starts_with('[') || end == std::string_view::npos || (*line)[end] != ']') return false;
  *text = line->substr(1, end - 1);
  line->remove_prefix(end + 1);
  return true;
}

struct Head {
  int64_t uptime_ms = 0;
  std::string_view module;
  std::string_view level_name;
  std::string_view message;
};

bool parse_head(std::string_view line, Head *head) {
  std::string_view uptime;
  if (!cut_bracket(&line, &uptime) || !cut_bracket(&line, &head->module) ||
      !cut_bracket(&line, &head->level_name) || !cut_prefix(&line, ":")) {
    return false;
  }
  const char *end = uptime.data() + uptime.size();
  const auto [stop, error] = std::from_chars(uptime.data(), end, head->uptime_ms);
  head->message = line;
  return error == std::errc() && stop == end && !uptime.empty();
}

bool has_head(std::string_view line) {
  Head head;
  return parse_head(line, &head);
}

std::string read_all(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) throw std::runtime_error(std::strerror(errno));
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("not a regular file");
  // A ring never exceeds its limit; of anything larger the beginning tells enough.
  std::string bytes(std::min<size_t>(static_cast<size_t>(status.st_size), MLOG_FILE_MAX_SIZE),
                    '\0');
  size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got =
        ::pread(fd, bytes.data() + filled, bytes.size() - filled, static_cast<off_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw std::runtime_error(std::strerror(errno));
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  bytes.resize(filled);
  return bytes;
}

}  // namespace

Entry::Entry(std::string whole) : text(std::move(whole)) {
  Head head;
  has_head = parse_head(text, &head);
  if (!has_head) {
    message = text;
    return;
  }
  uptime_ms = head.uptime_ms;
  module = head.module;
  level_name = head.level_name;
  message = head.message;
  level = MlogGetLogLevel(std::string(level_name).c_str());
}

std::optional<RingHeader> parse_header(std::string_view bytes) {
  RingHeader header;
  long second_overturn = 0;
  const bool parsed = cut_prefix(&bytes, "[overturn=") && cut_number(&bytes, 3, &header.overturn) &&
                      cut_prefix(&bytes, "][offset=") && cut_number(&bytes, 10, &header.offset) &&
                      cut_prefix(&bytes, "][uploadoffset=") &&
                      cut_number(&bytes, 3, &second_overturn) && cut_prefix(&bytes, "^") &&
                      cut_number(&bytes, 10, &header.upload_offset) && cut_prefix(&bytes, "]\n");
  if (!parsed || header.offset < long{kHeaderSize} || header.offset > long{MLOG_FILE_MAX_SIZE}) {
    return std::nullopt;
  }
  return header;
}

void append_entries(std::string_view data, std::vector<Entry> *entries) {
  std::string text;
  const auto finish = [&] {
    if (!text.empty()) entries->emplace_back(std::exchange(text, {}));
  };
  while (!data.empty()) {
    const size_t end = std::min(data.find('\n'), data.size());
    const std::string_view line = data.substr(0, end);
    if (has_head(line)) finish();
    if (!text.empty()) text += '\n';
    text += line;
    data.remove_prefix(std::min(end + 1, data.size()));
  }
  finish();
}

Ring read_ring(std::string_view bytes) {
  Ring ring;
  ring.file_size = bytes.size();
  ring.header = parse_header(bytes);

  std::string data;
  if (!ring.header) {
    ring.problems.push_back(bytes.empty() ? "the file is empty"
                                          : "the header is damaged; the lines come as they stand");
    data = bytes.substr(bytes.starts_with("[overturn=") ? std::min(kHeaderSize, bytes.size()) : 0);
  } else {
    const size_t offset = std::min(static_cast<size_t>(ring.header->offset), bytes.size());
    std::string_view newer = bytes.substr(kHeaderSize, offset - kHeaderSize);
    std::string_view rest = bytes.substr(offset);
    if (static_cast<size_t>(ring.header->offset) > bytes.size()) {
      ring.problems.push_back(fmt::format("the last {} bytes are missing",
                                          static_cast<size_t>(ring.header->offset) - bytes.size()));
    }
    if (ring.header->overturn == 0) {
      if (!rest.empty()) {
        ring.problems.push_back(
            fmt::format("{} bytes behind the last header were saved", rest.size()));
      }
      data.append(newer).append(rest);
    } else {
      // The oldest line has usually lost its beginning to the newest.
      if (!has_head(rest.substr(0, rest.find('\n')))) {
        rest.remove_prefix(std::min(rest.find('\n'), rest.size() - (rest.empty() ? 0 : 1)));
        if (!rest.empty()) rest.remove_prefix(1);
      }
      data.append(rest).append(newer);
    }
  }

  // Holes that a full disk left.
  const size_t holes = static_cast<size_t>(std::count(data.begin(), data.end(), '\0'));
  if (holes > 0) {
    ring.problems.push_back(fmt::format("{} bytes were never written", holes));
    std::erase(data, '\0');
  }
  append_entries(data, &ring.entries);
  return ring;
}

std::string load_ring(const std::string &path) {
  const servers::UniqueFd fd(MlogFileOpen(path.c_str()));
  if (!fd) throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
  try {
    std::string bytes;
    for (int attempts = 0; attempts < 100; ++attempts) {
      bytes = read_all(fd.get());
      // Data and header belong together when the header is still the same behind the data.
      char header[kHeaderSize] = {};
      const ssize_t got = ::pread(fd.get(), header, sizeof header, 0);
      if (got < 0 || bytes.starts_with(std::string_view(header, static_cast<size_t>(got)))) break;
    }
    return bytes;
  } catch (const std::exception &error) {
    throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
  }
}

std::vector<Entry> entries_since(const RingHeader &before, int64_t last_uptime_ms,
                                 std::string_view bytes, bool *missed) {
  std::vector<Entry> entries;
  const std::optional<RingHeader> now = parse_header(bytes);
  *missed = false;
  if (!now) return entries;

  const auto part = [&](long from, long to) {
    const size_t begin = std::min(static_cast<size_t>(from), bytes.size());
    const size_t end = std::min(static_cast<size_t>(to), bytes.size());
    return bytes.substr(begin, end - std::min(begin, end));
  };
  if (now->overturn == before.overturn && now->offset >= before.offset) {
    append_entries(part(before.offset, now->offset), &entries);
  } else if (now->overturn == before.overturn % 999 + 1 && now->offset <= before.offset) {
    // The end of the turn before; behind it may stand what is older still.
    std::vector<Entry> tail;
    append_entries(part(before.offset, MLOG_FILE_MAX_SIZE), &tail);
    for (Entry &entry : tail) {
      if (!entry.has_head || entry.uptime_ms < last_uptime_ms) break;
      last_uptime_ms = entry.uptime_ms;
      entries.push_back(std::move(entry));
    }
    append_entries(part(kHeaderSize, now->offset), &entries);
  } else {
    *missed = true;
    entries = read_ring(bytes).entries;
  }
  return entries;
}

}  // namespace mlog
