// Captures that network analysers read: the pcapng format (draft-ietf-opsawg-pcapng), with one
// interface of the link type LINKTYPE_USER0.
//
// A packet is one record of the flight recorder with what a reader needs to understand it alone,
// little-endian:
//
//    0   2  version: 1
//    2   2  flags: 1 the body is masked, 2 a message's header is there
//    4   4  0
//    8  16  sender's label, zero-filled
//   24  16  receiver's label
//   40   8  number of the record of the request that this message answers; 0: none
//   48  48  the record (docs/flight-file.md); its kept length is that of the body below
//   96  40  the message's header, if flag 2 is set
//        n  the kept bytes of the body, or the text
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "traffic/model.h"

namespace traffic {

inline constexpr uint16_t kLinkType = 147;  // LINKTYPE_USER0
inline constexpr size_t kPacketHead = 96;

class PcapngWriter {
 public:
  using Sink = std::function<void(std::string_view bytes)>;

  // Writes what every file begins with. `sink` gets whole blocks.
  PcapngWriter(Sink sink, std::string_view application, std::string_view interface);

  // The packet of one event at its wall time; `masked`: personal data is taken out first. `comment`
  // is what readers without a dissector get to see, and must be masked already.
  void add(const Event &event, const Model &model, bool masked, std::string_view comment = {});

 private:
  Sink sink_;
};

// The packet's bytes alone.
std::string packet_of(const Event &event, const Model &model, bool masked);

// Reads such a capture back.
struct Packet {
  uint64_t wall_ns = 0;
  flight::Record record;
  std::string from;
  std::string to;
  uint64_t answers = 0;
  bool masked = false;
  std::optional<ORP_MSG_HEADER_ST> header;  // in this machine's byte order
  std::string kept;
};

class PcapngReader {
 public:
  explicit PcapngReader(std::string_view bytes) : rest_(bytes) {}
  // The next packet of the interface above; none at the end. Throws std::runtime_error for what is
  // no such file, and for one that ends within a block.
  std::optional<Packet> next();

 private:
  std::string_view rest_;
  bool begun_ = false;
  uint32_t interfaces_ = 0;
};

}  // namespace traffic
