// The spool: events that wait for the broker, on the disk, in the order of their coming.
//
// An event is appended in memory; commit() writes what came since the last one, in one transaction.
// From then on it has a sequence number, is handed out by next(), and stays until the broker has
// acknowledged it, also when the process is killed or the power fails.
//
// The spool is bounded. What does not fit is given up, the oldest first, and so is what waits too
// long and what the disk does not take. Whatever is given up leaves a Loss, which is handed out in
// its place and stays until it is acknowledged, too. Sequence numbers have no other gaps.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "msgbridge/config.h"

struct sqlite3;
struct sqlite3_stmt;

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

enum class Reason : uint8_t { kFull = 1, kOld = 2, kDisk = 3, kRefused = 4 };
std::string_view reason_word(Reason reason);

// `count` events with sequence numbers from `first` to `last` will not come; others in between did.
struct Loss {
  uint64_t first;
  uint64_t last;
  uint64_t count;
  Reason reason;
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
  // Something is there that commit() would write.
  bool dirty() const;
  // False when the disk refused; what was appended is kept, up to a limit, and should be committed
  // again after a while. Gives up what is too old. problem() says what it was.
  bool commit();
  const std::string &problem() const { return problem_; }

  // What should be sent next; none when everything has been handed out.
  std::optional<Item> next();
  // The broker has it: an event by its sequence number, a loss by its first.
  void acknowledge(uint64_t sequence);
  // The broker does not want it. The event becomes a loss.
  void refuse(uint64_t sequence);
  // Hands out again what has not been acknowledged.
  void rewind();

  // Names the run of sequence numbers; a spool that is made anew begins another one.
  const std::string &stream() const { return stream_; }
  uint64_t last_sequence() const { return next_sequence_ - 1; }
  uint64_t waiting() const { return count_ + tail_.size(); }
  uint64_t waiting_bytes() const { return bytes_ + tail_bytes_; }
  // Appended, not committed yet.
  uint64_t unwritten_bytes() const { return tail_bytes_; }
  // Since the spool was made.
  uint64_t given_up() const { return given_up_; }

 private:
  struct Closer {
    void operator()(sqlite3 *db) const;
  };
  struct Finalizer {
    void operator()(sqlite3_stmt *statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;
  class Query;

  bool open();
  void open_database();
  void make_tables();
  void load();
  void reserve();
  void execute(const char *sql);
  void prepare(Statement *statement, const char *sql);
  void write_all();
  void remove_acknowledged();
  void give_up_old();
  void give_up_unwritten();
  void make_room(uint64_t size);
  bool give_up_oldest(Reason reason);
  bool shrink();
  void lose(uint64_t first, uint64_t last, uint64_t count, Reason reason);
  void insert(const Event &event);
  void bound_tail();
  void read_ahead();
  std::optional<Loss> next_loss();
  bool failed(const std::exception &error);
  bool too_old(int64_t boot, int64_t boot_ms, int64_t wall_ms) const;

  SpoolOptions options_;
  Clock clock_;
  Now now_;
  std::string problem_;

  std::unique_ptr<sqlite3, Closer> db_;
  Statement begin_, commit_, roll_back_, insert_, remove_, oldest_, read_, insert_loss_,
      extend_loss_, last_loss_, remove_loss_, read_loss_, between_, keep_state_, one_event_;

  std::string stream_;
  int64_t boot_id_ = 0;  // of now_.boot in the table of boots
  uint64_t next_sequence_ = 1;
  uint64_t count_ = 0;
  uint64_t bytes_ = 0;
  uint64_t given_up_ = 0;
  uint64_t limit_;  // options_.bytes, or less while the disk has no more
  int64_t limited_at_ms_ = 0;

  std::deque<Event> tail_;  // appended, not yet committed
  uint64_t tail_bytes_ = 0;
  uint64_t unwritten_ = 0;  // given up of the tail since the last commit

  uint64_t handed_out_ = 0;  // the last event that next() handed out
  std::set<uint64_t> handed_losses_;
  std::deque<Event> ahead_;  // read, not handed out yet
  std::vector<uint64_t> acknowledged_, acknowledged_losses_, refused_;
};

}  // namespace msgbridge
