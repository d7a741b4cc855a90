// Captures that network analysers read: the pcapng format (draft-ietf-opsawg-pcapng). Each message
// server has a section, because the numbers of clients and records begin anew with it. A section
// has one interface of the link type LINKTYPE_USER0, whose comment names the clients that were
// known when the section began.
//
// A packet is one record of the flight recorder, with everything that a reader needs to understand
// it alone. Little-endian:
//
//    0   2  version: 1
//    2   2  flags: 1 the body is masked, 2 the message's header is there
//    4   4  0
//    8  16  sender's label, zero-filled
//   24  16  receiver's label
//   40   8  number of the record of the request that this message answers; 0: none
//   48  48  the record (docs/flight-file.md); its kept length is that of the body below
//   96  40  the message's header, if flag 2 is set
//        n  the kept bytes of the body, or the text
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "traffic/model.h"

namespace traffic {

inline constexpr uint16_t kLinkType = 147;  // LINKTYPE_USER0
inline constexpr size_t kPacketHead = 96;

enum class Masking {
  kNone,  // personal data is shown
  kMask,  // the writer masks it
  kDone,  // it is masked already
};

class PcapngWriter {
 public:
  using Sink = std::function<void(std::string_view bytes)>;

  // `sink` is called with whole blocks.
  PcapngWriter(Sink sink, std::string_view application, std::string_view interface);

  // The packets that follow are of the server that `server` describes, with the clients of the
  // model. Call it first, and again for each other server.
  void begin_section(std::string_view server, const Model &model);

  // Writes the packet of one event at its wall time. Readers without a dissector see only
  // `comment`, which must be masked already.
  void add(const Event &event, const Model &model, Masking masking, std::string_view comment = {});

 private:
  Sink sink_;
  std::string application_;
  std::string interface_;
};

// The packet's bytes alone.
std::string packet_of(const Event &event, const Model &model, Masking masking);

// The client's name in a label: "station" for "station[123]". A label cuts long names, and is "#"
// and a number for a client without a name.
std::string name_in_label(std::string_view label);

// Reads such a capture back.
struct Packet {
  uint32_t section = 0;  // 1, 2, 3 ...: numbers of clients and records are unique only within it
  uint64_t wall_ns = 0;
  flight::Record record;
  std::string from;
  std::string to;
  uint64_t answers = 0;
  bool masked = false;
  std::optional<ORP_MSG_HEADER_ST> header;  // in this machine's byte order
  std::string kept;
  std::array<char, flight::kHeaderSize> recorded_header{};  // in the recorder's byte order

  // The record in the form that a model takes. Its views are valid as long as the packet.
  flight::Entry entry() const;
};

class PcapngReader {
 public:
  explicit PcapngReader(std::string_view bytes) : rest_(bytes) {}
  // The next packet of our interface; none at the end. Throws std::runtime_error for any other
  // file, for a packet that is no record, and for a file that ends within a block.
  std::optional<Packet> next();

 private:
  std::string_view rest_;
  uint32_t sections_ = 0;
  uint32_t interfaces_ = 0;  // of this section
};

}  // namespace traffic
