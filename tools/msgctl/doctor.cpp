// msgctl doctor: checks everything that the bus needs, and says how to mend what is wrong.

#include <fmt/core.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "common/printable.h"
#include "common/unique_fd.h"
#include "msgapi/notify.h"
#include "msgctl/admin.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

namespace fs = std::filesystem;

constexpr const char *kBodyDirectory = "/var/run/msg";
constexpr const char *kLogSocket = "/var/mlog/mlogServer";
// A receiver takes its hand-over file within moments, or never.
constexpr auto kStaleAge = std::chrono::minutes(1);

enum class Verdict { kFine, kHint, kProblem };

class Report {
 public:
  explicit Report(const Context &context) : context_(context) {}

  void fine(const char *subject, const std::string &text) {
    add(Verdict::kFine, subject, text, "");
  }
  // It works, but is not as it should be.
  void hint(const char *subject, const std::string &text, const std::string &advice) {
    add(Verdict::kHint, subject, text, advice);
  }
  void problem(const char *subject, const std::string &text, const std::string &advice) {
    add(Verdict::kProblem, subject, text, advice);
    ++problems_;
  }

  int problems() const { return problems_; }

 private:
  void add(Verdict verdict, const char *subject, const std::string &text,
           const std::string &advice) {
    static constexpr const char *kWords[] = {"ok", "hint", "problem"};
    static constexpr Colour kColours[] = {Colour::kGreen, Colour::kYellow, Colour::kRed};
    const auto index = static_cast<size_t>(verdict);
    if (context_.json) {
      Json json{{"subject", subject}, {"verdict", kWords[index]}, {"finding", text}};
      json["advice"] = advice.empty() ? Json(nullptr) : Json(advice);
      print_json(json);
      return;
    }
    print_line(fmt::format("{} {:<19}{}",
                           coloured(kColours[index], fmt::format("{:<8}", kWords[index])), subject,
                           servers::printable(text)));
    if (!advice.empty()) print_line(fmt::format("{:<28}-> {}", "", servers::printable(advice)));
  }

  const Context &context_;
  int problems_ = 0;
};

std::string reason() {
  return std::strerror(errno);
}

// Whether somebody listens at the socket: 0, or the reason why not.
int try_to_connect(const char *path, int type) {
  const servers::UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
    return 0;
  }
  return errno == EAGAIN ? 0 : errno;  // a full backlog: somebody listens
}

void look_at_socket(Report *report, const char *subject, const char *path, int type,
                    const char *program) {
  switch (const int error = try_to_connect(path, type)) {
    case 0:
      report->fine(subject, std::string(path) + " is served");
      break;
    case ECONNREFUSED:
      report->problem(subject, fmt::format("{} is a stale file: nobody listens", path),
                      fmt::format("start {}; it replaces the file", program));
      break;
    case EACCES:
    case EPERM:
      report->problem(subject, fmt::format("{} may not be used by this user", path),
                      "join the group of the file, usually msgapi (docs/packaging.md)");
      break;
    case ENOENT:
      report->problem(subject, fmt::format("{} is not there", path),
                      fmt::format("start {}", program));
      break;
    default:
      report->problem(subject, fmt::format("{}: {}", path, std::strerror(error)),
                      fmt::format("look at what {} logged", program));
  }
}

void look_at_run(Report *report) {
  struct stat status {};
  if (::lstat("/var/run", &status) != 0) {
    report->problem("/var/run", reason(), "make it a directory");
    return;
  }
  if (S_ISLNK(status.st_mode)) {
    report->problem("/var/run", "is a symbolic link: receivers refuse bodies above 2048 bytes",
                    "make it a real directory; docs/packaging.md says how for each system");
    return;
  }
  char real[PATH_MAX];
  if (::realpath("/var/run", real) == nullptr || std::string_view(real) != "/var/run") {
    report->problem("/var/run",
                    fmt::format("is {} in truth: receivers refuse bodies above 2048 bytes", real),
                    "make /var a real directory; docs/packaging.md says how");
    return;
  }
  struct statvfs room {};
  if (::statvfs("/var/run", &room) == 0 && room.f_blocks > 0 &&
      room.f_bavail * 10 < room.f_blocks) {
    report->hint("/var/run",
                 fmt::format("is a directory with {} left",
                             bytes_text(uint64_t{room.f_bavail} * room.f_frsize)),
                 "large bodies need room there: look for what fills it");
    return;
  }
  report->fine("/var/run", "is a real directory");
}

void look_at_bodies(Report *report) {
  constexpr const char *kSubject = "large bodies";
  struct stat status {};
  if (::stat(kBodyDirectory, &status) != 0 || !S_ISDIR(status.st_mode)) {
    report->problem(
        kSubject,
        fmt::format("{} is not there: bodies above 2048 bytes cannot be sent", kBodyDirectory),
        "start msgsvr, which makes it");
    return;
  }
  if (::access(kBodyDirectory, R_OK | W_OK | X_OK) != 0) {
    report->problem(kSubject, fmt::format("{}: {} for this user", kBodyDirectory, reason()),
                    "join the group msgapi as a further group (docs/packaging.md)");
    return;
  }
  if ((status.st_mode & 0002) != 0 && (status.st_mode & S_ISVTX) == 0) {
    report->problem(kSubject,
                    fmt::format("{} has the mode {:04o}: every user can replace bodies",
                                kBodyDirectory, status.st_mode & 07777),
                    "chmod 0770 and chgrp msgapi");
    return;
  }
  if ((status.st_mode & S_ISGID) != 0) {
    report->hint(kSubject, fmt::format("{} has the set-group-ID bit", kBodyDirectory),
                 "chmod g-s: members of its group cannot read the bodies of others");
  }
  size_t files = 0;
  uint64_t bytes = 0;
  std::error_code error;
  for (const fs::directory_entry &entry : fs::directory_iterator(kBodyDirectory, error)) {
    if (!entry.path().filename().string().starts_with("msg_file_")) continue;
    const auto written = entry.last_write_time(error);
    if (error || fs::file_time_type::clock::now() - written < kStaleAge) continue;
    ++files;
    const uintmax_t size = entry.file_size(error);
    if (!error) bytes += size;
  }
  if (files > 0) {
    report->hint(kSubject,
                 fmt::format("{} files of {} wait for a receiver longer than a minute", files,
                             bytes_text(bytes)),
                 "'msgctl list --sort queued' shows who does not read; files older than every "
                 "process here can be deleted");
  } else {
    report->fine(kSubject, fmt::format("{} has the mode {:04o} and no stale files", kBodyDirectory,
                                       status.st_mode & 07777));
  }
}

// Returns whether the bus works.
bool look_at_bus(Report *report, const Context &context) {
  constexpr const char *kSubject = "message server";
  try {
    const Clock::time_point start = Clock::now();
    Bus bus(context, Bus::Purpose::kIsAnswered);
    (void)bus.ask("", ORP_MSG_FACTORY_MODE, 0, {}, in_ms(context.timeout_ms));
    const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    report->fine(kSubject, fmt::format("registers and answers in {}",
                                       duration_text(static_cast<uint64_t>(took.count()))));
    return true;
  } catch (const Failure &failure) {
    report->problem(kSubject, failure.what(),
                    failure.status() == ExitStatus::kNoServer
                        ? "start msgsvr; it replaces a stale socket"
                        : "look at the message server's log");
    return false;
  }
}

// Compares the number of a process's descriptors with their limit, if /proc lets us.
void look_at_descriptors(Report *report, uint64_t pid) {
  constexpr const char *kSubject = "descriptors";
  const std::string process = fmt::format("/proc/{}", pid);
  std::error_code error;
  uint64_t open = 0;
  for (fs::directory_iterator entry(process + "/fd", error), end; !error && entry != end;
       entry.increment(error)) {
    ++open;
  }
  std::ifstream limits(process + "/limits");
  std::string line;
  uint64_t limit = 0;
  constexpr std::string_view kTitle = "Max open files";
  while (std::getline(limits, line)) {
    if (!line.starts_with(kTitle)) continue;
    std::istringstream(line.substr(kTitle.size())) >> limit;
  }
  if (error || limit == 0) return;  // another user's process
  const std::string text = fmt::format("msgsvr has {} of {} open", open, limit);
  if (open * 10 > limit * 8) {
    report->problem(kSubject, text,
                    "raise its limit (LimitNOFILE=, ulimit -n); 'msgctl list' shows whose "
                    "connections these are");
  } else if (limit < 1024) {
    report->hint(kSubject, text, "raise its limit (LimitNOFILE=, ulimit -n)");
  } else {
    report->fine(kSubject, text);
  }
}

void look_at_clients(Report *report, const std::vector<Json> &clients) {
  std::map<std::string, int> names;
  size_t lossless = 0;
  for (const Json &client : clients) {
    const std::string name = text_at(client, "name");
    if (!name.empty()) ++names[name];
    const std::string who = fmt::format("'{}' (#{})", name, count_at(client, "id"));
    const uint64_t queued = count_at(client, "queued_bytes");
    const uint64_t limit = count_at(client, "queue_limit");
    if (flag_at(client, "slow")) {
      report->problem("clients",
                      fmt::format("{} does not read: {} wait for it, what does not fit is lost",
                                  who, bytes_text(queued)),
                      fmt::format("see what process {} does; restart it", count_at(client, "pid")));
    } else if (limit > 0 && queued * 2 > limit) {
      report->hint("clients",
                   fmt::format("{} of {} wait for {}", bytes_text(queued), bytes_text(limit), who),
                   "it reads too slowly: those who send to it are held up");
    } else if (count_at(client, "lost") > 0) {
      report->hint("clients", fmt::format("{} has lost {} messages", who, count_at(client, "lost")),
                   "'msgctl stats' names the senders; a longer queue (msgsvr --queue) may help");
    } else {
      ++lossless;
    }
  }
  for (const auto &[name, count] : names) {
    if (count < 2) continue;
    report->hint("clients", fmt::format("{} clients are called '{}'", count, name),
                 "only the oldest gets messages: end the others, or give them names of their own");
  }
  report->fine("clients",
               fmt::format("{} of {} have lost nothing and keep up", lossless, clients.size()));
}

void look_at_stats(Report *report, const Json &stats) {
  const std::string version = text_at(stats, "version");
  if (version != MSGAPI_VERSION) {
    report->hint("versions", fmt::format("msgsvr is {}, msgctl {}", version, MSGAPI_VERSION),
                 "install one version, and restart msgsvr");
  } else {
    report->fine("versions", fmt::format("msgsvr and msgctl are {}", version));
  }
  for (const auto &[kind, number] : object_at(stats, "lost").items()) {
    const uint64_t lost = number.is_number_unsigned() ? number.get<uint64_t>() : 0;
    if (lost == 0) continue;
    report->hint("losses", fmt::format("{} messages: {}", lost, kind),
                 "'msgctl stats' names senders and receivers; docs/promises.md what it means");
  }
  if (const uint64_t failed = count_at(stats, "failed_callbacks"); failed > 0) {
    report->problem("message server",
                    fmt::format("{} times it had no memory or no descriptor", failed),
                    "look at its log, its memory and its descriptors");
  }
}

void look_at_server(Report *report, const Context &context) {
  try {
    const Admin admin(context);
    const Json stats = admin.get("/v1/stats");
    report->fine("admin socket", std::string(kAdminPath) + " answers");
    look_at_stats(report, stats);
    look_at_clients(report, admin.list("/v1/clients", "clients"));
    look_at_descriptors(report, count_at(stats, "pid"));
  } catch (const Failure &failure) {
    report->hint("admin socket", failure.what(),
                 "list, info and stats need it: become root, or start msgsvr with --admin-group");
  }
}

// Counts sockets that killed notify clients have left.
void look_at_notify_clients(Report *report) {
  size_t stale = 0;
  std::error_code error;
  for (const fs::directory_entry &entry : fs::directory_iterator(ORP_NOTIFYCLT_DIRECTORY, error)) {
    const std::string name = entry.path().filename().string();
    constexpr std::string_view kHead = "client";
    if (!name.starts_with(kHead)) continue;
    pid_t pid = 0;
    std::from_chars(name.data() + kHead.size(), name.data() + name.size(), pid);
    if (pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH) ++stale;
  }
  if (stale > 0) {
    report->hint("notify clients",
                 fmt::format("{} sockets in {} are of processes that were killed", stale,
                             ORP_NOTIFYCLT_DIRECTORY),
                 "they do no harm and can be deleted");
  }
}

void doctor(Context *context) {
  Report report(*context);
  look_at_run(&report);
  if (look_at_bus(&report, *context)) look_at_server(&report, *context);
  look_at_bodies(&report);
  look_at_socket(&report, "notify server", ORP_NOTIFYCLT_DIRECTORY "/notifyserver", SOCK_STREAM,
                 "notifyserver");
  look_at_notify_clients(&report);
  look_at_socket(&report, "log server", kLogSocket, SOCK_DGRAM, "mlogserver");
  if (report.problems() > 0) context->status = ExitStatus::kAnswerError;
}

}  // namespace

void add_doctor_command(servers::CommandLine *line, Context *context) {
  servers::Command command =
      line->command("doctor", "Look for what is wrong with the bus, and say what to do",
                    [context] { doctor(context); });
  add_common_options(&command, context);
}

}  // namespace msgctl
