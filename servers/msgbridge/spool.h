// The spool: events that wait for the broker, on the disk, in the order of their coming.
//
// An event is appended in memory; commit() writes what came since the last one, in one transaction.
// From then on it has a sequence number, is handed out by next(), and stays until the broker has
// acknowledged it, also when the process is killed or the power fails.
//
// The spool is bounded. What does not fit is given up, the oldest first, and so is what waits too
// long and what the disk does not take. Whatever is given up leaves a Loss, which is handed out in
// its place and stays until it is acknowledged, too. Sequence numbers have no other gaps.
//
// A file that turns out to be damaged is put aside. The next one goes on with the same numbers,
// and what was in the old one is a Loss; only at the start nobody knows what that was.
#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "msgbridge/config.h"
#include "msgbridge/losses.h"

namespace msgbridge {

struct Event {
  uint64_t sequence = 0;  // from commit() on
  std::string boot;       // the system's run in which it came
  int64_t wall_ms = 0;    // since 1970
  std::string topic;
  std::string payload;
  int qos = 1;
  bool retain = false;
};

using Item = std::variant<Event, Loss>;

class Spool {
 public:
  // What time it is. Ages are told by the clock that runs on while the system sleeps; the wall
  // clock counts between two runs of the system, if it was right in both.
  struct Now {
    std::string boot;
    int64_t boot_ms;
    int64_t wall_ms;
  };
  using Clock = Now (*)();
  static Now system_clock();

  explicit Spool(SpoolOptions options, Clock clock = system_clock);
  ~Spool();
  Spool(const Spool &) = delete;
  Spool &operator=(const Spool &) = delete;

  // What an event weighs: its topic, its payload and this much.
  static constexpr size_t kEventWeight = 128;

  void append(Event event);
  // Without anything to write it leaves the file as it is. False when the disk refused; what was
  // appended is kept, up to a limit, and should be committed again after a while. Gives up what is
  // too old. problem() says what it was.
  bool commit();
  const std::string &problem() const { return problem_; }
  // False when next() found no readable file; commit() tries to mend that.
  bool reads() const { return file_ != nullptr && !unread_; }
  // How often a damaged file was replaced. What had been handed out before is no more: it became a
  // loss, and must not be acknowledged.
  uint32_t begun_anew() const { return begun_anew_; }

  // What should be sent next; none when everything has been handed out, and when the file cannot be
  // read.
  std::optional<Item> next();
  // The broker has it: an event by its sequence number, a loss by its first.
  void acknowledge(uint64_t sequence);
  // The broker does not want it. The event becomes a loss.
  void refuse(uint64_t sequence);
  // Hands out again what has not been acknowledged.
  void rewind();

  // Names the run of sequence numbers; a spool that is made anew begins another one.
  const std::string &stream() const { return stream_; }
  uint64_t last_sequence() const { return state_.next - 1; }
  uint64_t waiting() const { return state_.count + tail_.size(); }
  uint64_t waiting_bytes() const { return state_.bytes + tail_bytes_; }
  // Appended, not committed yet.
  uint64_t unwritten_bytes() const { return tail_bytes_; }
  // Since the spool was made.
  uint64_t given_up() const { return state_.given_up; }

 private:
  struct File;
  // What is kept in memory beside the file.
  struct State {
    uint64_t next = 1;    // sequence number
    uint64_t oldest = 1;  // no event with a lower one waits
    uint64_t count = 0;
    uint64_t bytes = 0;
    uint64_t given_up = 0;
    int64_t boot = 0;  // now_.boot in the table of boots; 0: is not there yet
    Losses losses;
  };

  // Whether a new file takes the place of what is there, and why.
  enum class Anew : uint8_t { kNo, kDamaged, kFull };
  bool open(Anew anew = Anew::kNo);
  bool nothing_waits() const;
  void open_file();
  void put_aside(Anew anew) const;
  void make_tables(const File &file);
  void lose_file();
  void load();
  uint64_t most() const;
  bool disk_is_small() const;
  void look_for_room();
  void reserve();
  bool is_due();
  void write();
  bool recover(const std::exception &error);
  void roll_back();
  void note_boot();
  void remove_acknowledged();
  uint64_t remove(uint64_t first, uint64_t last);
  bool has_old();
  void give_up_old();
  void give_up_unwritten();
  Reason no_room() const;
  void make_room(uint64_t size);
  bool give_up_oldest(Reason reason);
  bool shrink();
  void empty_log();
  void lose(const Loss &loss);
  bool waits_between(uint64_t after, uint64_t before);
  void insert(const Event &event);
  void write_state();
  void written();
  void bound_tail();
  void read_ahead();
  std::optional<Loss> next_loss() const;
  bool failed(const std::exception &error);
  bool too_old(int64_t boot, int64_t boot_ms, int64_t wall_ms) const;

  SpoolOptions options_;
  Clock clock_;
  Now now_;
  std::string problem_;

  std::unique_ptr<File> file_;
  std::string stream_;
  State state_;
  State kept_;  // as of the last commit; what a transaction that fails has changed is put back
  uint32_t begun_anew_ = 0;
  bool unread_ = false;
  uint64_t limit_;  // options_.bytes, or less while the disk has no more

  std::deque<Event> tail_;  // appended, not yet committed
  uint64_t tail_bytes_ = 0;
  uint64_t unwritten_ = 0;  // given up of the tail since the last commit

  uint64_t handed_out_ = 0;  // the last event that next() handed out
  std::deque<Event> ahead_;  // read, not handed out yet
  std::vector<uint64_t> acknowledged_, refused_;
  // By their first numbers: those that have been handed out, and of them what is acknowledged and
  // still in the file.
  std::set<uint64_t> told_losses_, acknowledged_losses_;
};

}  // namespace msgbridge
