#include "log_check.h"

#include <fmt/core.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

#include "client.h"
#include "ring_reader.h"
#include "support/file.h"

namespace soak {
namespace {

// The lines of a ring file that its header covers, the oldest first; none if it is damaged.
std::string in_order(const std::string &file) {
  const mlog::RingFile ring{std::string_view(file)};
  const mlog::Layout layout = mlog::look_at(ring, true);
  if (!layout.problems.empty()) return "";
  std::string lines;
  for (mlog::Cursor cursor = mlog::Cursor::forwards(&ring, layout, 0); cursor.next();) {
    lines.append(cursor.entry().text).push_back('\n');
  }
  return lines;
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
        is_mayfly(life.client) ? fmt::format("{} ({})", name, life.incarnation) : name;
    std::vector<Where> where(life.begun + 2);
    const std::string errors = test::contents(output_path(name));
    for (const uint64_t number : numbers_in(errors, life.incarnation)) {
      if (number < where.size()) where[number] = Where::kTold;
    }
    uint64_t last = 0, twice = 0;
    for (const uint64_t number :
         numbers_in(in_order(test::contents("/var/mlogfile/" + name + ".log")), life.incarnation)) {
      if (number > life.begun) {
        return fmt::format("the log has line {} of {}, which was never written", number, who);
      }
      if (number < last) return fmt::format("line {} of {} comes after {}", number, who, last);
      // Lines that were checked before may have been written over.
      twice += number == last && number >= life.first;
      where[number] = Where::kFile;
      last = number;
    }
    if (twice > kills) return fmt::format("{} lines of {} are there twice", twice, who);
    for (uint64_t number = life.first; number <= life.done; ++number) {
      found_ += where[number] == Where::kFile;
      told_ += where[number] == Where::kTold;
      if (where[number] != Where::kNowhere) continue;
      ++lost;
      for (const Flushed &flushed : life.flushed) {
        if (number < flushed.first || number > flushed.last) continue;
        return fmt::format("line {} of {}, which the log server has taken, is not in its file",
                           number, who);
      }
    }
  }
  lost_ += lost;
  const uint64_t room = kills * queue_length();
  if (lost <= room) return "";
  return fmt::format(
      "{} log lines are missing; {} killed log servers had room for {} in their sockets", lost,
      kills, room);
}

}  // namespace soak
