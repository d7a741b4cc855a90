// Captures that network analysers read: the pcapng format (draft-ietf-opsawg-pcapng), with a
// section for each message server, because clients' and records' numbers begin anew with it, and in
// it one interface of the link type LINKTYPE_USER0. The interface's comment names the clients that
// were known when the section began.
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
  kMask,  // it is taken out
  kDone,  // it was taken out already
};

class PcapngWriter {
 public:
  using Sink = std::function<void(std::string_view bytes)>;

  // `sink` gets whole blocks.
  PcapngWriter(Sink sink, std::string_view application, std::string_view interface);

  // What follows is of the server that is described, with the clients of the model. To be called
  // first, and again for each other server.
  void begin_section(std::string_view server, const Model &model);

  // The packet of one event at its wall time. `comment` is what readers without a dissector get to
  // see, and must be masked already.
  void add(const Event &event, const Model &model, Masking masking, std::string_view comment = {});

 private:
  Sink sink_;
  std::string application_;
  std::string interface_;
};

// The packet's bytes alone.
std::string packet_of(const Event &event, const Model &model, Masking masking);

// The client's name in a label, which cuts names that are long and tells clients of the same name
// apart: "station" for "station[123]". Where there is no name the label is "#" and a number.
std::string name_in_label(std::string_view label);

// Reads such a capture back.
struct Packet {
  uint32_t section = 0;  // 1, 2, 3 ...: numbers of clients and records hold within it
  uint64_t wall_ns = 0;
  flight::Record record;
  std::string from;
  std::string to;
  uint64_t answers = 0;
  bool masked = false;
  std::optional<ORP_MSG_HEADER_ST> header;  // in this machine's byte order
  std::string kept;
  std::array<char, flight::kHeaderSize> recorded_header{};  // in the recorder's byte order

  // As a model takes it. The views are valid as long as the packet.
  flight::Entry entry() const;
};

class PcapngReader {
 public:
  explicit PcapngReader(std::string_view bytes) : rest_(bytes) {}
  // The next packet of the interface above; none at the end. Throws std::runtime_error for what is
  // no such file, for a packet that is no record, and for a file that ends within a block.
  std::optional<Packet> next();

 private:
  std::string_view rest_;
  uint32_t sections_ = 0;
  uint32_t interfaces_ = 0;  // of this section
};

}  // namespace traffic
