// The recorded traffic that a command looks at: a flight file, read to its end or followed.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "flight/reader.h"
#include "msgctl/context.h"
#include "traffic/filter.h"
#include "traffic/model.h"

namespace msgctl {

// Options that all commands on recorded traffic have.
struct FlightOptions {
  std::string file = flight::kPath;
  std::vector<std::string> filter;  // its words
  bool no_mask = false;

  std::string filter_text() const;
};

enum class Personal { kShown, kMasked };  // kMasked: the command has --no-mask

void add_flight_options(servers::Command *command, Context *context, FlightOptions *options,
                        Personal personal = Personal::kShown);
void add_filter(servers::Command *command, FlightOptions *options);

// Follows the file of the running server; copies any other file. Throws a Failure that says what is
// wrong with the file.
flight::Reader open_flight(const std::string &path);

class Source {
 public:
  using Take = std::function<void(const traffic::Event &event)>;

  // Throws a Failure that says what is wrong with the file.
  explicit Source(std::string path);

  // Gives `take` the records that were not read yet, but no more than a whole ring: the server may
  // write faster than `take` reads.
  void read(const Take &take);
  // The same up to a damage: the records before it matter most after a crash. Returns what is wrong
  // or "".
  std::string read_to_damage(const Take &take = [](const traffic::Event &) {});
  // Reads from the beginning again, as if for the first time.
  void rewind();
  // The same as read() for ever, or to the end of a file that is not the running server's. Calls
  // `turn` after each round, which takes at least 20 ms. Ends when `turn` returns false, on SIGINT
  // and SIGTERM, and when nobody reads standard output any more. When a new server has replaced the
  // file, its file is read from then on.
  void follow(const Take &take, const std::function<bool()> &turn);

  // Called between events: `count` records were overwritten before they could be read.
  std::function<void(uint64_t count)> on_missed = [](uint64_t) {};
  // Called when a new server has replaced the file; the model has been emptied.
  std::function<void()> on_replaced = [] {};
  uint64_t missed() const { return missed_; }

  const traffic::Model &model() const { return model_; }
  const flight::FileHead &head() const { return reader_.head(); }
  const std::string &path() const { return path_; }
  // Wall clock, ns since 1970, at a time of the server.
  uint64_t wall_ns(uint64_t time_ns) const { return reader_.wall_ns(time_ns); }
  uint64_t last_ns() const { return last_ns_; }
  uint64_t records() const { return reader_.seen(); }
  uint64_t before_first() const { return reader_.before_first(); }

  // More records may come.
  bool follows() const { return reader_.follows(); }
  // The server that writes the file runs.
  bool alive() const;
  // CLOCK_MONOTONIC, or the time of the last record when the server is gone.
  uint64_t now_ns() const;

 private:
  std::string path_;
  flight::Reader reader_;
  traffic::Model model_;
  uint64_t last_ns_ = 0;
  uint64_t reader_missed_ = 0;
  uint64_t missed_ = 0;
};

// The filter of the command line. Times in it refer to now, or to the last record of a file whose
// server is gone. Throws servers::UsageError, which names the column.
traffic::Filter make_filter(const FlightOptions &options, const Context &context);

// Whether the catalogue says that messages of a type are answered.
traffic::Model::Known answered_by(const catalogue::Catalogue &catalogue);

}  // namespace msgctl
