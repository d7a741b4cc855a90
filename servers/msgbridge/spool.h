// The spool: events that wait for the broker, on the disk, in the order in which they came.
//
// append() keeps an event in memory; commit() writes all appended events in one transaction. Then
// the event has a sequence number, next() hands it out, and it stays until the broker has
// acknowledged it, even when the process is killed or the power fails.
//
// The spool is bounded. It gives up events that do not fit, the oldest first, events that wait too
// long, and events that the disk does not take. Each leaves a Loss, which is handed out in its
// place and stays until it is acknowledged, too. Sequence numbers have no other gaps.
//
// A damaged file is renamed. The next file goes on with the same numbers, and everything that was
// in the old one becomes a Loss. Only when the file is damaged at the start, nobody knows what was
// in it: then the numbers begin anew.
#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
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
  uint64_t sequence = 0;  // known after commit()
  std::string boot;       // the kernel's id of the boot in which it came
  int64_t wall_ms = 0;    // since 1970
  std::string topic;
  std::string payload;
  int qos = 1;
  bool retain = false;
};

using Item = std::variant<Event, Loss>;

class Spool {
 public:
  // The current time. Ages are measured with CLOCK_BOOTTIME, which also counts while the system
  // sleeps. For events of an earlier boot the wall clock counts, if it was set in both boots.
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

  // An event counts with its topic, its payload and this many bytes.
  static constexpr size_t kEventWeight = 128;

  void append(Event event);
  // Writes what has changed, and gives up events that are too old. Does not touch the file when
  // nothing has changed. False when the disk refused, and problem() says why: appended events are
  // kept in memory, up to a limit, and should be committed again after a while.
  bool commit();
  const std::string &problem() const { return problem_; }
  // False when next() found no readable file; commit() tries to mend that.
  bool reads() const { return file_ != nullptr && !unread_; }
  // How often a damaged file with events was replaced. Events that were handed out before have
  // become a loss and must not be acknowledged.
  uint32_t begun_anew() const { return begun_anew_; }

  // The next item to be sent. None when everything has been handed out, and when the file cannot be
  // read.
  std::optional<Item> next();
  // The broker has the item: an event by its sequence number, a loss by its first number.
  void acknowledge(uint64_t sequence);
  // The broker has refused the item. An event becomes a loss.
  void refuse(uint64_t sequence);
  // Hands out again what has not been acknowledged.
  void rewind();

  // A random name for this series of sequence numbers. A new spool begins another series.
  const std::string &stream() const { return stream_; }
  uint64_t last_sequence() const { return state_.next - 1; }
  uint64_t waiting() const { return state_.count + tail_.size(); }
  uint64_t waiting_bytes() const { return state_.bytes + tail_bytes_; }
  // The size of events that are appended and not yet committed.
  uint64_t unwritten_bytes() const { return tail_bytes_; }
  // Events given up since the spool was made.
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
    int64_t boot = 0;  // the id of now_.boot in the table of boots; 0: not there yet
    Losses losses;
  };

  // Whether a new file replaces the one that is there, and why.
  enum class Anew : uint8_t { kNo, kDamaged, kFull };
  bool open(Anew anew = Anew::kNo);
  bool nothing_waits() const;
  void open_file();
  void put_aside(Anew anew) const;
  void make_tables(const File &file);
  void lose_file();
  void load();
  std::filesystem::space_info disk() const;
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
  State kept_;  // as of the last commit, to undo a failed transaction
  uint32_t begun_anew_ = 0;
  bool unread_ = false;
  uint64_t limit_;  // options_.bytes, or less while the disk is small or full

  std::deque<Event> tail_;  // appended, not yet committed
  uint64_t tail_bytes_ = 0;
  uint64_t unwritten_ = 0;  // events of the tail that were given up since the last commit

  uint64_t handed_out_ = 0;  // the last event that next() handed out
  std::deque<Event> ahead_;  // read, not handed out yet
  std::vector<uint64_t> acknowledged_, refused_;
  // By their first numbers: losses that have been handed out, and those of them that are
  // acknowledged but still in the file.
  std::set<uint64_t> told_losses_, acknowledged_losses_;
};

}  // namespace msgbridge
