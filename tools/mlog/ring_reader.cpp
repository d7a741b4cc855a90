// The writer never waits for a reader. So the header is read again after each window: it tells how
// much of the window has been written over meanwhile. That part is skipped and reported as missed.

#include "ring_reader.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "msgapi/log.h"
#include "msgapi/ringlog.h"

namespace mlog {
namespace {

constexpr size_t kHeaderSize = MLOG_FILE_HEADER_SIZE;
constexpr size_t kWindow = 65536;
// Room for the longest line that the server writes and for what may precede it.
constexpr size_t kNear = 8192;
// No head of a line is longer: uptime, module, level, process.
constexpr size_t kLongestHead = 320;

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

// Takes "[text]" off the front. The bracket must end within the line.
bool cut_bracket(std::string_view *line, std::string_view *text) {
  if (line->empty() || line->front() != '[') return false;
  const size_t limit = std::min(line->size(), kLongestHead);
  for (size_t i = 1; i < limit && (*line)[i] != '\n'; ++i) {
    if ((*line)[i] != ']') continue;
    *text = line->substr(1, i - 1);
    line->remove_prefix(i + 1);
    return true;
  }
  return false;
}

struct Head {
  int64_t uptime_ms = 0;
  std::string_view module;
  std::string_view level_name;
  std::optional<uint32_t> pid;
  std::string_view message;
};

bool cut_uptime(std::string_view *line, int64_t *uptime_ms) {
  if (line->size() < 3 || line->front() != '[') return false;
  const char *end = line->data() + std::min<size_t>(line->size(), 24);
  const auto [stop, error] = std::from_chars(line->data() + 1, end, *uptime_ms);
  if (error != std::errc() || stop == end || *stop != ']') return false;
  line->remove_prefix(static_cast<size_t>(stop - line->data()) + 1);
  return true;
}

// Takes "[PID]" off the front, if the line begins with a bracket. False if it holds no number.
bool cut_pid(std::string_view *line, std::optional<uint32_t> *pid) {
  std::string_view text;
  if (!cut_bracket(line, &text)) return true;
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, pid->emplace());
  return error == std::errc() && stop == end;
}

bool parse_head(std::string_view line, Head *head) {
  if (!cut_uptime(&line, &head->uptime_ms) || !cut_bracket(&line, &head->module) ||
      !cut_bracket(&line, &head->level_name) || !cut_pid(&line, &head->pid) ||
      !cut_prefix(&line, ":")) {
    return false;
  }
  head->message = line;
  return true;
}

bool has_head(std::string_view line) {
  Head head;
  return parse_head(line, &head);
}

uint32_t level_of(std::string_view name) {
  if (name == "INFO") return MLOG_LEVEL_INFO;
  if (name == "WARN") return MLOG_LEVEL_WARN;
  if (name == "ERRO") return MLOG_LEVEL_ERROR;
  return MlogGetLogLevel(std::string(name).c_str());
}

// The end of the line that begins at `begin`, its line feed included. A hole (zero bytes, which a
// full disk may leave) ends a line, too.
size_t end_of_line(std::string_view text, size_t begin) {
  const char *from = text.data() + begin;
  const auto *feed = static_cast<const char *>(std::memchr(from, '\n', text.size() - begin));
  const size_t end = feed == nullptr ? text.size() : static_cast<size_t>(feed - text.data()) + 1;
  const void *hole = std::memchr(from, '\0', end - begin);
  if (hole == nullptr) return end;
  const auto at = static_cast<size_t>(static_cast<const char *>(hole) - text.data());
  return std::min(text.find_first_not_of('\0', at), text.size());
}

// The beginning of the last line of `text`.
size_t begin_of_last_line(std::string_view text) {
  size_t last = text.size();
  if (last > 0 && text[last - 1] == '\n') --last;
  while (last > 0 && text[last - 1] == '\0') --last;
  const auto *feed = static_cast<const char *>(::memrchr(text.data(), '\n', last));
  const size_t begin = feed == nullptr ? 0 : static_cast<size_t>(feed - text.data()) + 1;
  const auto *hole = static_cast<const char *>(::memrchr(text.data() + begin, '\0', last - begin));
  return hole == nullptr ? begin : static_cast<size_t>(hole - text.data()) + 1;
}

// Where the first entry in `text` ends.
size_t end_of_entry(std::string_view text) {
  size_t end = end_of_line(text, 0);
  while (end < text.size() && !has_head(text.substr(end))) end = end_of_line(text, end);
  return end;
}

// Where the turn before the running one ends in the last bytes of a file. Still older bytes may be
// behind it, because a buffer is never split: the first buffer of the running turn did not fit
// there, so they are fewer than its bytes. `text` begins with a line. `last_ms` is the uptime
// before it, if that is known, and `first_ms` the uptime of the running turn's first buffer.
size_t end_of_turn(std::string_view text, size_t first_size, std::optional<int64_t> last_ms,
                   std::optional<int64_t> first_ms) {
  // Lines of one moment may come in any order.
  constexpr int64_t kDisorder_ms = 5;
  for (size_t at = 0; at < text.size(); at = end_of_line(text, at)) {
    Head head;
    const bool headed = parse_head(text.substr(at), &head);
    if (text.size() - at < first_size) {
      // The rest of a line whose beginning was written over.
      if (!headed && text[at] != '\t') return at;
      // A line whose uptime does not fit between those before and after it, even if the device
      // restarted between them.
      if (headed && last_ms && first_ms) {
        const bool follows = head.uptime_ms >= *last_ms - kDisorder_ms;
        const bool precedes = head.uptime_ms <= *first_ms + kDisorder_ms;
        const bool has_place = *first_ms >= *last_ms ? follows && precedes : follows || precedes;
        if (!has_place) return at;
      }
    }
    if (headed) last_ms = head.uptime_ms;
  }
  return text.size();
}

// The first entry of the running turn.
struct First {
  size_t size = 0;
  std::optional<int64_t> uptime_ms;
};

First first_of_turn(const RingFile &file, size_t end) {
  std::string bytes;
  file.read(kHeaderSize, std::min(kNear, end - std::min(end, kHeaderSize)), &bytes);
  if (bytes.empty()) return {};
  First first;
  first.size = end_of_entry(bytes);
  Head head;
  if (parse_head(bytes, &head)) first.uptime_ms = head.uptime_ms;
  return first;
}

// Skips the rest of a line whose beginning a newer line has overwritten.
size_t begin_of_older(const RingFile &file, Layout::Part part) {
  std::string bytes;
  file.read(part.begin, std::min(kNear, part.end - part.begin), &bytes);
  if (bytes.empty() || has_head(bytes)) return part.begin;
  size_t end = end_of_line(bytes, 0);
  if (bytes[end - 1] != '\n') return part.end;
  while (end < bytes.size() && bytes[end] == '\t') end = end_of_line(bytes, end);
  return part.begin + end;
}

size_t end_of_older(const RingFile &file, Layout::Part part, const First &first) {
  if (first.size == 0) return part.end;
  const size_t near = std::min(part.end - part.begin, first.size + kNear);
  std::string bytes;
  file.read(part.end - near, near, &bytes);
  // Begins with the first whole line.
  size_t skipped = 0;
  if (near < part.end - part.begin) skipped = end_of_line(bytes, 0);
  const std::string_view text = std::string_view(bytes).substr(skipped);
  return part.end - bytes.size() + skipped +
         end_of_turn(text, first.size, std::nullopt, first.uptime_ms);
}

}  // namespace

Entry::Entry(std::string_view whole) : text(whole), message(whole) {
  Head head;
  has_head = parse_head(text, &head);
  if (!has_head) return;
  uptime_ms = head.uptime_ms;
  module = head.module;
  level_name = head.level_name;
  pid = head.pid;
  message = head.message;
  level = level_of(level_name);
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

RingFile::RingFile(const std::string &path) : fd_(MlogFileOpen(path.c_str())) {
  if (!fd_) throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error(path + ": not a regular file");
  }
}

size_t RingFile::read(size_t position, std::span<char> out) const {
  if (!fd_) {
    const std::string_view part = bytes_.substr(std::min(position, bytes_.size()), out.size());
    std::copy(part.begin(), part.end(), out.begin());
    return part.size();
  }
  size_t filled = 0;
  while (filled < out.size()) {
    const ssize_t got = ::pread(fd_.get(), out.data() + filled, out.size() - filled,
                                static_cast<off_t>(position + filled));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    filled += static_cast<size_t>(got);
  }
  return filled;
}

size_t RingFile::read(size_t position, size_t size, std::string *out) const {
  const size_t before = out->size();
  out->resize(before + size);
  const size_t filled = read(position, std::span(*out).subspan(before));
  out->resize(before + filled);
  return filled;
}

std::optional<RingHeader> RingFile::header() const {
  std::string bytes;
  read(0, kHeaderSize, &bytes);
  if (!fd_) return parse_header(bytes);
  // A read may meet a write half-way. Bytes that are the same twice are whole.
  for (int attempts = 0; attempts < 100; ++attempts) {
    std::string again;
    read(0, kHeaderSize, &again);
    if (again == bytes) break;
    bytes = std::move(again);
  }
  return parse_header(bytes);
}

size_t RingFile::size() const {
  if (!fd_) return bytes_.size();
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) return 0;
  // A ring never exceeds its limit; of a larger file only the beginning is looked at.
  return std::min<size_t>(static_cast<size_t>(status.st_size), MLOG_FILE_MAX_SIZE);
}

std::optional<int64_t> RingFile::modified_ms() const {
  struct stat status {};
  if (!fd_ || ::fstat(fd_.get(), &status) != 0) return std::nullopt;
  return int64_t{status.st_mtim.tv_sec} * 1000 + status.st_mtim.tv_nsec / 1000000;
}

bool RingFile::is_at(const std::string &path) const {
  struct stat own {};
  struct stat named {};
  return fd_ && ::fstat(fd_.get(), &own) == 0 && ::stat(path.c_str(), &named) == 0 &&
         own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

Layout look_at(const RingFile &file, bool written_only) {
  Layout layout;
  layout.header = file.header();
  layout.file_size = file.size();
  for (int attempts = 0; attempts < 20 && file.is_live() && layout.header &&
                         layout.file_size > static_cast<size_t>(layout.header->offset) &&
                         layout.header->overturn == 0 && !written_only;
       ++attempts) {
    // The server writes the header after the line. A moment later the header shows whether the
    // server is writing just now.
    ::usleep(1000);
    const std::optional<RingHeader> before = std::exchange(layout.header, file.header());
    if (layout.header == before) break;
    layout.file_size = file.size();
  }
  const size_t size = layout.file_size;
  if (!layout.header) {
    layout.problems.emplace_back(size == 0 ? "the file is empty"
                                           : "the header is damaged; the lines come as they stand");
    std::string start;
    file.read(0, kHeaderSize, &start);
    const bool has_remains = start.starts_with("[overturn=");
    layout.newer = {has_remains ? std::min(kHeaderSize, size) : 0, size};
    return layout;
  }

  const auto offset = static_cast<size_t>(layout.header->offset);
  const size_t end = std::max(std::min(offset, size), std::min(kHeaderSize, size));
  layout.newer = {std::min(kHeaderSize, size), end};
  if (offset > size) {
    layout.problems.push_back(fmt::format("the last {} bytes are missing", offset - size));
  }
  if (layout.header->overturn == 0) {
    if (size > end && !written_only) {
      layout.problems.push_back(
          fmt::format("{} bytes behind the last header were saved", size - end));
      layout.newer.end = size;
    }
    return layout;
  }
  layout.older = {end, size};
  layout.older.begin = begin_of_older(file, layout.older);
  layout.older.end = end_of_older(file, layout.older, first_of_turn(file, end));
  return layout;
}

Cursor::Cursor(const RingFile *file, const Layout &layout, bool forward)
    : file_(file),
      seen_(layout.header),
      parts_{layout.older, layout.newer},
      forward_(forward),
      part_(forward ? 0 : 1),
      read_to_(forward ? layout.older.begin : layout.newer.end),
      key_ms_(forward ? 0 : INT64_MAX) {}

Cursor Cursor::forwards(const RingFile *file, const Layout &layout, unsigned boots) {
  Cursor cursor(file, layout, true);
  cursor.boot_ = boots;
  return cursor;
}

Cursor Cursor::backwards(const RingFile *file, const Layout &layout) {
  return Cursor(file, layout, false);
}

Cursor Cursor::from(const RingFile *file, const Layout &layout, const Place &place) {
  Cursor cursor(file, layout, true);
  cursor.part_ = place.in_newer ? 1 : 0;
  cursor.read_to_ = place.position;
  cursor.boot_ = place.boot;
  return cursor;
}

Place Cursor::place() const {
  return {part_ == 1, entry_at_, boot_};
}

bool Cursor::next() {
  if (!(forward_ ? next_forward() : next_backward())) return false;
  if (std::memchr(entry_.text.data(), '\0', entry_.text.size()) != nullptr) {
    without_holes_ = entry_.text;
    holes_ += std::erase(without_holes_, '\0');
    if (without_holes_.ends_with('\n')) without_holes_.pop_back();
    entry_.text = without_holes_;
  }
  entry_ = Entry(entry_.text);
  if (!entry_.has_head) return true;

  const int64_t now_ms = entry_.uptime_ms;
  if (!std::exchange(has_key_, true)) {
    key_ms_ = now_ms;
  } else if (forward_) {
    const bool restarted = now_ms < key_ms_ - kSmallStep_ms;
    if (restarted && boot_ > 0) --boot_;
    key_ms_ = restarted ? now_ms : std::max(key_ms_, now_ms);
  } else {
    const bool restarted = now_ms > key_ms_ + kSmallStep_ms;
    if (restarted) ++boot_;
    key_ms_ = restarted ? now_ms : std::min(key_ms_, now_ms);
  }
  return true;
}

bool Cursor::next_forward() {
  for (;;) {
    const std::string_view left = std::string_view(window_).substr(begin_);
    const size_t size = left.empty() ? 0 : end_of_entry(left);
    // An entry is known to be whole when the next one begins in the window, with a whole head.
    if (left.size() < size + kLongestHead && fill_forward()) continue;
    if (left.empty()) {
      if (!enter_next_part()) return false;
      continue;
    }
    entry_at_ = read_to_ - left.size();
    entry_.text = left.substr(0, size - (left[size - 1] == '\n' ? 1 : 0));
    begin_ += size;
    if (entry_.text.find_first_not_of('\0') != std::string_view::npos) return true;
  }
}

bool Cursor::fill_forward() {
  const size_t end = parts_[part_].end;
  if (read_to_ >= end) return false;
  window_.erase(0, std::exchange(begin_, 0));
  const size_t position = read_to_;
  const size_t got = file_->read(position, std::min(kWindow, end - position), &window_);
  read_to_ += got;
  if (got == 0) parts_[part_].end = read_to_;  // it has become shorter

  const size_t lost_to = overwritten_to();
  if (lost_to <= position) return true;
  missed_ = true;
  // The last line of the window before has lost its end, and the first line that is left may have
  // lost its beginning.
  std::string kept = window_.substr(0, window_.size() - got);
  kept.erase(kept.rfind('\n') + 1);
  std::string_view rest = std::string_view(window_).substr(window_.size() - got);
  rest.remove_prefix(std::min(lost_to - position, got));
  while (!rest.empty() && !has_head(rest)) rest.remove_prefix(end_of_line(rest, 0));
  window_ = kept.append(rest);
  read_to_ = std::max(read_to_, std::min(lost_to, end));
  return true;
}

size_t Cursor::overwritten_to() const {
  if (!seen_) return 0;
  const std::optional<RingHeader> now = file_->header();
  if (now == seen_) return 0;
  if (now && now->overturn == seen_->overturn && now->offset >= seen_->offset) {
    return part_ == 0 ? static_cast<size_t>(now->offset) : 0;
  }
  if (part_ == 1 && now && now->overturn == seen_->overturn % 999 + 1) {
    return static_cast<size_t>(now->offset);
  }
  return parts_[part_].end;
}

bool Cursor::enter_next_part() {
  if (part_ == (forward_ ? 1 : 0)) return false;
  part_ = forward_ ? 1 : 0;
  window_.clear();
  begin_ = end_ = 0;
  read_to_ = forward_ ? parts_[1].begin : parts_[0].end;
  return true;
}

// The window holds the bytes from read_to_ on; its first end_ bytes have not been passed yet.
bool Cursor::next_backward() {
  for (;;) {
    const std::string_view left = std::string_view(window_).substr(0, end_);
    if (left.empty()) {
      if (!fill_backward() && !enter_next_part()) return false;
      continue;
    }
    // The entry begins with the last line that has a head, or with the first line of the part.
    size_t begin = left.size();
    do {
      begin = begin_of_last_line(left.substr(0, begin));
    } while (begin > 0 && !has_head(left.substr(begin)));
    // The window may begin with the rest of a line.
    if (begin == 0 && fill_backward()) continue;

    entry_at_ = read_to_ + begin;
    entry_.text = left.substr(begin, left.size() - begin - (left.back() == '\n' ? 1 : 0));
    end_ = begin;
    if (entry_.text.find_first_not_of('\0') != std::string_view::npos) return true;
  }
}

bool Cursor::fill_backward() {
  size_t &begin = parts_[part_].begin;
  if (read_to_ <= begin) return false;
  const size_t size = std::min(kWindow, read_to_ - begin);
  std::string more;
  size_t got = file_->read(read_to_ - size, size, &more);
  size_t lost_to = overwritten_to();
  if (got < size) lost_to = read_to_;  // it has become shorter
  if (lost_to > read_to_ - size) {
    missed_ = true;
    std::string_view rest = more;
    rest.remove_prefix(std::min(lost_to - (read_to_ - size), got));
    while (!rest.empty() && !has_head(rest)) rest.remove_prefix(end_of_line(rest, 0));
    more = rest;
    begin = read_to_ - more.size();
  }
  read_to_ -= more.size();
  window_ = std::move(more) + window_.substr(0, end_);
  end_ = window_.size();
  return end_ > 0;
}

// Whether the uptime never goes back in a file, as in most. Uptimes are compared as texts of 11
// digits, which takes a tenth of the time of parsing heads. False when that does not tell.
static bool never_goes_back(const RingFile &file, const Layout &layout) {
  constexpr size_t kDigits = 11;
  std::array<char, kDigits> latest;
  latest.fill('0');
  const auto number = [](const char *digits, int64_t *value) {
    const auto [stop, error] = std::from_chars(digits, digits + kDigits, *value);
    return error == std::errc() && stop == digits + kDigits;
  };
  std::vector<char> window(kWindow);
  for (const Layout::Part &part : {layout.older, layout.newer}) {
    size_t position = part.begin;
    while (position < part.end) {
      const size_t got =
          file.read(position, {window.data(), std::min(kWindow, part.end - position)});
      const char *const end = window.data() + got;
      if (got == 0 || std::memchr(window.data(), '\0', got) != nullptr) return false;
      const char *line = window.data();
      for (const char *feed; (feed = static_cast<const char *>(std::memchr(
                                  line, '\n', static_cast<size_t>(end - line)))) != nullptr;
           line = feed + 1) {
        if (*line != '[') continue;
        if (static_cast<size_t>(feed - line) < kDigits + 2 || line[kDigits + 1] != ']')
          return false;
        const int order = std::memcmp(line + 1, latest.data(), kDigits);
        if (order > 0) std::memcpy(latest.data(), line + 1, kDigits);
        int64_t now_ms;
        int64_t latest_ms;
        if (order < 0 && (!number(line + 1, &now_ms) || !number(latest.data(), &latest_ms) ||
                          now_ms < latest_ms - kSmallStep_ms)) {
          return false;
        }
      }
      // The next window begins with the line that does not end in this one.
      const auto passed = static_cast<size_t>(line - window.data());
      if (passed == 0) return false;
      position += passed;
    }
  }
  return true;
}

unsigned count_restarts(const RingFile &file, const Layout &layout) {
  if (never_goes_back(file, layout)) return 0;
  unsigned restarts = 0;
  int64_t latest_ms = -1;
  std::string window;
  for (const Layout::Part &part : {layout.older, layout.newer}) {
    window.clear();
    for (size_t position = part.begin; position < part.end;) {
      const size_t got = file.read(position, std::min(kWindow, part.end - position), &window);
      if (got == 0) break;
      position += got;
      size_t at = 0;
      while (at < window.size()) {
        const size_t end = end_of_line(window, at);
        if (end == window.size() && position < part.end) break;  // it may go on
        const std::string_view line = std::string_view(window).substr(at, end - at);
        at = end;
        int64_t uptime_ms = 0;
        std::string_view rest = line;
        if (!cut_uptime(&rest, &uptime_ms)) continue;
        if (uptime_ms > latest_ms) {
          if (has_head(line)) latest_ms = uptime_ms;
        } else if (uptime_ms < latest_ms - kSmallStep_ms && has_head(line)) {
          ++restarts;
          latest_ms = uptime_ms;
        }
      }
      window.erase(0, at);
    }
  }
  return restarts;
}

Ring read_ring(std::string_view bytes) {
  Ring ring;
  // Zero bytes that a full disk has left.
  const size_t holes = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\0'));
  const RingFile file(bytes);
  const Layout layout = look_at(file);
  ring.header = layout.header;
  ring.file_size = bytes.size();
  ring.problems = layout.problems;
  ring.bytes = std::make_shared<std::string>();
  ring.bytes->reserve(bytes.size());
  std::vector<std::pair<size_t, size_t>> places;
  Cursor cursor = Cursor::forwards(&file, layout, 0);
  while (cursor.next()) {
    const size_t begin = ring.bytes->size();
    std::copy_if(cursor.entry().text.begin(), cursor.entry().text.end(),
                 std::back_inserter(*ring.bytes), [](char c) { return c != '\0'; });
    places.emplace_back(begin, ring.bytes->size() - begin);
  }
  for (const auto &[begin, size] : places) {
    ring.entries.emplace_back(std::string_view(*ring.bytes).substr(begin, size));
  }
  if (holes > 0) ring.problems.push_back(fmt::format("{} bytes were never written", holes));
  return ring;
}

Follower::Follower(std::shared_ptr<const RingFile> file, const Layout *layout)
    : file_(std::move(file)) {
  if (layout != nullptr && layout->header) remember(*layout->header);
}

void Follower::remember(const RingHeader &header) {
  header_ = header;
  first_.clear();
  const auto written = static_cast<size_t>(header.offset) - kHeaderSize;
  file_->read(kHeaderSize, std::min<size_t>(written, kLongestHead), &first_);
}

void Follower::poll(std::vector<std::string> *entries) {
  const std::optional<RingHeader> now = file_->header();
  if (!now || now == header_) return;

  const auto offset = static_cast<size_t>(now->offset);
  std::string first;
  file_->read(kHeaderSize, first_.size(), &first);
  const bool same_turn = header_ && now->overturn == header_->overturn && first == first_;
  const bool next_turn =
      header_ && now->overturn == header_->overturn % 999 + 1 && now->offset <= header_->offset;
  const size_t begin = header_ ? static_cast<size_t>(header_->offset) : kHeaderSize;
  std::string tail;   // of the turn before
  std::string newer;  // of the running one
  bool whole = false;
  if (same_turn && offset < begin) {
    // The server has taken back a line that did not fit on the full disk.
    remember(*now);
    return;
  }
  if (same_turn) {
    file_->read(begin, offset - begin, &newer);
    const std::optional<RingHeader> after = file_->header();
    whole = after &&
            (after->overturn == now->overturn || (after->overturn == now->overturn % 999 + 1 &&
                                                  static_cast<size_t>(after->offset) <= begin));
  } else if (next_turn) {
    file_->read(begin, file_->size() - std::min(file_->size(), begin), &tail);
    const First next = first_of_turn(*file_, offset);
    tail.resize(end_of_turn(tail, next.size, last_ms_, next.uptime_ms));
    file_->read(kHeaderSize, offset - kHeaderSize, &newer);
    const std::optional<RingHeader> after = file_->header();
    whole =
        after && after->overturn == now->overturn && static_cast<size_t>(after->offset) <= begin;
  }
  if (whole) {
    take(tail, entries);
    take(newer, entries);
    remember(*now);
    return;
  }

  // The writer is a whole turn ahead, or has begun the file anew: everything in it is new.
  missed_ = missed_ || (header_ && (now->overturn != 0 || header_->overturn != 0));
  const Layout layout = look_at(*file_, true);
  Cursor cursor = Cursor::forwards(file_.get(), layout, 0);
  while (cursor.next()) {
    if (cursor.entry().has_head) last_ms_ = cursor.entry().uptime_ms;
    entries->emplace_back(cursor.entry().text);
  }
  missed_ = missed_ || cursor.missed();
  if (layout.header) remember(*layout.header);
}

bool Follower::missed() {
  return std::exchange(missed_, false);
}

void Follower::take(std::string_view data, std::vector<std::string> *entries) {
  while (!data.empty()) {
    const size_t size = end_of_entry(data);
    std::string text(data.substr(0, size));
    data.remove_prefix(size);
    std::erase(text, '\0');
    if (text.ends_with('\n')) text.pop_back();
    if (text.empty()) continue;
    if (Head head; parse_head(text, &head)) last_ms_ = head.uptime_ms;
    entries->push_back(std::move(text));
  }
}

}  // namespace mlog
