// What is left of the spool when the power fails, or when its process is killed. A disk below the
// database keeps apart what was written since the last sync: when the power fails, some pieces of
// that are lost.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "msgbridge/spool.h"
#include "servers/msgbridge/spool_support.h"
#include "support/soak.h"

namespace {

namespace fs = std::filesystem;

using msgbridge::Event;
using msgbridge::Item;
using msgbridge::Loss;
using msgbridge::Spool;
using msgbridge::SpoolOptions;
using test::g_now;
using test::now;

const std::string kDirectory = "/var/spool_power";
const std::string kSpoolPath = kDirectory + "/spool.db";
// Disks write whole sectors. Of a longer write, some sectors may be there and others not.
constexpr size_t kSector = 512;

// What the disk certainly has of a file, and what has been written to the file since.
struct Image {
  struct Change {
    size_t offset;
    std::string bytes;  // none: the file ends at the offset from now on
  };
  std::string synced;
  std::vector<Change> changes;
};

void apply(const Image::Change &change, std::string *content) {
  const size_t end = change.offset + change.bytes.size();
  if (change.bytes.empty() || content->size() < end) content->resize(end);
  content->replace(change.offset, change.bytes.size(), change.bytes);
}

std::map<std::string, Image> g_images;

// The files' contents if it ends now. Of what was not synced, those pieces are there that `is_kept`
// says.
std::map<std::string, std::string> after_end(const std::function<bool()> &is_kept) {
  std::map<std::string, std::string> files;
  for (const auto &[path, image] : g_images) {
    std::string content = image.synced;
    for (const Image::Change &change : image.changes) {
      if (change.bytes.empty()) {
        if (is_kept()) apply(change, &content);
        continue;
      }
      for (size_t at = 0; at < change.bytes.size();) {
        // To the sector's end on the disk.
        const size_t piece =
            std::min(kSector - (change.offset + at) % kSector, change.bytes.size() - at);
        if (is_kept()) apply({change.offset + at, change.bytes.substr(at, piece)}, &content);
        at += piece;
      }
    }
    files[path] = content;
  }
  return files;
}

// ---- Between the database and the disk ---------------------------------------------------------

sqlite3_vfs *g_disk = nullptr;

struct OpenFile {
  Image *image;
  sqlite3_io_methods own;   // the system's
  sqlite3_io_methods ours;  // the same but for what is below
};
std::map<sqlite3_file *, OpenFile> g_open;

int write_file(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 offset) {
  g_open[file].image->changes.push_back(
      {static_cast<size_t>(offset),
       std::string(static_cast<const char *>(bytes), static_cast<size_t>(size))});
  return g_open[file].own.xWrite(file, bytes, size, offset);
}

int truncate_file(sqlite3_file *file, sqlite3_int64 size) {
  g_open[file].image->changes.push_back({static_cast<size_t>(size), ""});
  return g_open[file].own.xTruncate(file, size);
}

int sync_file(sqlite3_file *file, int /*flags*/) {
  Image *image = g_open[file].image;
  for (const Image::Change &change : image->changes) apply(change, &image->synced);
  image->changes.clear();
  return SQLITE_OK;
}

int open_on_disk(sqlite3_vfs * /*vfs*/, const char *name, sqlite3_file *file, int flags,
                 int *flags_out) {
  const int result = g_disk->xOpen(g_disk, name, file, flags, flags_out);
  if (result != SQLITE_OK) return result;
  OpenFile &opened = g_open[file];
  opened = {&g_images[name == nullptr ? "" : name], *file->pMethods, *file->pMethods};
  // Version 1 has no shared memory: a database that is locked as a whole does not need it.
  opened.ours.iVersion = 1;
  opened.ours.xWrite = write_file;
  opened.ours.xTruncate = truncate_file;
  opened.ours.xSync = sync_file;
  opened.ours.xSectorSize = [](sqlite3_file *) { return static_cast<int>(kSector); };
  opened.ours.xDeviceCharacteristics = [](sqlite3_file *) {
    return SQLITE_IOCAP_POWERSAFE_OVERWRITE;
  };
  file->pMethods = &opened.ours;
  return SQLITE_OK;
}

void put_disk_below_the_database() {
  if (g_disk != nullptr) return;
  g_disk = sqlite3_vfs_find(nullptr);
  static sqlite3_vfs vfs = *g_disk;
  vfs.zName = "failing";
  vfs.xOpen = open_on_disk;
  vfs.xDelete = [](sqlite3_vfs * /*vfs*/, const char *name, int sync) {
    g_images.erase(name);
    return g_disk->xDelete(g_disk, name, sync);
  };
  ASSERT_EQ(SQLITE_OK, sqlite3_vfs_register(&vfs, 1));
}

// ---- What must be left -------------------------------------------------------------------------

SpoolOptions options_with(bool sync) {
  SpoolOptions options = test::spool_options(kSpoolPath, 64 << 10);
  options.sync = sync;
  return options;
}

// The numbers that an item covers.
std::pair<uint64_t, uint64_t> range_of(const Item &item) {
  if (const auto *event = std::get_if<Event>(&item)) return {event->sequence, event->sequence};
  const auto &loss = std::get<Loss>(item);
  return {loss.first, loss.last};
}

// Makes the files that the next start finds.
void start_from(const std::map<std::string, std::string> &files) {
  fs::remove_all(kDirectory);
  fs::create_directories(kDirectory);
  g_images.clear();
  for (const auto &[path, content] : files) {
    std::ofstream(path, std::ios::binary) << content;
    g_images[path].synced = content;
  }
}

enum class End : uint8_t { kPowerFails, kPowerFailsWithoutSync, kKilled };

// It does not matter whether the power fails between two calls of the database or within a commit:
// only the writes that the disk has count, and these are the same.
class SpoolAfterItsEnd : public testing::TestWithParam<End> {
 protected:
  void SetUp() override {
    put_disk_below_the_database();
    start_from({});
  }

  std::mt19937 random_{test::seed()};
};

TEST_P(SpoolAfterItsEnd, HasEverythingThatWasCommitted) {
  const bool sync = GetParam() == End::kPowerFails;
  const bool is_killed = GetParam() == End::kKilled;
  const bool keeps = sync || is_killed;
  uint64_t promised = 0;  // the number up to which events have been committed
  std::set<uint64_t> acknowledged;
  for (uint32_t failure = 0; failure < 40 * test::soak_factor(); ++failure) {
    std::map<std::string, std::string> files;
    {
      Spool spool(options_with(sync), now);
      ASSERT_EQ("", spool.problem()) << failure;
      if (!keeps) promised = spool.last_sequence();
      ASSERT_LE(promised, spool.last_sequence()) << failure;
      promised = spool.last_sequence();

      // Everything that waits, in order, and losses for the rest.
      std::set<uint64_t> found;
      for (uint64_t last = 0; const auto item = spool.next();) {
        const uint64_t before = last;
        const auto range = range_of(*item);
        ASSERT_LT(before, range.first);
        last = range.second;
        for (uint64_t i = range.first; i <= last; ++i) found.insert(i);
        if (const auto *event = std::get_if<Event>(&*item)) {
          ASSERT_THAT(event->payload, testing::StartsWith(std::to_string(last) + " "));
        }
      }
      for (uint64_t i = 1; keeps && i <= promised; ++i) {
        ASSERT_TRUE(found.contains(i) || acknowledged.contains(i)) << i << " after " << failure;
      }

      spool.rewind();
      uint64_t next = spool.last_sequence() + 1;
      const uint32_t steps = 1 + static_cast<uint32_t>(random_() % 30);
      for (uint32_t step = 0; step < steps; ++step) {
        for (uint32_t i = static_cast<uint32_t>(random_() % 4); i > 0; --i) {
          const std::string number = std::to_string(next++);
          spool.append({.boot = g_now.boot,
                        .topic = "t",
                        .payload = number + " " + std::string(random_() % 3000, 'x')});
        }
        if (const auto item = random_() % 2 == 0 ? spool.next() : std::nullopt) {
          const auto [first, last] = range_of(*item);
          spool.acknowledge(first);
          for (uint64_t i = first; i <= last; ++i) acknowledged.insert(i);
        }
        ASSERT_TRUE(spool.commit()) << spool.problem();
        promised = spool.last_sequence();
      }
      files = after_end([&] { return is_killed || random_() % 2 == 0; });
    }
    start_from(files);
  }
  EXPECT_LT(200u, promised);
}

INSTANTIATE_TEST_SUITE_P(, SpoolAfterItsEnd,
                         testing::Values(End::kPowerFails, End::kPowerFailsWithoutSync,
                                         End::kKilled),
                         [](const testing::TestParamInfo<End> &test) {
                           if (test.param == End::kKilled) return "killed";
                           return test.param == End::kPowerFails ? "power" : "power_not_synced";
                         });

}  // namespace
