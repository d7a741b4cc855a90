// msgctl capture: recorded traffic as pcapng, for network analysers and for replay.

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/unique_fd.h"
#include "common/write_all.h"
#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"
#include "traffic/pcapng.h"

namespace msgctl {
namespace {

using traffic::Event;

constexpr size_t kBuffer = 65536;

struct CaptureOptions {
  FlightOptions flight;
  std::string output;
  bool live = false;
  uint64_t rotate = 0;  // bytes; 0: never
  uint32_t keep = 5;
};

// The file, or the pipe, that takes the capture. FILE.1 is the one before, FILE.2 that before it.
class Output {
 public:
  explicit Output(const CaptureOptions &options) : options_(options) { open(); }

  void add(std::string_view bytes) {
    buffer_ += bytes;
    written_ += bytes.size();
    if (buffer_.size() > kBuffer) flush();
  }

  bool full() const { return options_.rotate > 0 && written_ >= options_.rotate; }

  void flush() {
    if (!servers::write_all(fd(), buffer_)) {
      // The reader of the pipe has seen enough.
      if (errno == EPIPE) std::_Exit(0);
      fail();
    }
    buffer_.clear();
  }

  void rotate() {
    flush();
    const auto name = [this](uint32_t age) { return fmt::format("{}.{}", options_.output, age); };
    for (uint32_t age = options_.keep; age > 1; --age) {
      ::rename(name(age - 1).c_str(), name(age).c_str());
    }
    if (options_.keep > 0 && ::rename(options_.output.c_str(), name(1).c_str()) != 0) fail();
    open();
  }

 private:
  int fd() const { return options_.output == "-" ? STDOUT_FILENO : file_.get(); }

  void open() {
    written_ = 0;
    if (options_.output == "-") return;
    // Daemons' messages may hold secrets: only the owner may read them.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    file_.reset(::open(options_.output.c_str(), kFlags, 0600));
    if (!file_) fail();
    // The file may have been there with another mode. Somebody else's file stays as it is.
    struct stat status {};
    if (::fstat(fd(), &status) != 0 ||
        (S_ISREG(status.st_mode) &&
         (::fchmod(fd(), S_IRUSR | S_IWUSR) != 0 || ::ftruncate(fd(), 0) != 0))) {
      fail();
    }
  }

  [[noreturn]] void fail() const {
    if (errno == ELOOP) {
      throw Failure(
          ExitStatus::kAnswerError,
          options_.output +
              ": this is a symbolic link: name the file itself, or - for standard output");
    }
    throw Failure(
        errno == EACCES || errno == EPERM ? ExitStatus::kNotPermitted : ExitStatus::kAnswerError,
        options_.output + ": " + std::strerror(errno));
  }

  const CaptureOptions &options_;
  servers::UniqueFd file_;
  std::string buffer_;
  uint64_t written_ = 0;
};

void capture(const CaptureOptions &options, Context *context) {
  if (options.output == "-" && ::isatty(STDOUT_FILENO) == 1) {
    throw servers::UsageError("a capture does not belong on a terminal: give -w FILE, or a pipe");
  }
  if (options.output == "-" && options.rotate > 0) {
    throw servers::UsageError("a pipe cannot be rotated: give -w FILE");
  }
  const traffic::Filter filter = make_filter(options.flight, *context);
  const bool masked = !options.flight.no_mask;
  const traffic::Masking masking = masked ? traffic::Masking::kMask : traffic::Masking::kNone;
  EventText text(context->catalogue, masked, EventText::Colours::kNone);
  Source source(options.flight.file);
  Output output(options);
  uint64_t packets = 0;
  traffic::PcapngWriter writer([&output](std::string_view bytes) { output.add(bytes); },
                               "msgctl " MSGAPI_VERSION, "msgsvr");
  const auto begin_section = [&](const traffic::Model &model) {
    writer.begin_section(fmt::format("msgsvr, process {}, started {}", source.head().pid,
                                     date_text(source.head().wall_ns)),
                         model);
  };
  // The whole ring is read for the names: a client may have connected before the captured part.
  source.read_to_damage();  // source.read() below reports the damage
  begin_section(source.model());
  source.rewind();
  // So an analyser that reads a pipe shows the interface at once.
  output.flush();

  const auto take = [&](const Event &event) {
    text.take(event);
    if (!filter.matches(event, source.model())) return;
    if (output.full()) {
      output.rotate();
      begin_section(source.model());
    }
    writer.add(event, source.model(), masking, text.line(event, source.model()));
    ++packets;
  };
  source.on_missed = [&](uint64_t count) {
    context->status = ExitStatus::kLost;
    std::fprintf(stderr, "msgctl: %llu records were overwritten before they could be read\n",
                 static_cast<unsigned long long>(count));
  };
  source.on_replaced = [&] {
    text.forget();
    begin_section(source.model());
  };

  source.read(take);
  output.flush();
  if (options.live) {
    source.follow(take, [&output] {
      output.flush();
      return true;
    });
  }
  output.flush();
  if (context->json && options.output != "-") {
    print_json({{"file", options.output}, {"packets", packets}, {"missed", source.missed()}});
  }
}

}  // namespace

void add_capture_command(servers::CommandLine *line, Context *context) {
  static CaptureOptions options;
  servers::Command command = line->command(
      "capture", "Write what passed as a pcapng file, for Wireshark and for replay", [context] {
        if (options.output.empty()) {
          throw servers::UsageError("capture: -w FILE is missing (- is a pipe)");
        }
        capture(options, context);
      });
  command.option("-w,--write", &options.output, "Where to; - is standard output");
  add_flight_options(&command, context, &options.flight, Personal::kMasked);
  command.flag("--live", &options.live, "Go on with what passes from now on");
  command.number("--rotate", &options.rotate,
                 "Begin a new file after so many bytes; the one before becomes FILE.1",
                 {4096, INT64_MAX});
  command.number("--keep", &options.keep, "How many such older files to keep", {0, 1000});
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
