// msgctl top: what keeps the bus busy.

#include <fmt/core.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <tuple>

#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"
#include "traffic/latency.h"

namespace msgctl {
namespace {

using traffic::ClientId;
using traffic::Event;

struct TopOptions {
  FlightOptions flight;
  uint32_t interval_s = 2;
  bool once = false;
};

struct Load {
  uint64_t messages = 0;
  uint64_t bytes = 0;
};

struct AnswerTimes {
  uint64_t count = 0;
  uint64_t longest_ns = 0;
};

struct Queue {
  uint64_t waiting = 0;  // messages that were accepted and not yet delivered
  uint32_t bytes = 0;    // in the queue, when the server last reported it more than half full
  uint32_t limit = 0;
};

// What happened in a stretch of time, and the queues at its end.
class Activity {
 public:
  // The stretch begins with the first event.
  void note_time(uint64_t time_ns) {
    if (first_ns_ == 0) first_ns_ = time_ns;
  }
  void take(const Event &event) {
    const flight::Record &record = event.record;
    switch (event.kind()) {
      case flight::Kind::kAccepted: {
        const uint64_t bytes = flight::kHeaderSize + uint64_t{record.a};
        add(&all_, bytes);
        add(&types_[event.message->type()], bytes);
        add(&pairs_[{record.from, record.to}], bytes);
        if (record.to != 0) ++queues_[record.to].waiting;
        if (const auto handler = traffic::spans_of(event).handler_ns) {
          AnswerTimes &answer = answers_[{event.message->type(), record.from}];
          ++answer.count;
          answer.longest_ns = std::max(answer.longest_ns, *handler);
        }
        break;
      }
      case flight::Kind::kDelivered:
      case flight::Kind::kLost:
        if (event.kind() == flight::Kind::kLost) ++lost_;
        // An event was not accepted for one receiver, so no queue has counted it.
        if (event.message != nullptr && event.message->to == record.to) {
          if (Queue &queue = queues_[record.to]; queue.waiting > 0) --queue.waiting;
        }
        break;
      case flight::Kind::kBacklog:
        queues_[record.to].bytes = record.a;
        queues_[record.to].limit = record.b;
        break;
      case flight::Kind::kRelieved:
        queues_[record.to] = {};
        break;
      case flight::Kind::kEnded:
        queues_.erase(record.from);
        break;
      case flight::Kind::kFiller:
      case flight::Kind::kClock:
      case flight::Kind::kConnected:
      case flight::Kind::kNamed:
      case flight::Kind::kDescriptor:
      case flight::Kind::kHttpRequest:
      case flight::Kind::kHttpAnswer:
        break;
    }
  }

  // Begins a new stretch. Only the queues stay.
  void begin(uint64_t now_ns) {
    first_ns_ = now_ns;
    all_ = {};
    lost_ = 0;
    types_.clear();
    pairs_.clear();
    answers_.clear();
  }
  void forget() { *this = {}; }

  uint64_t first_ns() const { return first_ns_; }

  void print(const Source &source, const EventText &text, double seconds, size_t rows) const;
  void print_json_lines(const Source &source, const EventText &text, double seconds) const;

 private:
  static void add(Load *load, uint64_t bytes) {
    ++load->messages;
    load->bytes += bytes;
  }

  template <typename Map, typename Less>
  static auto greatest(const Map &map, size_t most, Less less) {
    std::vector<typename Map::const_iterator> found;
    for (auto each = map.begin(); each != map.end(); ++each) found.push_back(each);
    const size_t count = std::min(most, found.size());
    std::partial_sort(found.begin(), found.begin() + static_cast<ptrdiff_t>(count), found.end(),
                      [&less](auto a, auto b) { return less(b->second, a->second); });
    found.resize(count);
    return found;
  }
  static bool busier(const Load &a, const Load &b) {
    return std::tie(a.messages, a.bytes) < std::tie(b.messages, b.bytes);
  }
  static bool slower(const AnswerTimes &a, const AnswerTimes &b) {
    return a.longest_ns < b.longest_ns;
  }
  static bool deeper(const Queue &a, const Queue &b) {
    return std::tie(a.bytes, a.waiting) < std::tie(b.bytes, b.waiting);
  }

  uint64_t first_ns_ = 0;
  Load all_;
  uint64_t lost_ = 0;
  std::map<uint32_t, Load> types_;
  std::map<std::pair<ClientId, ClientId>, Load> pairs_;
  std::map<std::pair<uint32_t, ClientId>, AnswerTimes> answers_;  // by type and who answered
  std::map<ClientId, Queue> queues_;
};

std::string rate(uint64_t count, double seconds) {
  return fmt::format("{:.1f}", static_cast<double>(count) / seconds);
}

std::string byte_rate(uint64_t bytes, double seconds) {
  return bytes_text(static_cast<uint64_t>(static_cast<double>(bytes) / seconds)) + "/s";
}

void Activity::print(const Source &source, const EventText &text, double seconds,
                     size_t rows) const {
  constexpr auto kRight = Table::Align::kRight;
  print_line(fmt::format("{} messages in {:.1f} s: {}/s, {}; {} lost", all_.messages, seconds,
                         rate(all_.messages, seconds), byte_rate(all_.bytes, seconds), lost_));
  print_line("");
  Table types({{"MESSAGES/S", kRight}, {"BYTES", kRight}, {"BUSIEST TYPES"}});
  for (const auto each : greatest(types_, rows, busier)) {
    types.add({rate(each->second.messages, seconds), byte_rate(each->second.bytes, seconds),
               text.type(each->first)});
  }
  types.print();
  print_line("");
  Table pairs({{"MESSAGES/S", kRight}, {"BYTES", kRight}, {"BUSIEST PAIRS"}});
  for (const auto each : greatest(pairs_, rows, busier)) {
    pairs.add({rate(each->second.messages, seconds), byte_rate(each->second.bytes, seconds),
               text.pair(each->first.first, each->first.second, source.model())});
  }
  pairs.print();
  print_line("");
  Table answers({{"LONGEST", kRight}, {"ANSWERS", kRight}, {"SLOWEST ANSWERS"}});
  for (const auto each : greatest(answers_, rows, slower)) {
    answers.add({duration_text(each->second.longest_ns), std::to_string(each->second.count),
                 label(source.model(), each->first.second) + ": " + text.type(each->first.first)});
  }
  answers.print();
  print_line("");
  Table queues({{"WAITING", kRight}, {"BYTES", kRight}, {"DEEPEST QUEUES"}});
  for (const auto each : greatest(queues_, rows, deeper)) {
    const Queue &queue = each->second;
    if (queue.waiting == 0 && queue.bytes == 0) continue;
    queues.add({std::to_string(queue.waiting),
                queue.bytes == 0
                    ? "-"
                    : fmt::format("{} of {}", bytes_text(queue.bytes), bytes_text(queue.limit)),
                label(source.model(), each->first)});
  }
  queues.print();
}

void Activity::print_json_lines(const Source &source, const EventText &text, double seconds) const {
  const auto all = [](const auto &) { return SIZE_MAX; };
  Json types = Json::array(), pairs = Json::array(), answers = Json::array(),
       queues = Json::array();
  for (const auto each : greatest(types_, all(types_), busier)) {
    types.push_back({{"type", each->first},
                     {"type_name", text.type(each->first)},
                     {"messages", each->second.messages},
                     {"bytes", each->second.bytes}});
  }
  for (const auto each : greatest(pairs_, all(pairs_), busier)) {
    pairs.push_back({{"from", source.model().label(each->first.first)},
                     {"to", source.model().label(each->first.second)},
                     {"messages", each->second.messages},
                     {"bytes", each->second.bytes}});
  }
  for (const auto each : greatest(answers_, all(answers_), slower)) {
    answers.push_back({{"type", each->first.first},
                       {"type_name", text.type(each->first.first)},
                       {"from", source.model().label(each->first.second)},
                       {"answers", each->second.count},
                       {"longest_ns", each->second.longest_ns}});
  }
  for (const auto each : greatest(queues_, all(queues_), deeper)) {
    if (each->second.waiting == 0 && each->second.bytes == 0) continue;
    queues.push_back({{"to", source.model().label(each->first)},
                      {"waiting", each->second.waiting},
                      {"bytes", each->second.bytes},
                      {"limit", each->second.limit}});
  }
  print_json({{"seconds", seconds},
              {"messages", all_.messages},
              {"bytes", all_.bytes},
              {"lost", lost_},
              {"types", types},
              {"pairs", pairs},
              {"answers", answers},
              {"queues", queues}});
}

// While it lives, the terminal gives each key at once and echoes none.
class Keys {
 public:
  Keys() {
    if (::isatty(STDIN_FILENO) != 1 || ::tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios now = before_;
    now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    now.c_cc[VMIN] = 0;
    now.c_cc[VTIME] = 0;
    set_ = ::tcsetattr(STDIN_FILENO, TCSANOW, &now) == 0;
  }
  ~Keys() {
    if (set_) ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }
  Keys(const Keys &) = delete;
  Keys &operator=(const Keys &) = delete;

  // Whether "q" has been pressed, or the line has hung up.
  bool quit() const {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (set_ && ::poll(&input, 1, 0) > 0) {
      char key = 0;
      const ssize_t count = ::read(STDIN_FILENO, &key, 1);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0 || key == 'q' || key == 'Q') return true;
    }
    return false;
  }

 private:
  termios before_{};
  bool set_ = false;
};

// How many rows of each of the four tables fit.
size_t rows_that_fit() {
  // A serial line does not tell its size.
  constexpr unsigned kUsual = 24, kOther = 13;
  winsize size{};
  unsigned lines = kUsual;
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) lines = size.ws_row;
  return lines < kOther + 8 ? 2 : (lines - kOther) / 4;
}

void top(const TopOptions &options, Context *context) {
  const traffic::Filter filter = make_filter(options.flight, *context);
  const EventText text(context->catalogue, true);
  Source source(options.flight.file);
  Activity activity;
  const auto take = [&](const Event &event) {
    // Whatever the filter is: when a queue is empty, its count must be, too.
    const bool ends_queue =
        event.kind() == flight::Kind::kRelieved || event.kind() == flight::Kind::kEnded;
    activity.note_time(event.record.time_ns);
    if (ends_queue || filter.matches(event, source.model())) activity.take(event);
  };
  source.on_replaced = [&activity] { activity.forget(); };
  const auto print = [&](uint64_t until_ns, size_t rows) {
    const uint64_t first_ns = activity.first_ns();
    const double seconds =
        std::max(0.001, until_ns < first_ns ? 0.0 : static_cast<double>(until_ns - first_ns) / 1e9);
    if (context->json) {
      activity.print_json_lines(source, text, seconds);
    } else {
      activity.print(source, text, seconds, rows);
    }
  };

  source.read(take);
  if (options.once) {
    constexpr size_t kRows = 10;
    print(source.last_ns(), kRows);
    return;
  }

  const Keys keys;
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  const auto now_ns = [] {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
  };
  uint64_t next_ns = now_ns();
  bool past = true;  // the first picture shows everything that the file holds
  source.follow(take, [&] {
    if (keys.quit()) return false;
    const uint64_t now = now_ns();
    if (now < next_ns) return true;
    next_ns = now + options.interval_s * uint64_t{1'000'000'000};
    if (terminal && !context->json)
      print_line("\x1b[H\x1b[2J" + options.flight.file + "  (q ends)");
    print(past ? source.last_ns() : now, terminal ? rows_that_fit() : 10);
    past = false;
    activity.begin(now);
    return true;
  });
}

}  // namespace

void add_top_command(servers::CommandLine *line, Context *context) {
  static TopOptions options;
  servers::Command command =
      line->command("top", "Show the busiest types and pairs, slow answers and deep queues",
                    [context] { top(options, context); });
  add_flight_options(&command, context, &options.flight);
  command.number("--interval", &options.interval_s, "Seconds between two pictures", {1, 3600});
  command.flag("--once", &options.once, "One picture of all that is recorded, for scripts");
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
