#include "traffic/pcapng.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "common/printable.h"
#include "traffic/mask.h"

namespace traffic {
namespace {

using flight::little;

constexpr uint32_t kSectionHeader = 0x0a0d0d0a;
constexpr uint32_t kInterface = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;

constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kComment = 1;
constexpr uint16_t kUserApplication = 4;
constexpr uint16_t kInterfaceName = 2;
constexpr uint16_t kInterfaceDescription = 3;
constexpr uint16_t kTimeResolution = 9;
constexpr char kNanoseconds = 9;

// An option's length is a 16-bit number, but nobody reads that much in a comment.
constexpr size_t kMostComment = 4096;

constexpr size_t kLabelSize = 16;
constexpr uint16_t kFlagMasked = 1;
constexpr uint16_t kFlagHeader = 2;

template <typename T>
void put(std::string *bytes, T value) {
  value = little(value);
  bytes->append(reinterpret_cast<const char *>(&value), sizeof value);
}

void pad(std::string *bytes) {
  bytes->resize((bytes->size() + 3) / 4 * 4);
}

void put_option(std::string *bytes, uint16_t code, std::string_view value) {
  put(bytes, code);
  put(bytes, static_cast<uint16_t>(value.size()));
  *bytes += value;
  pad(bytes);
}

std::string block(uint32_t type, std::string content) {
  pad(&content);
  const uint32_t size = static_cast<uint32_t>(content.size() + 12);
  std::string bytes;
  bytes.reserve(size);
  put(&bytes, type);
  put(&bytes, size);
  bytes += content;
  put(&bytes, size);
  return bytes;
}

void put_label(std::string *bytes, std::string_view label) {
  std::string field(label.substr(0, kLabelSize - 1));
  field.resize(kLabelSize);
  *bytes += field;
}

template <typename T>
T get(std::string_view bytes, size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return little(value);
}

void reverse_header(ORP_MSG_HEADER_ST *header) {
  for (uint32_t *word :
       {&header->ulMsgType, &header->ulSeqNum, &header->ulMsgData, &header->ulDataLen}) {
    *word = little(*word);
  }
}

// "Clients: 1 panel, 2 station", as many as fit.
std::string clients_text(const Model &model) {
  std::string text;
  for (const auto &[id, client] : model.clients()) {
    if (id == 0 || client.ended || client.name.empty()) continue;
    const std::string one = fmt::format("{} {}", id, servers::printable(client.name));
    if (text.size() + one.size() + 2 > kMostComment) break;
    text += (text.empty() ? "Clients: " : ", ") + one;
  }
  return text;
}

}  // namespace

std::string packet_of(const Event &event, const Model &model, Masking masking) {
  const bool masked = masking != Masking::kNone;
  const Message *message = event.message;
  flight::Record record = event.record;
  std::string kept = event.text;
  if (message != nullptr && event.kind() == flight::Kind::kAccepted) kept = message->body;
  if (masking == Masking::kMask && message != nullptr) {
    mask_body(kept, message->length > kept.size());
  } else if (masking == Masking::kMask && !kept.empty()) {
    kept = traffic::masked(kept);
  }
  record.kept = static_cast<uint16_t>(kept.size());

  std::string bytes;
  put(&bytes, uint16_t{1});
  put(&bytes,
      static_cast<uint16_t>((masked ? kFlagMasked : 0) | (message != nullptr ? kFlagHeader : 0)));
  put(&bytes, uint32_t{0});
  put_label(&bytes, model.label(record.from));
  put_label(&bytes, model.label(record.to));
  put(&bytes, message == nullptr ? uint64_t{0} : message->answers);
  record = little(record);
  bytes.append(reinterpret_cast<const char *>(&record), sizeof record);
  if (message != nullptr) {
    ORP_MSG_HEADER_ST header = message->header;
    header.ulMsgType |= message->board << 29;
    if (message->body_in_file) header.ulMsgType |= ORP_MSG_TYPE_BODY_IN_FILE;
    reverse_header(&header);
    bytes.append(reinterpret_cast<const char *>(&header), sizeof header);
  }
  return bytes + kept;
}

PcapngWriter::PcapngWriter(Sink sink, std::string_view application, std::string_view interface)
    : sink_(std::move(sink)), application_(application), interface_(interface) {}

void PcapngWriter::begin_section(std::string_view server, const Model &model) {
  std::string section;
  put(&section, kByteOrderMagic);
  put(&section, uint16_t{1});
  put(&section, uint16_t{0});
  put(&section, ~uint64_t{0});  // the section's length is not known
  put_option(&section, kUserApplication, application_);
  put_option(&section, kOptionEnd, {});

  std::string description;
  put(&description, kLinkType);
  put(&description, uint16_t{0});
  put(&description, uint32_t{0});  // no limit
  if (const std::string clients = clients_text(model); !clients.empty()) {
    put_option(&description, kComment, clients);
  }
  put_option(&description, kInterfaceName, interface_);
  put_option(&description, kInterfaceDescription, server);
  put_option(&description, kTimeResolution, {&kNanoseconds, 1});
  put_option(&description, kOptionEnd, {});
  sink_(block(kSectionHeader, section) + block(kInterface, description));
}

void PcapngWriter::add(const Event &event, const Model &model, Masking masking,
                       std::string_view comment) {
  const std::string packet = packet_of(event, model, masking);
  std::string content;
  put(&content, uint32_t{0});  // the interface
  put(&content, static_cast<uint32_t>(event.wall_ns >> 32));
  put(&content, static_cast<uint32_t>(event.wall_ns));
  put(&content, static_cast<uint32_t>(packet.size()));
  put(&content, static_cast<uint32_t>(packet.size()));
  content += packet;
  if (!comment.empty()) {
    pad(&content);
    put_option(&content, kComment, comment.substr(0, kMostComment));
    put_option(&content, kOptionEnd, {});
  }
  sink_(block(kEnhancedPacket, std::move(content)));
}

std::string name_in_label(std::string_view label) {
  const bool may_be_cut = label.size() == kLabelSize - 1;
  if (label.ends_with(']') || may_be_cut) label = label.substr(0, label.rfind('['));
  return std::string(label);
}

flight::Entry Packet::entry() const {
  flight::Entry entry;
  entry.record = record;
  entry.kept = kept;
  if (entry.kind() == flight::Kind::kAccepted) entry.header = recorded_header;
  return entry;
}

std::optional<Packet> PcapngReader::next() {
  constexpr size_t kBlockEnds = 12, kPacketBlockHead = 20;
  while (!rest_.empty()) {
    if (rest_.size() < kBlockEnds) throw std::runtime_error("the capture ends within a block");
    const auto type = get<uint32_t>(rest_, 0);
    const auto size = get<uint32_t>(rest_, 4);
    if (sections_ == 0 || type == kSectionHeader) {
      if (type != kSectionHeader || rest_.size() < 28 ||
          get<uint32_t>(rest_, 8) != kByteOrderMagic) {
        throw std::runtime_error("this is no pcapng capture in little-endian order");
      }
      ++sections_;
      interfaces_ = 0;
    }
    if (size < kBlockEnds || size % 4 != 0) throw std::runtime_error("a block's size cannot be");
    if (size > rest_.size()) throw std::runtime_error("the capture ends within a block");
    const std::string_view content = rest_.substr(8, size - kBlockEnds);
    rest_.remove_prefix(size);

    if (type == kInterface) {
      if (content.size() < 8 || get<uint16_t>(content, 0) != kLinkType) {
        throw std::runtime_error("the capture is not one of this message bus");
      }
      ++interfaces_;
    }
    if (type != kEnhancedPacket) continue;
    if (content.size() < kPacketBlockHead || get<uint32_t>(content, 0) >= interfaces_) {
      throw std::runtime_error("a packet belongs to no interface");
    }
    const auto captured = get<uint32_t>(content, 12);
    if (captured > content.size() - kPacketBlockHead || captured < kPacketHead) {
      throw std::runtime_error("a packet's size cannot be");
    }
    const std::string_view bytes = content.substr(kPacketBlockHead, captured);
    if (get<uint16_t>(bytes, 0) != 1) throw std::runtime_error("a packet is of another version");

    Packet packet;
    packet.section = sections_;
    packet.wall_ns = uint64_t{get<uint32_t>(content, 4)} << 32 | get<uint32_t>(content, 8);
    const auto flags = get<uint16_t>(bytes, 2);
    packet.masked = (flags & kFlagMasked) != 0;
    const auto label = [bytes](size_t at) {
      const std::string_view field = bytes.substr(at, kLabelSize);
      return std::string(field.substr(0, field.find('\0')));
    };
    packet.from = label(8);
    packet.to = label(24);
    packet.answers = get<uint64_t>(bytes, 40);
    std::memcpy(static_cast<void *>(&packet.record), bytes.data() + 48, sizeof packet.record);
    packet.record = little(packet.record);
    size_t at = kPacketHead;
    if ((flags & kFlagHeader) != 0) {
      if (bytes.size() - at < sizeof(ORP_MSG_HEADER_ST)) {
        throw std::runtime_error("a packet's size cannot be");
      }
      packet.header.emplace();
      std::memcpy(&*packet.header, bytes.data() + at, sizeof *packet.header);
      std::memcpy(packet.recorded_header.data(), bytes.data() + at, sizeof *packet.header);
      reverse_header(&*packet.header);
      at += sizeof *packet.header;
    }
    packet.kept = bytes.substr(at, packet.record.kept);
    const bool accepted = packet.record.kind == static_cast<uint8_t>(flight::Kind::kAccepted);
    if (packet.record.kind == 0 || packet.record.kind > flight::kLastKind ||
        packet.record.loss > flight::kLastLoss || (accepted && !packet.header)) {
      throw std::runtime_error("a packet is no record of this bus");
    }
    return packet;
  }
  return std::nullopt;
}

}  // namespace traffic
