#include "msgctl/flight_source.h"

#include <fmt/core.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "common/command_line.h"

namespace msgctl {
namespace {

constexpr int kPoll_ms = 20;

volatile sig_atomic_t g_ended = 0;

void end(int) {
  g_ended = 1;
}

void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = end;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

// Sleeps. False when nobody reads standard output any more.
bool rest() {
  pollfd output{STDOUT_FILENO, 0, 0};
  if (::poll(&output, 1, kPoll_ms) > 0) return (output.revents & (POLLERR | POLLHUP)) == 0;
  return true;
}

uint64_t clock_ns(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

flight::Reader open_flight(const std::string &path) {
  if (::access(path.c_str(), R_OK) != 0) {
    const int reason = errno;
    if (reason == EACCES) {
      throw Failure(ExitStatus::kNotPermitted,
                    path + ": only the server's own user may read it; run this as that user");
    }
    if (reason == ENOENT && path == flight::kPath) {
      throw Failure(ExitStatus::kNoServer,
                    path + ": there is no such file; is msgsvr running, and not with --flight 0?");
    }
    throw Failure(ExitStatus::kNoSuch, path + ": " + std::strerror(reason));
  }
  try {
    return path == flight::kPath ? flight::Reader::follow(path) : flight::Reader::load(path);
  } catch (const std::runtime_error &error) {
    throw Failure(ExitStatus::kBadBody, error.what());
  }
}

std::string FlightOptions::filter_text() const {
  return servers::joined(filter);
}

void add_flight_options(servers::Command *command, Context *context, FlightOptions *options,
                        Personal personal) {
  command->option("-f,--file", &options->file,
                  "The flight file; that of the server before has \".1\" at its end");
  command->flag("--json", &context->json, "One JSON object a line, errors too");
  if (personal == Personal::kMasked) {
    command->flag("--no-mask", &options->no_mask, "Show personal data");
  }
}

void add_filter(servers::Command *command, FlightOptions *options) {
  command->arguments("FILTER", &options->filter,
                     "What to show: type=wifi-scan and (from=panel or to=panel) and not lost",
                     servers::Presence::kOptional);
}

Source::Source(std::string path) : path_(std::move(path)), reader_(open_flight(path_)) {}

void Source::read(const Take &take) {
  uint64_t bytes = 0;
  flight::Entry entry;
  while (bytes < reader_.head().ring_size) {
    const flight::Reader::Next next = reader_.next(&entry);
    if (next == flight::Reader::Next::kDamaged) {
      throw Failure(ExitStatus::kBadBody,
                    fmt::format("{}: the ring is damaged after record {}; what came before it was "
                                "read",
                                path_, reader_.before_first() + reader_.seen()));
    }
    if (next == flight::Reader::Next::kNothing) break;
    bytes += entry.record.size;
    last_ns_ = entry.record.time_ns;
    if (reader_.missed() != reader_missed_) {
      const uint64_t count = reader_.missed() - reader_missed_;
      reader_missed_ = reader_.missed();
      missed_ += count;
      on_missed(count);
    }
    take(model_.take(entry, reader_.wall_ns(entry.record.time_ns)));
  }
}

std::string Source::read_to_damage(const Take &take) {
  try {
    read(take);
  } catch (const Failure &damage) {
    return damage.what();
  }
  return {};
}

void Source::rewind() {
  reader_.rewind();
  model_ = traffic::Model();
  last_ns_ = reader_missed_ = missed_ = 0;
}

void Source::follow(const Take &take, const std::function<bool()> &turn) {
  end_on_signals();
  while (g_ended == 0) {
    const bool replaced = reader_.replaced();
    const uint64_t before = reader_.seen();
    read(take);
    // The new file is opened only when everything that the old server wrote has been read.
    if (replaced && reader_.seen() == before && ::access(path_.c_str(), R_OK) == 0) {
      reader_ = open_flight(path_);
      model_ = traffic::Model();
      reader_missed_ = 0;
      on_replaced();
    }
    if (!turn() || !follows() || !rest()) return;
  }
}

bool Source::alive() const {
  if (path_.ends_with(".1")) return false;
  const auto pid = static_cast<pid_t>(head().pid);
  const bool there = pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
  return there && last_ns_ <= clock_ns(CLOCK_MONOTONIC);
}

uint64_t Source::now_ns() const {
  return alive() ? clock_ns(CLOCK_MONOTONIC) : last_ns_;
}

traffic::Filter make_filter(const FlightOptions &options, const Context &context) {
  const std::string text = options.filter_text();
  try {
    // Before any file is opened, so that a mistake in the filter is reported first.
    traffic::Filter filter(text, context.catalogue, clock_ns(CLOCK_REALTIME));
    if (text.empty()) return filter;
    Source source(options.file);
    // The command itself reports a damage; here the last time before it counts.
    source.read_to_damage();
    if (source.alive()) return filter;
    return traffic::Filter(text, context.catalogue, source.wall_ns(source.last_ns()));
  } catch (const traffic::FilterError &error) {
    throw servers::UsageError(std::string("filter: ") + error.what());
  }
}

traffic::Model::Known answered_by(const catalogue::Catalogue &catalogue) {
  return [&catalogue](uint32_t type) -> std::optional<bool> {
    const catalogue::MessageType *known = catalogue.find(type);
    if (known == nullptr) return std::nullopt;
    return known->answer.has_value();
  };
}

}  // namespace msgctl
