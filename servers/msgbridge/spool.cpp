#include "msgbridge/spool.h"

#include <sqlite3.h>
#include <sys/random.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace msgbridge {
namespace {

constexpr size_t kReadAhead = 32;
constexpr size_t kReadAheadBytes = 128 << 10;
constexpr uint64_t kTailLimit = 512 << 10;
constexpr uint64_t kLeastRoom = 64 << 10;
// After so long a disk that was full may have more room.
constexpr int64_t kLimitedTime_ms = 60'000;
constexpr size_t kReserveStep = 256 << 10;
// The log is reused from its beginning once this many pages of it have been written back.
constexpr const char *kSettings =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA temp_store=MEMORY;"
    "PRAGMA cache_size=-256; PRAGMA wal_autocheckpoint=64; PRAGMA mmap_size=0;"
    "PRAGMA secure_delete=OFF;";
constexpr int kApplication = 0x6d736270;
constexpr int kVersion = 1;
// No gateway's clock is right before.
constexpr int64_t kPlausible_ms = 1'700'000'000'000;

constexpr const char *kTables =
    "CREATE TABLE state(stream TEXT NOT NULL, next INTEGER NOT NULL, given_up INTEGER NOT NULL);"
    "CREATE TABLE boots(id INTEGER PRIMARY KEY, boot TEXT UNIQUE NOT NULL);"
    "CREATE TABLE events(sequence INTEGER PRIMARY KEY, boot INTEGER NOT NULL, boot_ms INTEGER NOT "
    "NULL, wall_ms INTEGER NOT NULL, qos INTEGER NOT NULL, retain INTEGER NOT NULL, topic TEXT NOT "
    "NULL, payload BLOB NOT NULL);"
    "CREATE TABLE lost(first INTEGER PRIMARY KEY, last INTEGER NOT NULL, count INTEGER NOT NULL, "
    "reason INTEGER NOT NULL);";

struct DiskError : std::runtime_error {
  DiskError(int result, const std::string &what) : std::runtime_error(what), code(result & 0xff) {}
  int code;
};

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

std::string_view reason_word(Reason reason) {
  switch (reason) {
    case Reason::kFull:
      return "full";
    case Reason::kOld:
      return "old";
    case Reason::kDisk:
      return "disk";
    case Reason::kRefused:
      return "refused";
  }
  return "?";
}

// One run of a statement.
class Spool::Query {
 public:
  Query(const Statement &statement, std::initializer_list<int64_t> numbers)
      : statement_(statement.get()) {
    int index = 0;
    for (const int64_t number : numbers) bind(++index, number);
  }
  ~Query() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Query(const Query &) = delete;
  Query &operator=(const Query &) = delete;

  void bind(int index, int64_t number) { check(sqlite3_bind_int64(statement_, index, number)); }
  // The text must stay until the statement has run.
  void bind_text(int index, const std::string &text) {
    check(sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC,
                              SQLITE_UTF8));
  }
  void bind_blob(int index, const std::string &bytes) {
    check(sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_STATIC));
  }
  // True for a row.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) check(result);
    return false;
  }
  int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  uint64_t count(int column) const { return static_cast<uint64_t>(number(column)); }
  std::string text(int column) const {
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? std::string() : std::string(bytes, size);
  }

 private:
  void check(int result) const {
    if (result == SQLITE_OK) return;
    throw DiskError(result, sqlite3_errmsg(sqlite3_db_handle(statement_)));
  }

  sqlite3_stmt *statement_;
};

Spool::Now Spool::system_clock() {
  static const std::string boot = [] {
    std::string text;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
    return text.empty() ? std::string("unknown") : text;
  }();
  return {boot, milliseconds(CLOCK_BOOTTIME), milliseconds(CLOCK_REALTIME)};
}

void Spool::Closer::operator()(sqlite3 *db) const {
  sqlite3_close(db);
}
void Spool::Finalizer::operator()(sqlite3_stmt *statement) const {
  sqlite3_finalize(statement);
}

Spool::Spool(SpoolOptions options, Clock clock)
    : options_(std::move(options)), clock_(clock), now_(clock()), limit_(options_.bytes) {
  open();
}

Spool::~Spool() = default;

// ---- The file ----

bool Spool::failed(const std::exception &error) {
  problem_ = options_.path + ": " + error.what();
  return false;
}

bool Spool::open() {
  try {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(options_.path).parent_path(), error);
    try {
      open_database();
    } catch (const DiskError &damage) {
      if (damage.code != SQLITE_NOTADB && damage.code != SQLITE_CORRUPT) throw;
      // Nobody can mend it here, and the gateway's events of today matter more.
      db_.reset();
      std::filesystem::rename(options_.path, options_.path + ".damaged", error);
      for (const char *other : {"-wal", "-journal"}) {
        std::filesystem::remove(options_.path + other, error);
      }
      open_database();
      problem_ = options_.path + ": was damaged, is begun anew; the old file is " + options_.path +
                 ".damaged";
    }
    return true;
  } catch (const std::exception &error) {
    db_.reset();
    return failed(error);
  }
}

void Spool::open_database() {
  for (Statement *each : {&begin_, &commit_, &roll_back_, &insert_, &remove_, &oldest_, &read_,
                          &insert_loss_, &extend_loss_, &last_loss_, &remove_loss_, &read_loss_,
                          &between_, &keep_state_, &one_event_}) {
    each->reset();
  }
  sqlite3 *db = nullptr;
  const int result = sqlite3_open_v2(
      options_.path.c_str(), &db,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
      nullptr);
  db_.reset(db);
  if (result != SQLITE_OK) {
    throw DiskError(result, db == nullptr ? "no memory" : sqlite3_errmsg(db));
  }
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  execute(kSettings);
  execute(options_.sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  // The log keeps its space, so that a disk that others have filled still takes what fits there.
  int keep = 1;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);

  Statement version;
  prepare(&version, "PRAGMA user_version");
  bool is_new;
  {
    Query query(version, {});
    is_new = !query.step() || query.number(0) == 0;
    if (!is_new && query.number(0) != kVersion) {
      throw std::runtime_error("was made by another release; remove it or name another file");
    }
  }
  if (is_new) make_tables();

  prepare(&begin_, "BEGIN IMMEDIATE");
  prepare(&commit_, "COMMIT");
  prepare(&roll_back_, "ROLLBACK");
  prepare(&insert_, "INSERT INTO events VALUES(?,?,?,?,?,?,?,?)");
  prepare(&remove_, "DELETE FROM events WHERE sequence=?");
  prepare(&oldest_,
          "SELECT sequence, boot, boot_ms, wall_ms, length(CAST(topic AS BLOB)), length(payload) "
          "FROM events WHERE sequence>? ORDER BY sequence LIMIT 1");
  prepare(&one_event_,
          "SELECT length(CAST(topic AS BLOB)), length(payload) FROM events WHERE sequence=?");
  prepare(
      &read_,
      "SELECT sequence, boots.boot, wall_ms, qos, retain, topic, payload FROM events JOIN boots "
      "ON boots.id=events.boot WHERE sequence>? ORDER BY sequence LIMIT ?");
  prepare(&insert_loss_, "INSERT INTO lost VALUES(?,?,?,?)");
  prepare(&extend_loss_, "UPDATE lost SET last=?, count=count+? WHERE first=?");
  prepare(&last_loss_,
          "SELECT first, last, reason FROM lost WHERE first<? ORDER BY first DESC LIMIT 1");
  prepare(&between_, "SELECT 1 FROM events WHERE sequence>? AND sequence<? LIMIT 1");
  prepare(&remove_loss_, "DELETE FROM lost WHERE first=?");
  prepare(&read_loss_, "SELECT first, last, count, reason FROM lost ORDER BY first");
  prepare(&keep_state_, "UPDATE state SET next=?, given_up=?");
  load();
  if (options_.reserve) reserve();
}

void Spool::make_tables() {
  execute("BEGIN IMMEDIATE");
  execute(kTables);
  Statement state;
  prepare(&state, "INSERT INTO state VALUES(?,1,0)");
  const std::string name = random_name();
  {
    Query query(state, {});
    query.bind_text(1, name);
    query.step();
  }
  char text[96];
  std::snprintf(text, sizeof text, "PRAGMA application_id=%d; PRAGMA user_version=%d; COMMIT",
                kApplication, kVersion);
  execute(text);
}

// What is kept in memory beside the file.
void Spool::load() {
  Statement statement;
  prepare(&statement,
          "SELECT count(*), ifnull(sum(length(CAST(topic AS BLOB))+length(payload)),0), "
          "ifnull(max(sequence),0) FROM events");
  uint64_t last;
  {
    Query query(statement, {});
    query.step();
    count_ = query.count(0);
    bytes_ = query.count(1) + count_ * kEventWeight;
    last = query.count(2);
  }
  prepare(&statement, "SELECT stream, next, given_up FROM state");
  {
    Query query(statement, {});
    if (!query.step()) throw DiskError(SQLITE_CORRUPT, "its state is missing");
    stream_ = query.text(0);
    next_sequence_ = std::max(query.count(1), last + 1);
    given_up_ = query.count(2);
  }
  boot_id_ = 0;
  ahead_.clear();  // some of it may have been given up in what has been rolled back
}

void Spool::reserve() {
  const uint64_t wanted = options_.bytes + options_.bytes / 4;
  Statement pages;
  prepare(&pages, "SELECT page_count*page_size FROM pragma_page_count, pragma_page_size");
  const auto size = [&pages] {
    Query query(pages, {});
    query.step();
    return query.count(0);
  };
  uint64_t there = size();
  if (there >= wanted) return;
  try {
    // In steps, so that the log stays short.
    execute("CREATE TABLE room(bytes BLOB)");
    Statement grow;
    prepare(&grow, "INSERT INTO room VALUES(zeroblob(?))");
    for (; there < wanted; there += kReserveStep) {
      Query query(grow, {static_cast<int64_t>(kReserveStep)});
      query.step();
    }
    grow.reset();
    execute("DROP TABLE room");
  } catch (const DiskError &error) {
    problem_ = options_.path + ": only " + std::to_string(size()) + " of " +
               std::to_string(wanted) + " bytes can be taken now: " + error.what();
    try {
      execute("DROP TABLE IF EXISTS room");
    } catch (const DiskError &) {
      // The next start tries again.
    }
  }
}

void Spool::execute(const char *sql) {
  const int result = sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) throw DiskError(result, sqlite3_errmsg(db_.get()));
}

void Spool::prepare(Statement *statement, const char *sql) {
  sqlite3_stmt *made = nullptr;
  const int result =
      sqlite3_prepare_v3(db_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
  statement->reset(made);
  if (result != SQLITE_OK) throw DiskError(result, sqlite3_errmsg(db_.get()));
}

// ---- Writing ----

void Spool::append(Event event) {
  tail_bytes_ += weight(event);
  tail_.push_back(std::move(event));
}

bool Spool::dirty() const {
  return !tail_.empty() || unwritten_ > 0 || !acknowledged_.empty() ||
         !acknowledged_losses_.empty() || !refused_.empty();
}

bool Spool::commit() {
  problem_.clear();
  now_ = clock_();
  if (now_.boot_ms - limited_at_ms_ > kLimitedTime_ms) limit_ = options_.bytes;
  bool done = false;
  for (int tries = 0; tries < 2 && !done; ++tries) {
    if (!db_ && !open()) break;
    try {
      Query(begin_, {}).step();
      write_all();
      Query(commit_, {}).step();
      done = true;
    } catch (const std::exception &error) {
      failed(error);
      try {
        if (sqlite3_get_autocommit(db_.get()) == 0) Query(roll_back_, {}).step();
        load();
      } catch (const std::exception &) {
        db_.reset();
      }
      const auto *disk = dynamic_cast<const DiskError *>(&error);
      // A smaller spool may fit the disk.
      if (disk == nullptr || disk->code != SQLITE_FULL || !db_ || !shrink()) break;
    }
  }
  if (!done) {
    bound_tail();
    return false;
  }
  tail_.clear();
  tail_bytes_ = 0;
  unwritten_ = 0;
  acknowledged_.clear();
  acknowledged_losses_.clear();
  refused_.clear();
  return true;
}

void Spool::write_all() {
  if (boot_id_ == 0) {
    Statement boots;
    prepare(&boots, "DELETE FROM boots WHERE boot<>?1 AND id NOT IN (SELECT boot FROM events)");
    {
      Query query(boots, {});
      query.bind_text(1, now_.boot);
      query.step();
    }
    prepare(&boots, "INSERT OR IGNORE INTO boots(boot) VALUES(?)");
    {
      Query query(boots, {});
      query.bind_text(1, now_.boot);
      query.step();
    }
    prepare(&boots, "SELECT id FROM boots WHERE boot=?");
    Query query(boots, {});
    query.bind_text(1, now_.boot);
    if (!query.step()) throw std::runtime_error("this run of the system cannot be noted");
    boot_id_ = query.number(0);
  }
  remove_acknowledged();
  give_up_old();
  give_up_unwritten();
  for (const Event &event : tail_) insert(event);
  Query(keep_state_, {static_cast<int64_t>(next_sequence_), static_cast<int64_t>(given_up_)})
      .step();
}

void Spool::remove_acknowledged() {
  const auto take = [this](uint64_t sequence) {
    uint64_t size;
    {
      Query query(one_event_, {static_cast<int64_t>(sequence)});
      if (!query.step()) return false;
      size = weight(query.count(0), query.count(1));
    }
    Query(remove_, {static_cast<int64_t>(sequence)}).step();
    bytes_ -= std::min(bytes_, size);
    --count_;
    return true;
  };
  for (const uint64_t sequence : acknowledged_) take(sequence);
  for (const uint64_t sequence : refused_) {
    if (take(sequence)) lose(sequence, sequence, 1, Reason::kRefused);
  }
  for (const uint64_t first : acknowledged_losses_) {
    Query(remove_loss_, {static_cast<int64_t>(first)}).step();
  }
}

bool Spool::too_old(int64_t boot, int64_t boot_ms, int64_t wall_ms) const {
  const int64_t most_ms = static_cast<int64_t>(options_.age_s) * 1000;
  if (boot == boot_id_) return now_.boot_ms - boot_ms > most_ms;
  if (wall_ms < kPlausible_ms || now_.wall_ms < kPlausible_ms) return false;
  return now_.wall_ms - wall_ms > most_ms;
}

void Spool::give_up_old() {
  for (;;) {
    {
      Query query(oldest_, {static_cast<int64_t>(handed_out_)});
      if (!query.step() || !too_old(query.number(1), query.number(2), query.number(3))) return;
    }
    give_up_oldest(Reason::kOld);
  }
}

// What the disk did not take has its place behind everything that is there.
void Spool::give_up_unwritten() {
  if (unwritten_ == 0) return;
  lose(next_sequence_, next_sequence_ + unwritten_ - 1, unwritten_, Reason::kDisk);
  next_sequence_ += unwritten_;
}

void Spool::make_room(uint64_t size) {
  while (bytes_ + size > limit_ && give_up_oldest(Reason::kFull)) {
  }
}

// Events that are on their way to the broker stay. False when there is no other.
bool Spool::give_up_oldest(Reason reason) {
  uint64_t sequence, size;
  {
    Query query(oldest_, {static_cast<int64_t>(handed_out_)});
    if (!query.step()) return false;
    sequence = query.count(0);
    size = weight(query.count(4), query.count(5));
  }
  Query(remove_, {static_cast<int64_t>(sequence)}).step();
  bytes_ -= std::min(bytes_, size);
  --count_;
  lose(sequence, sequence, 1, reason);
  while (!ahead_.empty() && ahead_.front().sequence <= sequence) ahead_.pop_front();
  return true;
}

// The disk is full: gives up the oldest, for what has come to fit in the space that frees. The
// spool stays that small for a while.
bool Spool::shrink() {
  try {
    Query(begin_, {}).step();
    const uint64_t room = std::max(2 * tail_bytes_, kLeastRoom);
    const uint64_t most = bytes_ - std::min(bytes_, room);
    bool some = false;
    while (bytes_ > most && give_up_oldest(Reason::kDisk)) some = true;
    limit_ = std::max(bytes_ + tail_bytes_, kLeastRoom);
    limited_at_ms_ = now_.boot_ms;
    Query(keep_state_, {static_cast<int64_t>(next_sequence_), static_cast<int64_t>(given_up_)})
        .step();
    Query(commit_, {}).step();
    return some;
  } catch (const std::exception &) {
    try {
      if (sqlite3_get_autocommit(db_.get()) == 0) Query(roll_back_, {}).step();
      load();
    } catch (const std::exception &) {
      db_.reset();
    }
    return false;
  }
}

void Spool::lose(uint64_t first, uint64_t last, uint64_t count, Reason reason) {
  given_up_ += count;
  bool extend = false;
  int64_t known_first = 0;
  {
    Query query(last_loss_, {static_cast<int64_t>(first)});
    if (query.step()) {
      known_first = query.number(0);
      const int64_t known_last = query.number(1);
      // One that has been handed out stays as it is, and so does the order of what is sent.
      extend = query.number(2) == static_cast<int64_t>(reason) &&
               !handed_losses_.contains(static_cast<uint64_t>(known_first)) &&
               known_last < static_cast<int64_t>(first) &&
               !Query(between_, {known_last, static_cast<int64_t>(first)}).step();
    }
  }
  if (extend) {
    Query(extend_loss_, {static_cast<int64_t>(last), static_cast<int64_t>(count), known_first})
        .step();
  } else {
    Query(insert_loss_, {static_cast<int64_t>(first), static_cast<int64_t>(last),
                         static_cast<int64_t>(count), static_cast<int64_t>(reason)})
        .step();
  }
}

void Spool::insert(const Event &event) {
  const uint64_t sequence = next_sequence_++;
  const uint64_t size = weight(event);
  if (size > limit_) {
    lose(sequence, sequence, 1, Reason::kFull);
    return;
  }
  make_room(size);
  Query query(insert_, {static_cast<int64_t>(sequence), boot_id_, now_.boot_ms, event.wall_ms,
                        event.qos, event.retain ? 1 : 0});
  query.bind_text(7, event.topic);
  query.bind_blob(8, event.payload);
  query.step();
  bytes_ += size;
  ++count_;
}

// The memory that waits for a disk is bounded, too.
void Spool::bound_tail() {
  while (tail_bytes_ > kTailLimit && !tail_.empty()) {
    tail_bytes_ -= weight(tail_.front());
    tail_.pop_front();
    ++unwritten_;
  }
}

// ---- Reading ----

void Spool::read_ahead() {
  const uint64_t from = ahead_.empty() ? handed_out_ : ahead_.back().sequence;
  Query query(read_, {static_cast<int64_t>(from), static_cast<int64_t>(kReadAhead)});
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

std::optional<Loss> Spool::next_loss() {
  Query query(read_loss_, {});
  while (query.step()) {
    if (handed_losses_.contains(query.count(0))) continue;
    return Loss{query.count(0), query.count(1), query.count(2),
                static_cast<Reason>(query.number(3))};
  }
  return std::nullopt;
}

std::optional<Item> Spool::next() {
  if (!db_) return std::nullopt;
  try {
    if (ahead_.empty()) read_ahead();
    const std::optional<Loss> loss = given_up_ == 0 ? std::nullopt : next_loss();
    if (loss && (ahead_.empty() || loss->first < ahead_.front().sequence)) {
      handed_losses_.insert(loss->first);
      return *loss;
    }
    if (ahead_.empty()) return std::nullopt;
    Event event = std::move(ahead_.front());
    ahead_.pop_front();
    handed_out_ = event.sequence;
    return event;
  } catch (const std::exception &error) {
    failed(error);
    return std::nullopt;
  }
}

void Spool::acknowledge(uint64_t sequence) {
  if (handed_losses_.contains(sequence)) {
    acknowledged_losses_.push_back(sequence);
  } else {
    acknowledged_.push_back(sequence);
  }
}

void Spool::refuse(uint64_t sequence) {
  if (handed_losses_.contains(sequence)) {
    acknowledged_losses_.push_back(sequence);  // nobody can be told
  } else {
    refused_.push_back(sequence);
  }
}

void Spool::rewind() {
  handed_out_ = 0;
  handed_losses_.clear();
  ahead_.clear();
}

}  // namespace msgbridge
