#include "log_check.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <utility>

#include "client.h"
#include "msgapi/ringlog.h"
#include "support/file.h"

namespace soak {
namespace {

// The last two lines of `text`, of which the second is the last.
std::pair<std::string_view, std::string_view> last_two(std::string_view text) {
  const auto cut = [&text] {
    const size_t end = text.empty() ? 0 : text.size() - 1;  // without the last line feed
    const size_t feed = text.substr(0, end).rfind('\n');
    const size_t begin = feed == std::string_view::npos ? 0 : feed + 1;
    const std::string_view line = text.substr(begin);
    text = text.substr(0, begin);
    return line;
  };
  const std::string_view last = cut();
  return {cut(), last};
}

// What the turn before has left after the running one. It need not have filled the file: the last
// bytes, fewer than the running turn's first line, may be a turn older. Uptimes tell, at the
// beginnings of lines: a turn takes seconds.
std::string_view turn_before(std::string_view rest, std::string_view running) {
  size_t room = std::min(running.find('\n'), running.size());
  while (true) {
    const auto [before, last] = last_two(rest);
    const size_t uptime = sizeof "[00000000000]" - 1;
    if (last.size() > room || before.empty() ||
        last.substr(0, uptime) >= before.substr(0, uptime)) {
      return rest;
    }
    room -= last.size();
    rest.remove_suffix(last.size());
  }
}

// The lines of a ring file, the oldest first.
std::string in_order(const std::string &file) {
  long overturn = 0;
  size_t offset = 0;
  if (file.size() < MLOG_FILE_HEADER_SIZE ||
      std::sscanf(file.c_str(), "[overturn=%ld][offset=%zu]", &overturn, &offset) != 2 ||
      offset < MLOG_FILE_HEADER_SIZE || offset > file.size()) {
    return "";
  }
  const std::string running = file.substr(MLOG_FILE_HEADER_SIZE, offset - MLOG_FILE_HEADER_SIZE);
  if (overturn == 0) return running;
  return std::string(turn_before(std::string_view(file).substr(offset), running)) + running;
}

// The numbers of a life's lines in `text`, in order. Only lines that are whole, from "soak" to
// "end", count.
std::vector<uint64_t> numbers_in(const std::string &text, uint32_t incarnation) {
  std::vector<uint64_t> numbers;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find("]:soak ");
    unsigned of = 0;
    unsigned long long number = 0;
    if (at == std::string::npos ||
        std::sscanf(line.c_str() + at, "]:soak %u %llu", &of, &number) != 2) {
      continue;
    }
    if (of == incarnation && line.substr(at + 2) == line_text(of, number)) {
      numbers.push_back(number);
    }
  }
  return numbers;
}

// How many datagrams may wait in a server's socket.
uint64_t queue_length() {
  uint64_t length = 10;
  std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> length;
  return length + 1;
}

}  // namespace

std::string output_path(const std::string &name) {
  return "/var/log/soak." + name;
}

void LogCheck::add(uint32_t client, uint32_t incarnation, const Lines &lines) {
  const uint64_t last = verified_[{client, incarnation}];
  Life life = {client, incarnation, last + 1, lines.done, lines.begun, {}};
  for (size_t i = 0; i < lines.flushes; ++i) life.flushed.push_back(lines.flushed[i]);
  verified_[{client, incarnation}] = lines.done;
  lives_.push_back(std::move(life));
}

std::string LogCheck::verify() {
  enum class Where : uint8_t { kNowhere, kTold, kFile };
  const uint64_t kills = std::exchange(kills_, 0);
  uint64_t lost = 0;
  for (const Life &life : std::exchange(lives_, {})) {
    const std::string name = kNames[life.client];
    const std::string who =
        name + (is_mayfly(life.client) ? " (" + std::to_string(life.incarnation) + ")" : "");
    std::vector<Where> where(life.begun + 2);
    const std::string errors = test::contents(output_path(name));
    for (const uint64_t number : numbers_in(errors, life.incarnation)) {
      if (number < where.size()) where[number] = Where::kTold;
    }
    uint64_t last = 0, twice = 0;
    for (const uint64_t number :
         numbers_in(in_order(test::contents("/var/mlogfile/" + name + ".log")), life.incarnation)) {
      if (number > life.begun)
        return "the log has line " + std::to_string(number) + " of " + who +
               ", which was never written";
      if (number < last)
        return "line " + std::to_string(number) + " of " + who + " comes after " +
               std::to_string(last);
      // Lines that were checked before may have been written over.
      twice += number == last && number >= life.first;
      where[number] = Where::kFile;
      last = number;
    }
    if (twice > kills) return std::to_string(twice) + " lines of " + who + " are there twice";
    for (uint64_t number = life.first; number <= life.done; ++number) {
      found_ += where[number] == Where::kFile;
      told_ += where[number] == Where::kTold;
      if (where[number] != Where::kNowhere) continue;
      ++lost;
      for (const Flushed &flushed : life.flushed) {
        if (number < flushed.first || number > flushed.last) continue;
        return "line " + std::to_string(number) + " of " + who +
               ", which the log server has taken, is not in its file";
      }
    }
  }
  lost_ += lost;
  if (lost <= kills * queue_length()) return "";
  return std::to_string(lost) + " log lines are missing; " + std::to_string(kills) +
         " killed log servers had room for " + std::to_string(kills * queue_length()) +
         " in their sockets";
}

}  // namespace soak
