#include "msgsvr/journal.h"

#include <algorithm>
#include <array>
#include <utility>

#include "msgsvr/client.h"
#include "msgsvr/program.h"

namespace msgsvr {
namespace {

using flight::Kind;

constexpr size_t kLongestProgram = 256;

}  // namespace

Party party_of(const Client &client) {
  return {client.id, client.name};
}

void Journal::connected(const Client &client) noexcept {
  ++statistics_.connections;
  if (!recorder_.on()) return;
  tick();
  flight::Record facts;
  facts.from = client.id;
  facts.a = static_cast<uint32_t>(client.peer.pid);
  facts.b = client.peer.uid;
  if (!client.address.empty()) {
    recorder_.note(Kind::kConnected, facts, client.address);
    return;
  }
  std::array<char, kLongestProgram> program;
  recorder_.note(Kind::kConnected, facts, program_of(client.peer.pid, program));
}

void Journal::named(const Client &client) noexcept {
  freshen();
  flight::Record facts;
  facts.from = client.id;
  recorder_.note(Kind::kNamed, facts, client.name.text());
}

void Journal::ended(const Client &client, std::string_view why) noexcept {
  statistics_.frames_out += client.out.frames_written();
  statistics_.bytes_out += client.out.bytes_written();
  freshen();
  flight::Record facts;
  facts.from = client.id;
  facts.a = static_cast<uint32_t>(client.lost);
  if (why.empty() && !client.in.between_frames()) why = "it left in the middle of a message";
  recorder_.note(Kind::kEnded, facts, why);
}

void Journal::received(Client &from, size_t bytes) noexcept {
  tick();
  statistics_.bytes_in += bytes;
  from.bytes_in += bytes;
}

uint64_t Journal::accepted(Client &from, uint32_t to, const Header &header,
                           std::span<const char> body) noexcept {
  ++statistics_.frames_in;
  ++from.frames_in;
  return recorder_.accepted(from.id, to, &header, header.ulDataLen, body);
}

uint64_t Journal::made(uint32_t to, const Header &header, std::span<const char> body) noexcept {
  freshen();
  return recorder_.accepted(0, to, &header, header.ulDataLen, body);
}

void Journal::delivered(const Client &to, const OutputQueue::Tag &tag) noexcept {
  recorder_.delivered(tag.record, tag.origin, to.id, tag.type, tag.sequence);
}

void Journal::descriptor_passed(const Client &to, const OutputQueue::Tag &tag) noexcept {
  ++statistics_.descriptors_passed;
  flight::Record facts;
  facts.from = tag.origin;
  facts.to = to.id;
  facts.about = tag.record;
  facts.a = tag.type;
  facts.b = tag.sequence;
  recorder_.note(Kind::kDescriptor, facts);
}

void Journal::lost(Loss loss, const OutputQueue::Tag &tag, const Party &from, Client *to,
                   const AppName &to_name) noexcept {
  freshen();
  ++statistics_.lost[static_cast<size_t>(loss)];
  if (to != nullptr) ++to->lost;
  note_culprit(loss, from.name, to_name);
  recorder_.lost(loss, tag.record, tag.origin, to == nullptr ? 0 : to->id, tag.type, tag.sequence);
}

void Journal::refused_name(const Client &from, uint64_t record, uint32_t sequence) noexcept {
  freshen();
  ++statistics_.lost[static_cast<size_t>(Loss::kNotPermitted)];
  recorder_.lost(Loss::kNotPermitted, record, from.id, 0, ORP_MSG_REGISTER, sequence);
}

void Journal::half_full(const Client &reader) noexcept {
  freshen();
  flight::Record facts;
  facts.to = reader.id;
  facts.a = static_cast<uint32_t>(reader.out.weight());
  facts.b = static_cast<uint32_t>(reader.out.limit());
  recorder_.note(Kind::kBacklog, facts);
}

void Journal::empty_again(const Client &reader) noexcept {
  freshen();
  flight::Record facts;
  facts.to = reader.id;
  facts.a = static_cast<uint32_t>(reader.overflowed());
  recorder_.note(Kind::kRelieved, facts);
}

uint64_t Journal::http_requested(uint32_t method, size_t body, std::string_view path) noexcept {
  tick();
  flight::Record facts;
  facts.a = method;
  facts.b = static_cast<uint32_t>(body);
  return recorder_.note(Kind::kHttpRequest, facts, path);
}

void Journal::http_answered(uint64_t request, unsigned status, size_t body) noexcept {
  freshen();
  flight::Record facts;
  facts.about = request;
  facts.a = status;
  facts.b = static_cast<uint32_t>(body);
  recorder_.note(Kind::kHttpAnswer, facts);
}

void Journal::note_culprit(Loss loss, const AppName &from, const AppName &to) noexcept {
  const auto same = [&](const Culprit &each) {
    return each.loss == loss && each.from == from && each.to == to;
  };
  auto place = std::ranges::find_if(culprits_, same);
  if (place == culprits_.end()) {
    place = std::ranges::min_element(
        culprits_, {}, [](const Culprit &each) { return std::pair(each.count, each.last_loss); });
    *place = {loss, from, to, 0, 0, 0};
  }
  ++place->count;
  place->last_loss = ++losses_;
  place->last_at = std::time(nullptr);
}

}  // namespace msgsvr
