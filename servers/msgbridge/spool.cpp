#include "msgbridge/spool.h"

#include <sys/random.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "msgbridge/database.h"

namespace msgbridge {
namespace {

namespace fs = std::filesystem;

constexpr size_t kReadAhead = 64;
constexpr size_t kReadAheadBytes = 128 << 10;
constexpr uint64_t kTailLimit = 512 << 10;
constexpr uint64_t kLeastRoom = 64 << 10;
// Space is taken in steps of the log's usual length.
constexpr uint64_t kReserveStep = 256 << 10;
constexpr uint64_t kSmallReserveStep = 32 << 10;
constexpr int kMostTries = 3;
constexpr int kApplication = 0x6d736270;
constexpr int kVersion = 1;
// A clock that shows an earlier time is not set.
constexpr int64_t kPlausible_ms = 1'700'000'000'000;

constexpr const char *kTables =
    "CREATE TABLE state(stream TEXT NOT NULL, next INTEGER NOT NULL, given_up INTEGER NOT NULL);"
    "CREATE TABLE boots(id INTEGER PRIMARY KEY, boot TEXT UNIQUE NOT NULL);"
    "CREATE TABLE events(sequence INTEGER PRIMARY KEY, boot INTEGER NOT NULL, boot_ms INTEGER NOT "
    "NULL, wall_ms INTEGER NOT NULL, qos INTEGER NOT NULL, retain INTEGER NOT NULL, topic TEXT NOT "
    "NULL, payload BLOB NOT NULL);"
    "CREATE TABLE lost(first INTEGER PRIMARY KEY, last INTEGER NOT NULL, count INTEGER NOT NULL, "
    "reason INTEGER NOT NULL);";

int64_t number(uint64_t count) {
  return static_cast<int64_t>(count);
}

uint64_t weight(uint64_t topic, uint64_t payload) {
  return Spool::kEventWeight + topic + payload;
}
uint64_t weight(const Event &event) {
  return weight(event.topic.size(), event.payload.size());
}

std::string random_name() {
  unsigned char bytes[8];
  if (::getrandom(bytes, sizeof bytes, 0) != sizeof bytes) throw std::runtime_error("no random");
  std::string name;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    name += digits;
  }
  return name;
}

int64_t milliseconds(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

}  // namespace

// The open database and its statements. Before prepare() it may have no tables yet.
struct Spool::File {
  File(const SpoolOptions &options) : db(options.path, options.sync) {}

  // Throws when the file is somebody else's.
  bool is_new() const {
    const int64_t version = db.number("PRAGMA user_version");
    if (version == 0 && db.number("SELECT count(*) FROM sqlite_master") == 0) return true;
    if (db.number("PRAGMA application_id") != kApplication) {
      throw std::runtime_error("is a database of another program; name another file");
    }
    if (version != kVersion) {
      throw std::runtime_error("was made by another release; remove it or name another file");
    }
    return false;
  }

  void prepare() {
    begin = db.prepare("BEGIN IMMEDIATE");
    commit = db.prepare("COMMIT");
    insert = db.prepare("INSERT INTO events VALUES(?,?,?,?,?,?,?,?)");
    sum = db.prepare(
        "SELECT count(*), ifnull(sum(length(CAST(topic AS BLOB))+length(payload)),0) FROM events "
        "WHERE sequence BETWEEN ? AND ?");
    remove = db.prepare("DELETE FROM events WHERE sequence BETWEEN ? AND ?");
    oldest = db.prepare(
        "SELECT sequence, boot, boot_ms, wall_ms, length(CAST(topic AS BLOB)), length(payload) "
        "FROM events WHERE sequence>? ORDER BY sequence LIMIT 1");
    read = db.prepare(
        "SELECT sequence, boots.boot, wall_ms, qos, retain, topic, payload FROM events JOIN boots "
        "ON boots.id=events.boot WHERE sequence>? ORDER BY sequence LIMIT ?");
    between = db.prepare("SELECT 1 FROM events WHERE sequence>? AND sequence<? LIMIT 1");
    keep_loss = db.prepare("INSERT OR REPLACE INTO lost VALUES(?,?,?,?)");
    remove_loss = db.prepare("DELETE FROM lost WHERE first=?");
    keep_state = db.prepare("UPDATE state SET next=?, given_up=?");
  }

  Database db;  // declared first: destroyed after its statements
  Statement begin, commit, insert, sum, remove, oldest, read, between, keep_loss, remove_loss,
      keep_state;
};

Spool::Now Spool::system_clock() {
  static const std::string boot = [] {
    std::string text;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
    return text.empty() ? std::string("unknown") : text;
  }();
  return {boot, milliseconds(CLOCK_BOOTTIME), milliseconds(CLOCK_REALTIME)};
}

Spool::Spool(SpoolOptions options, Clock clock)
    : options_(std::move(options)), clock_(clock), now_(clock()), limit_(options_.bytes) {
  open();
  if (problem_.empty() && disk_is_small()) {
    problem_ = options_.path + ": the disk is small, " + std::to_string(limit_) + " bytes are kept";
  }
}

Spool::~Spool() = default;

// ---- The file ----

bool Spool::failed(const std::exception &error) {
  problem_ = options_.path + ": " + error.what();
  return false;
}

bool Spool::open(Anew anew) {
  file_.reset();
  try {
    std::error_code error;
    fs::create_directories(fs::path(options_.path).parent_path(), error);
    if (anew == Anew::kNo) {
      try {
        open_file();
        return true;
      } catch (const DiskError &damage) {
        if (!damage.is_damage()) throw;
        anew = Anew::kDamaged;
      }
    }
    // Nobody can mend a damaged file on a gateway, and new events must be kept.
    put_aside(anew);
    const bool is_known = !stream_.empty();
    const uint64_t before = state_.given_up;
    open_file();
    problem_ = options_.path +
               (anew == Anew::kDamaged ? ": was damaged" : ": had no room to be emptied") +
               ", is begun anew";
    if (is_known && state_.given_up > before) {
      problem_ += "; " + std::to_string(state_.given_up - before) + " events are lost";
    }
    return true;
  } catch (const std::exception &error) {
    return failed(error);
  }
}

// Removes the file. A damaged one is renamed instead, if a new one has room beside it.
void Spool::put_aside(Anew anew) const {
  std::error_code error;
  const bool damaged = anew == Anew::kDamaged;
  const bool keep = damaged && disk().available > options_.bytes + options_.bytes / 2;
  for (const char *part : {"", "-wal", "-journal"}) {
    if (damaged) fs::remove(options_.path + ".damaged" + part, error);
    if (keep) fs::rename(options_.path + part, options_.path + ".damaged" + part, error);
    fs::remove(options_.path + part, error);
  }
}

void Spool::open_file() {
  auto file = std::make_unique<File>(options_);
  if (file->is_new()) make_tables(*file);
  try {
    file->prepare();
  } catch (const DiskError &error) {
    // The file is ours, so a table is missing.
    throw error.code == SQLITE_ERROR ? DiskError(SQLITE_CORRUPT, error.what()) : error;
  }
  file_ = std::move(file);
  load();
  limit_ = std::min(limit_, most());
  // Everything is written through the log. On a small disk a long log could not be written back.
  if (disk_is_small()) file_->db.execute("PRAGMA wal_autocheckpoint=8");
  if (options_.reserve) reserve();
}

// A new file is made while the spool knows what the old one held: that becomes a loss.
void Spool::lose_file() {
  std::ranges::sort(acknowledged_);
  acknowledged_.erase(std::unique(acknowledged_.begin(), acknowledged_.end()), acknowledged_.end());
  for (const uint64_t sequence : acknowledged_) state_.oldest += sequence == state_.oldest ? 1 : 0;
  uint64_t count = state_.count - std::min<uint64_t>(state_.count, acknowledged_.size());
  const auto lose_here = [this](const Loss &loss) {
    state_.given_up += loss.count;
    add_loss(&state_.losses, loss, told_losses_, [](uint64_t, uint64_t) { return false; });
  };
  for (const uint64_t sequence : std::set(refused_.begin(), refused_.end())) {
    if (count == 0 || std::ranges::binary_search(acknowledged_, sequence)) continue;
    --count;
    lose_here({sequence, sequence, 1, Reason::kRefused});
  }
  acknowledged_.clear();
  refused_.clear();
  state_.count = state_.bytes = 0;
  state_.boot = 0;
  ahead_.clear();
  if (count == 0) return;
  ++begun_anew_;
  lose_here({state_.oldest, state_.next - 1, count, Reason::kDamaged});
}

void Spool::make_tables(const File &file) {
  const Database &db = file.db;
  if (!stream_.empty()) {
    lose_file();
    kept_ = state_;
  }
  const std::string stream = stream_.empty() ? random_name() : stream_;
  db.execute("BEGIN IMMEDIATE");
  db.execute(kTables);
  const Statement insert = db.prepare("INSERT INTO state VALUES(?3,?1,?2)");
  {
    Query query(insert, {number(state_.next), number(state_.given_up)});
    query.bind_text(3, stream);
    query.step();
  }
  const Statement insert_loss = db.prepare("INSERT INTO lost VALUES(?,?,?,?)");
  for (const auto &[first, loss] : state_.losses) {
    Query(insert_loss,
          {number(first), number(loss.last), number(loss.count), static_cast<int64_t>(loss.reason)})
        .step();
  }
  char text[96];
  std::snprintf(text, sizeof text, "PRAGMA application_id=%d; PRAGMA user_version=%d; COMMIT",
                kApplication, kVersion);
  db.execute(text);
}

// Reads the file's state into memory.
void Spool::load() {
  State state;
  const Database &db = file_->db;
  {
    const Statement head = db.prepare("SELECT stream, next, given_up FROM state");
    Query query(head, {});
    if (!query.step()) throw DiskError(SQLITE_CORRUPT, "its state is missing");
    if (!stream_.empty() && stream_ != query.text(0)) {
      throw DiskError(SQLITE_CORRUPT, "is another spool");
    }
    stream_ = query.text(0);
    state.next = std::max(query.count(1), state_.next);
    state.given_up = query.count(2);
  }
  {
    Query query(file_->sum, {0, INT64_MAX});
    query.step();
    state.count = query.count(0);
    state.bytes = query.count(1) + state.count * kEventWeight;
  }
  state.oldest = static_cast<uint64_t>(db.number("SELECT ifnull(min(sequence),0) FROM events"));
  if (state.count > 0) {
    state.next = std::max(state.next,
                          static_cast<uint64_t>(db.number("SELECT max(sequence) FROM events")) + 1);
  } else {
    state.oldest = state.next;
  }
  {
    const Statement boot = db.prepare("SELECT id FROM boots WHERE boot=?");
    Query query(boot, {});
    query.bind_text(1, now_.boot);
    state.boot = query.step() ? query.number(0) : 0;
  }
  {
    const Statement losses = db.prepare("SELECT first, last, count, reason FROM lost");
    Query query(losses, {});
    while (query.step()) {
      state.losses[query.count(0)] = {query.count(0), query.count(1), query.count(2),
                                      static_cast<Reason>(query.number(3))};
    }
  }
  state_ = kept_ = std::move(state);
  ahead_.clear();
}

// When the disk cannot be asked, its figures are the largest that there are.
fs::space_info Spool::disk() const {
  std::error_code error;
  return fs::space(fs::path(options_.path).parent_path(), error);
}

// How many bytes of events a file may hold on this disk. Its log needs about as much again.
uint64_t Spool::most() const {
  return std::min(options_.bytes, std::max(disk().capacity / 4, kLeastRoom));
}

bool Spool::disk_is_small() const {
  return limit_ < options_.bytes;
}

// A disk that was full may have room again, for the events in memory and for their way through the
// log.
void Spool::look_for_room() {
  if (disk().available > 2 * (tail_bytes_ + kLeastRoom)) limit_ = most();
}

void Spool::reserve() {
  const uint64_t wanted = limit_ + limit_ / 4;
  const Database &db = file_->db;
  const auto size = [&db] {
    return static_cast<uint64_t>(
        db.number("SELECT page_count*page_size FROM pragma_page_count, pragma_page_size"));
  };
  if (size() >= wanted) return;
  try {
    // In steps, so that SQLite's log stays short.
    const uint64_t step = disk_is_small() ? kSmallReserveStep : kReserveStep;
    db.execute("CREATE TABLE room(bytes BLOB)");
    {
      const Statement grow = db.prepare("INSERT INTO room VALUES(zeroblob(?))");
      // The file grows only after its free pages have been used.
      while (size() < wanted) Query(grow, {number(step)}).step();
    }
    db.execute("DROP TABLE room");
  } catch (const DiskError &error) {
    problem_ = options_.path + ": only " + std::to_string(size()) + " of " +
               std::to_string(wanted) + " bytes can be taken now: " + error.what();
    try {
      db.execute("DROP TABLE IF EXISTS room");
    } catch (const DiskError &) {
      // The next start drops it.
    }
  }
}

// ---- Writing ----

void Spool::append(Event event) {
  tail_bytes_ += weight(event);
  tail_.push_back(std::move(event));
}

bool Spool::is_due() {
  return !tail_.empty() || unwritten_ > 0 || !acknowledged_.empty() || !refused_.empty() ||
         !acknowledged_losses_.empty() || has_old();
}

bool Spool::commit() {
  problem_.clear();
  now_ = clock_();
  if (disk_is_small()) look_for_room();
  for (int tries = 0; tries < kMostTries && (file_ || open()); ++tries) {
    try {
      if (is_due()) write();
      unread_ = false;
      return true;
    } catch (const std::exception &error) {
      if (!recover(error)) break;
    }
  }
  bound_tail();
  return false;
}

void Spool::write() {
  Query(file_->begin, {}).step();
  note_boot();
  remove_acknowledged();
  give_up_old();
  give_up_unwritten();
  for (const Event &event : tail_) insert(event);
  write_state();
  Query(file_->commit, {}).step();
  written();
  tail_.clear();
  tail_bytes_ = 0;
  unwritten_ = 0;
}

// To be called after a transaction with remove_acknowledged() has been committed.
void Spool::written() {
  kept_ = state_;
  acknowledged_.clear();
  refused_.clear();
  for (const uint64_t first : acknowledged_losses_) told_losses_.erase(first);
  acknowledged_losses_.clear();
}

// Whether the broker has acknowledged or refused everything in the file.
bool Spool::nothing_waits() const {
  std::set<uint64_t> done(acknowledged_.begin(), acknowledged_.end());
  done.insert(refused_.begin(), refused_.end());
  try {
    const Statement all = file_->db.prepare("SELECT sequence FROM events");
    Query query(all, {});
    while (query.step()) {
      if (!done.contains(query.count(0))) return false;
    }
    return true;
  } catch (const std::exception &) {
    return false;
  }
}

// Undoes a transaction that has failed. True when it may be tried again at once.
bool Spool::recover(const std::exception &error) {
  failed(error);
  roll_back();
  const auto *disk = dynamic_cast<const DiskError *>(&error);
  if (disk == nullptr || disk->code == SQLITE_NOMEM || disk->code == SQLITE_BUSY) return false;
  if (disk->is_damage()) return open(Anew::kDamaged);
  // A smaller spool may fit the disk.
  if (disk->code == SQLITE_FULL) {
    // Without room for the log nothing can be removed. If the broker has had everything, a new file
    // loses nothing.
    return file_ != nullptr && (shrink() || (nothing_waits() && open(Anew::kFull)));
  }
  // The next attempt opens the file again.
  file_.reset();
  return false;
}

void Spool::roll_back() {
  state_ = kept_;
  ahead_.clear();  // the transaction may have removed events from it that are in the file again
  try {
    if (file_ && file_->db.in_transaction()) file_->db.execute("ROLLBACK");
  } catch (const std::exception &) {
    file_.reset();
  }
}

void Spool::note_boot() {
  if (state_.boot != 0) return;
  const auto run = [this](const char *sql) {
    const Statement statement = file_->db.prepare(sql);
    Query query(statement, {});
    query.bind_text(1, now_.boot);
    return query.step() ? query.number(0) : 0;
  };
  run("DELETE FROM boots WHERE boot<>?1 AND id NOT IN (SELECT boot FROM events)");
  run("INSERT OR IGNORE INTO boots(boot) VALUES(?)");
  state_.boot = run("SELECT id FROM boots WHERE boot=?");
  if (state_.boot == 0) throw std::runtime_error("this run of the system cannot be noted");
}

// Returns how many events it has removed.
uint64_t Spool::remove(uint64_t first, uint64_t last) {
  uint64_t count, bytes;
  {
    Query query(file_->sum, {number(first), number(last)});
    query.step();
    count = query.count(0);
    bytes = query.count(1) + count * kEventWeight;
  }
  if (count == 0) return 0;
  Query(file_->remove, {number(first), number(last)}).step();
  state_.bytes -= std::min(state_.bytes, bytes);
  state_.count -= std::min(state_.count, count);
  return count;
}

void Spool::remove_acknowledged() {
  // Acknowledgements mostly come in order, so each run of numbers is removed at once.
  std::ranges::sort(acknowledged_);
  for (size_t i = 0; i < acknowledged_.size();) {
    const size_t begin = i;
    while (++i < acknowledged_.size() && acknowledged_[i] <= acknowledged_[i - 1] + 1) {
    }
    remove(acknowledged_[begin], acknowledged_[i - 1]);
  }
  for (const uint64_t sequence : refused_) {
    if (remove(sequence, sequence) > 0) lose({sequence, sequence, 1, Reason::kRefused});
  }
  for (const uint64_t first : acknowledged_losses_) state_.losses.erase(first);
}

bool Spool::too_old(int64_t boot, int64_t boot_ms, int64_t wall_ms) const {
  const int64_t most_ms = static_cast<int64_t>(options_.age_s) * 1000;
  if (boot == state_.boot) return now_.boot_ms - boot_ms > most_ms;
  if (wall_ms < kPlausible_ms || now_.wall_ms < kPlausible_ms) return false;
  return now_.wall_ms - wall_ms > most_ms;
}

bool Spool::has_old() {
  Query query(file_->oldest, {number(handed_out_)});
  return query.step() && too_old(query.number(1), query.number(2), query.number(3));
}

void Spool::give_up_old() {
  while (has_old()) give_up_oldest(Reason::kOld);
}

// Events that the disk did not take get the numbers after all others.
void Spool::give_up_unwritten() {
  if (unwritten_ == 0) return;
  lose({state_.next, state_.next + unwritten_ - 1, unwritten_, Reason::kDisk});
  state_.next += unwritten_;
}

Reason Spool::no_room() const {
  return disk_is_small() ? Reason::kDisk : Reason::kFull;
}

void Spool::make_room(uint64_t size) {
  while (state_.bytes + size > limit_ && give_up_oldest(no_room())) {
  }
}

// Events on their way to the broker stay. False when there is no other.
bool Spool::give_up_oldest(Reason reason) {
  uint64_t sequence, size;
  {
    Query query(file_->oldest, {number(handed_out_)});
    if (!query.step()) return false;
    sequence = query.count(0);
    size = weight(query.count(4), query.count(5));
  }
  Query(file_->remove, {number(sequence), number(sequence)}).step();
  state_.bytes -= std::min(state_.bytes, size);
  --state_.count;
  lose({sequence, sequence, 1, reason});
  while (!ahead_.empty() && ahead_.front().sequence <= sequence) ahead_.pop_front();
  return true;
}

// The disk is full. Until it has room, the spool is half as large as everything that it holds now,
// and gives up the oldest events to make room for new ones. True when something has changed, so
// that another attempt makes sense.
bool Spool::shrink() {
  const uint64_t smaller = std::max(std::min(limit_, state_.bytes + tail_bytes_) / 2, kLeastRoom);
  const bool less = smaller < limit_;
  limit_ = std::min(limit_, smaller);
  try {
    empty_log();
    Query(file_->begin, {}).step();
    const uint64_t before = state_.count;
    remove_acknowledged();
    const uint64_t kept = limit_ - std::min(limit_, std::max(tail_bytes_, limit_ / 2));
    while (state_.bytes > kept && give_up_oldest(Reason::kDisk)) {
    }
    const bool some = state_.count < before;
    write_state();
    Query(file_->commit, {}).step();
    written();
    return some || less;
  } catch (const std::exception &) {
    roll_back();
    return false;
  }
}

// Writes the log back, because its space may be all that is left. The log keeps the space, which
// others would take otherwise.
void Spool::empty_log() {
  try {
    file_->db.execute("PRAGMA wal_checkpoint");
  } catch (const DiskError &) {
    // There may be room after something has been removed.
  }
}

bool Spool::waits_between(uint64_t after, uint64_t before) {
  return Query(file_->between, {number(after), number(before)}).step();
}

void Spool::lose(const Loss &loss) {
  state_.given_up += loss.count;
  add_loss(&state_.losses, loss, told_losses_,
           [this](uint64_t after, uint64_t before) { return waits_between(after, before); });
}

void Spool::insert(const Event &event) {
  const uint64_t sequence = state_.next++;
  const uint64_t size = weight(event);
  if (size > limit_) {
    lose({sequence, sequence, 1, no_room()});
    return;
  }
  make_room(size);
  Query query(file_->insert, {number(sequence), state_.boot, now_.boot_ms, event.wall_ms, event.qos,
                              event.retain ? 1 : 0});
  query.bind_text(7, event.topic);
  query.bind_blob(8, event.payload);
  query.step();
  state_.bytes += size;
  ++state_.count;
}

// Writes what differs from the file.
void Spool::write_state() {
  for (const auto &[first, loss] : kept_.losses) {
    if (!state_.losses.contains(first)) Query(file_->remove_loss, {number(first)}).step();
  }
  for (const auto &[first, loss] : state_.losses) {
    const auto known = kept_.losses.find(first);
    if (known != kept_.losses.end() && known->second == loss) continue;
    Query(file_->keep_loss,
          {number(first), number(loss.last), number(loss.count), static_cast<int64_t>(loss.reason)})
        .step();
  }
  if (state_.next != kept_.next || state_.given_up != kept_.given_up) {
    Query(file_->keep_state, {number(state_.next), number(state_.given_up)}).step();
  }
  Query query(file_->oldest, {0});
  state_.oldest = query.step() ? query.count(0) : state_.next;
}

// Bounds the memory of events that wait for the disk.
void Spool::bound_tail() {
  while (tail_bytes_ > kTailLimit && !tail_.empty()) {
    tail_bytes_ -= weight(tail_.front());
    tail_.pop_front();
    ++unwritten_;
  }
}

// ---- Reading ----

void Spool::read_ahead() {
  Query query(file_->read, {number(handed_out_), number(kReadAhead)});
  for (size_t bytes = 0; bytes < kReadAheadBytes && query.step();) {
    ahead_.push_back({.sequence = query.count(0),
                      .boot = query.text(1),
                      .wall_ms = query.number(2),
                      .topic = query.text(5),
                      .payload = query.text(6),
                      .qos = static_cast<int>(query.number(3)),
                      .retain = query.number(4) != 0});
    bytes += ahead_.back().payload.size();
  }
}

std::optional<Loss> Spool::next_loss() const {
  for (const auto &[first, loss] : state_.losses) {
    if (!told_losses_.contains(first)) return loss;
  }
  return std::nullopt;
}

std::optional<Item> Spool::next() {
  if (!file_) return std::nullopt;
  try {
    // Without an event that has not been handed out there is nothing to read.
    if (ahead_.empty() && handed_out_ + 1 < state_.next) read_ahead();
    const std::optional<Loss> loss = next_loss();
    if (loss && (ahead_.empty() || loss->first < ahead_.front().sequence)) {
      told_losses_.insert(loss->first);
      return *loss;
    }
    if (ahead_.empty()) return std::nullopt;
    Event event = std::move(ahead_.front());
    ahead_.pop_front();
    handed_out_ = event.sequence;
    return event;
  } catch (const std::exception &error) {
    recover(error);
    unread_ = true;
    return std::nullopt;
  }
}

void Spool::acknowledge(uint64_t sequence) {
  if (told_losses_.contains(sequence)) {
    acknowledged_losses_.insert(sequence);
  } else {
    acknowledged_.push_back(sequence);
  }
}

void Spool::refuse(uint64_t sequence) {
  if (told_losses_.contains(sequence)) {
    acknowledged_losses_.insert(sequence);  // the broker does not take the notice: forget it
  } else {
    refused_.push_back(sequence);
  }
}

void Spool::rewind() {
  handed_out_ = 0;
  told_losses_ = acknowledged_losses_;
  ahead_.clear();
}

}  // namespace msgbridge
