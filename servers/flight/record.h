// What the flight recorder keeps: the records and their file. docs/flight-file.md describes the
// format for those who read it without this code.
//
// The file is a page of facts and then a ring. Positions count the bytes ever written to the ring;
// the record at position p begins at offset p modulo the ring's size and is never split. The writer
// alone changes the file, in this order for each record: it moves `tail` past the records that it
// is about to overwrite, writes the new one, and moves `head` past it. So a reader that copies a
// record and then finds `tail` still at or before it has an intact copy, and a writer that is
// killed leaves a file in which everything from `tail` to `head` is whole.
//
// All numbers are little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace flight {

inline constexpr const char *kPath = "/var/run/msgsvr.flight";

enum class Kind : uint8_t {
  kFiller = 0,     // unused bytes up to the end of the ring; has no number
  kClock = 1,      // `about`: the wall clock, ns since 1970, at `time_ns`
  kConnected = 2,  // `from`: the client; `a`: its process, `b`: its user; text: program or address
  kNamed = 3,      // `from`; text: its name from now on
  kEnded = 4,      // `from`; `a`: messages for it that were lost; text: the reason, if any
  kAccepted = 5,   // a whole header arrived: `from` for `to`; `a`: length of the body; header, body
  kDelivered = 6,  // `about`: the accepted record; written to `to`; `a`: type, `b`: sequence number
  kLost = 7,       // `about`: the accepted record; not delivered to `to`; `a`, `b` the same
  kBacklog = 8,    // the queue of `to` is more than half full; `a`: bytes in it, `b`: its limit
  kRelieved = 9,   // the queue of `to` is empty again; `a`: messages lost meanwhile
  kDescriptor = 10,   // `from` passed a descriptor to `to`; `about`: the message that announced it
  kHttpRequest = 11,  // `a`: method, `b`: length of the body; text: path
  kHttpAnswer = 12,   // `about`: the request's record; `a`: status, `b`: length of the body
};
inline constexpr uint8_t kLastKind = 12;

// Why a message or a descriptor was lost or refused.
enum class Loss : uint8_t {
  kNone = 0,
  kNoSuchName = 1,    // nobody has the receiver's name
  kQueueFull = 2,     // no room in the receiver's queue
  kReceiverGone = 3,  // the receiver left before it got it
  kCutShort = 4,      // it stopped in the middle; the receiver got zeros for the rest, or nothing
  kNotServed = 5,     // the server does not serve it
  kMalformed = 6,     // the header is malformed; its client was ended
  kNotPermitted = 7,  // a rule or a quota forbids it
  kDescriptor = 8,    // a descriptor that could not be passed on
};
inline constexpr uint8_t kLastLoss = 8;

inline constexpr size_t kHeaderSize = 40;  // of a message, in the server's byte order

// `from` and `to` are the server's numbers of its clients; 0 is the server itself, or nobody.
struct alignas(8) Record {
  uint32_t size = 0;  // of the whole record, a multiple of 8
  uint8_t kind = 0;
  uint8_t loss = 0;
  uint16_t kept = 0;     // bytes of body or text after the record (and the message's header)
  uint64_t number = 0;   // 1, 2, 3 … without a gap; 0 in a filler
  uint64_t time_ns = 0;  // CLOCK_MONOTONIC
  uint32_t from = 0;
  uint32_t to = 0;
  uint64_t about = 0;
  uint32_t a = 0;
  uint32_t b = 0;
};
static_assert(sizeof(Record) == 48);

// The first page of the file.
struct FileHead {
  char magic[8];         // kMagic
  uint32_t version;      // kVersion
  uint32_t ring_offset;  // kRingOffset
  uint64_t ring_size;    // a power of two
  uint64_t wall_ns;      // the two clocks when the server started
  uint64_t monotonic_ns;
  uint32_t pid;         // of the server
  uint32_t body_limit;  // bytes kept of each body
  uint64_t head;        // after the newest record
  uint64_t tail;        // the oldest record
};
static_assert(sizeof(FileHead) == 64);

inline constexpr char kMagic[8] = {'M', 'S', 'G', 'F', 'L', 'I', 'T', '\n'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kRingOffset = 4096;
inline constexpr uint64_t kLeastRing = 65536;
inline constexpr uint64_t kMostRing = uint64_t{1} << 30;
// A record is at most this long, so that a small ring still holds many.
inline constexpr uint32_t kMostKept = 8192;
inline constexpr uint32_t kMostRecord = sizeof(Record) + kHeaderSize + kMostKept;

// To and from the file's byte order.
template <typename T>
constexpr T little(T value) {
  if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1) {
    T swapped = 0;
    for (size_t i = 0; i < sizeof(T); ++i) {
      swapped = static_cast<T>((swapped << 8) | (value & 0xff));
      value = static_cast<T>(value >> 8);
    }
    return swapped;
  }
  return value;
}
Record little(Record record);

std::string_view kind_name(Kind kind);
// "queue full"; empty for kNone.
std::string_view loss_text(Loss loss);

}  // namespace flight
