// A flight recorder that is filled like the message server's, for tests of its readers.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "flight/reader.h"
#include "flight/recorder.h"
#include "msgapi/dmmsg.h"
#include "msgapi/msg.h"

namespace test {

constexpr uint32_t kPanel = 1, kStation = 2, kThird = 3;
constexpr uint32_t kAsk = 0x1234;

// Writes what a server writes.
class RecordedBus {
 public:
  RecordedBus(const std::string &path, uint64_t ring_size, uint32_t body_limit)
      : recorder_(path, ring_size, body_limit) {}

  void connect(uint32_t id, const std::string &name) {
    flight::Record facts;
    facts.from = id;
    facts.a = 100 + id;
    recorder_.tick();
    recorder_.note(flight::Kind::kConnected, facts, "/usr/bin/program");
    recorder_.note(flight::Kind::kNamed, facts, name);
    names_[id] = name;
  }

  // The record's number.
  uint64_t message(uint32_t from, uint32_t to, uint32_t type, uint32_t sequence,
                   const std::string &body = "", uint32_t data = 0) {
    ORP_MSG_HEADER_ST header{};
    header.ulMsgType = type;
    header.ulSeqNum = sequence;
    header.ulMsgData = data;
    header.ulDataLen = static_cast<uint32_t>(body.size());
    std::strncpy(header.aucSendApp, names_[from].c_str(), sizeof header.aucSendApp - 1);
    std::strncpy(header.aucRecvApp, names_[to].c_str(), sizeof header.aucRecvApp - 1);
    recorder_.tick();
    return recorder_.accepted(from, to, &header, static_cast<uint32_t>(body.size()), body);
  }

  void deliver(uint64_t number, uint32_t from, uint32_t to, uint32_t type, uint32_t sequence) {
    recorder_.tick();
    recorder_.delivered(number, from, to, type, sequence);
  }

  // A request from the panel that the station answers.
  void exchange(uint32_t sequence, const std::string &question = "", const std::string &answer = "",
                uint32_t data = 0) {
    const uint64_t request = message(kPanel, kStation, kAsk, sequence, question, 3);
    deliver(request, kPanel, kStation, kAsk, sequence);
    const uint64_t reply = message(kStation, kPanel, kAsk, sequence, answer, data);
    deliver(reply, kStation, kPanel, kAsk, sequence);
  }

  flight::Recorder recorder_;

 private:
  std::map<uint32_t, std::string> names_;
};

// A body of the format for data models, with these items.
inline std::string dm_body(const std::vector<std::pair<std::string, std::string>> &items) {
  std::string body(24, '\0');
  const uint32_t magic = ORP_DMMSG_MAGIC;
  std::memcpy(body.data(), &magic, sizeof magic);
  for (const auto &[name, value] : items) {
    const uint32_t words[3] = {0, static_cast<uint32_t>(name.size() + 1),
                               static_cast<uint32_t>(value.size() + 1)};
    body.append(reinterpret_cast<const char *>(words), sizeof words);
    body.append(name.c_str(), name.size() + 1);
    body.append(value.c_str(), value.size() + 1);
  }
  return body;
}

// An accepted message with any number, as in a file that somebody has made up.
class MadeUpMessage {
 public:
  MadeUpMessage() {
    entry_.record.kind = static_cast<uint8_t>(flight::Kind::kAccepted);
    entry_.record.from = kPanel;
    entry_.record.to = kStation;
    entry_.header = {reinterpret_cast<const char *>(&header_), sizeof header_};
  }
  // Another message each time: its sequence number differs.
  const flight::Entry &numbered(uint64_t number) {
    entry_.record.number = number;
    ++header_.ulSeqNum;
    return entry_;
  }
  uint32_t sequence() const { return header_.ulSeqNum; }

 private:
  ORP_MSG_HEADER_ST header_{};
  flight::Entry entry_;
};

// A fixture with two clients, the panel and the station. Tools look for the recorder at its usual
// place.
class RecorderFixture : public testing::Test, protected RecordedBus {
 protected:
  explicit RecorderFixture(const std::string &path = flight::kPath, uint32_t body_limit = 256)
      : RecordedBus(path, flight::kLeastRing, body_limit) {
    connect(kPanel, "panel");
    connect(kStation, "station");
  }
};

}  // namespace test
