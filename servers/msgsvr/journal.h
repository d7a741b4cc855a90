// What happens to messages and connections. Code that does something reports it here once; counters
// and flight recorder both come from that report, so they agree.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>

#include "common/output_queue.h"
#include "flight/recorder.h"
#include "msgsvr/wire.h"

namespace msgsvr {

using flight::Loss;
using servers::OutputQueue;

struct Client;

struct Statistics {
  uint64_t frames_in = 0;  // messages received, for any receiver
  uint64_t bytes_in = 0;
  uint64_t frames_out = 0;  // of clients that are gone; the living count their own
  uint64_t bytes_out = 0;
  std::array<uint64_t, flight::kLastLoss + 1> lost{};
  uint64_t told = 0;    // notices to senders of what was lost
  uint64_t untold = 0;  // lost where nobody is told: events, and the server's own messages
  uint64_t descriptors_passed = 0;
  uint64_t over_limit = 0;  // requests for more than a client may have
  uint64_t failures = 0;  // clients and requests that were given up for want of memory and the like
  uint64_t connections = 0;
  uint64_t refused = 0;  // by the policy, whatever was asked
  uint64_t foreign = 0;  // messages under another name than their sender's

  uint64_t of(Loss loss) const { return lost[static_cast<size_t>(loss)]; }
};

// Sender or receiver of a message; it may have left.
struct Party {
  uint32_t id = 0;  // 0: the server, or nobody
  AppName name;

  bool operator==(const Party &) const = default;
};
Party party_of(const Client &client);
inline Party the_server() {
  return {0, AppName(kServerName)};
}

// Who lost messages to whom, and how many.
struct Culprit {
  Loss loss = Loss::kNone;  // none: a free place
  AppName from;
  AppName to;
  uint64_t count = 0;
  std::time_t last_at = 0;
  uint64_t last_loss = 0;  // the running number of its last loss; no two losses have the same
};

class Journal {
 public:
  // Without room, a new pair replaces the one with the fewest losses.
  static constexpr size_t kMostCulprits = 64;
  using Culprits = std::array<Culprit, kMostCulprits>;

  // What happens from now on is recorded, too.
  void record(flight::Recorder recorder) { recorder_ = std::move(recorder); }
  const flight::Recorder &recorder() const { return recorder_; }
  const Statistics &statistics() const { return statistics_; }
  const Culprits &culprits() const { return culprits_; }

  // A system call has just brought or taken bytes: this is the time of the reports that follow.
  void tick() noexcept {
    recorder_.tick();
    stale_ = false;
  }
  // The reports that follow belong to another turn of the loop.
  void turn_ends() noexcept { stale_ = true; }

  void connected(const Client &client) noexcept;
  void named(const Client &client) noexcept;
  void ended(const Client &client, std::string_view why) noexcept;

  void received(Client &from, size_t bytes) noexcept;
  // A header has arrived for the client `to` (0: the server, or nobody), with as much of its body
  // as `body` holds. Returns the number that later news of this message refer to.
  uint64_t accepted(Client &from, uint32_t to, const Header &header,
                    std::span<const char> body) noexcept;
  // The same of a message that the server makes.
  uint64_t made(uint32_t to, const Header &header, std::span<const char> body) noexcept;
  void delivered(const Client &to, const OutputQueue::Tag &tag) noexcept;
  void descriptor_passed(const Client &to, const OutputQueue::Tag &tag) noexcept;
  // `to` is null where no client would have got it.
  void lost(Loss loss, const OutputQueue::Tag &tag, const Party &from, Client *to,
            const AppName &to_name) noexcept;
  // Counts whether the sender of a lost message is told.
  void told(bool sent) noexcept { ++(sent ? statistics_.told : statistics_.untold); }
  // Such a notice is lost itself: of that message, too, nobody is told.
  void notice_lost() noexcept {
    --statistics_.told;
    ++statistics_.untold;
  }

  void half_full(const Client &reader) noexcept;
  void empty_again(const Client &reader) noexcept;

  void over_limit() noexcept { ++statistics_.over_limit; }
  void failure() noexcept { ++statistics_.failures; }
  void refused() noexcept { ++statistics_.refused; }
  // Requests that HTTP's own thread refuses: by their Host, their origin or their token.
  std::atomic<uint64_t> &http_refusals() { return http_refusals_; }
  uint64_t http_refused() const { return http_refusals_; }
  void foreign_sender() noexcept { ++statistics_.foreign; }
  // A registration whose answer refuses it: the recorder shows it as lost.
  void refused_name(const Client &from, uint64_t record, uint32_t sequence) noexcept;

  // Returns the number for http_answered(). `method` as in restful requests.
  uint64_t http_requested(uint32_t method, size_t body, std::string_view path) noexcept;
  void http_answered(uint64_t request, unsigned status, size_t body) noexcept;

 private:
  void freshen() noexcept {
    if (stale_) tick();
  }
  void note_culprit(Loss loss, const AppName &from, const AppName &to) noexcept;

  flight::Recorder recorder_;
  Statistics statistics_;
  std::atomic<uint64_t> http_refusals_ = 0;
  Culprits culprits_{};
  uint64_t losses_ = 0;
  bool stale_ = true;
};

}  // namespace msgsvr
