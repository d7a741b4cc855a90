#include "msgapi/notifier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <vector>

#include "base/memory.h"

namespace msgapi {
namespace {

using testing::ElementsAre;

constexpr ORP_WORD kContext = 77;

class NotifierTest : public testing::Test {
 protected:
  NotifierTest() { EXPECT_EQ(ORP_OK, ORP_UTIL_NotifierInitEx(kContext, &notifier_)); }
  ~NotifierTest() override {
    remove_all();
    std::free(notifier_);
  }

  ORP_UTIL_NOTIFIER_ENTRY_ST *add(uint32_t priority, ORP_WORD data) {
    ORP_UTIL_NOTIFIER_ENTRY_ST *entry = nullptr;
    EXPECT_EQ(ORP_OK, ORP_UTIL_NotifierReg(notifier_, call, priority, data, &entry));
    return entry;
  }
  std::vector<ORP_WORD> notify(uint32_t stop = 0, uint32_t expected = 0) {
    called.clear();
    EXPECT_EQ(expected, ORP_UTIL_NotifierDoNotifyExtend(notifier_, stop, nullptr));
    return called;
  }
  void remove_all() {
    while (notifier_->entries != nullptr) ORP_UTIL_NotifierUnReg(notifier_, notifier_->entries);
  }

  static uint32_t call(ORP_WORD context, ORP_WORD data) {
    EXPECT_EQ(kContext, context);
    called.push_back(data);
    if (on_call) on_call(data);
    return results[data];
  }

  ORP_UTIL_NOTIFIER_ST *notifier_ = nullptr;
  static inline std::vector<ORP_WORD> called;
  static inline std::map<ORP_WORD, uint32_t> results;
  static inline std::function<void(ORP_WORD)> on_call;
};

TEST_F(NotifierTest, CallsInOrderOfPriority) {
  const uint32_t priorities[] = {5, 1, 5, 3};
  for (ORP_WORD i = 0; i < 4; ++i) add(priorities[i], i);
  EXPECT_THAT(notify(), ElementsAre(1, 3, 0, 2));

  remove_all();
  for (ORP_WORD i = 0; i < 4; ++i) {
    EXPECT_EQ(ORP_OK, ORP_UTIL_NotifierReverseReg(notifier_, call, priorities[i], i, nullptr));
  }
  EXPECT_THAT(notify(), ElementsAre(2, 0, 3, 1));

  add(4, 9);
  EXPECT_THAT(notify(), ElementsAre(9, 2, 0, 3, 1)) << "each registration applies its own rule";
}

TEST_F(NotifierTest, StopsAtTheFirstFailureWhenAskedTo) {
  for (ORP_WORD i = 0; i < 3; ++i) add(1, i);
  results[1] = ORP_ERR_ARGUMENT;

  EXPECT_THAT(notify(1, ORP_ERR_ARGUMENT), ElementsAre(0, 1));
  EXPECT_THAT(notify(0, 0), ElementsAre(0, 1, 2)) << "the last result";
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UTIL_NotifierDoNotifyWrapEx("dir/caller", 0, notifier_, 1));
}

TEST_F(NotifierTest, HooksFilterAndSurroundEachCall) {
  static std::vector<std::string> record;
  ORP_UTIL_NOTIFIER_HOOKS_ST hooks = {};
  hooks.pre = [](ORP_WORD, auto *entry) { record.push_back("pre " + std::string(entry->name)); };
  hooks.post = [](ORP_WORD, auto *entry, uint32_t result) {
    record.push_back("post " + std::string(entry->name) + std::to_string(result));
  };
  hooks.filter = [](ORP_WORD, auto *entry, ORP_WORD argument) {
    return static_cast<uint32_t>(entry->data != argument);
  };
  hooks.filterArgument = 1;
  const ORP_UTIL_NOTIFIER_PAIR_ST pair = {call, "named"};
  ASSERT_EQ(ORP_OK, ORP_UTIL_NotifierRegEx(notifier_, &pair, 1, 0, nullptr));
  add(2, 1);
  add(3, 2);
  results[2] = 6;

  EXPECT_EQ(6u, ORP_UTIL_NotifierDoNotifyWithCmsInit(notifier_, 0, &hooks, 5));
  EXPECT_THAT(called, ElementsAre(0, 2));
  EXPECT_THAT(record, ElementsAre("pre named", "post named0", "pre ", "post 6"));
}

TEST_F(NotifierTest, EntriesMayGoAndComeDuringANotification) {
  ORP_UTIL_NOTIFIER_ENTRY_ST *self = add(1, 1);
  ORP_UTIL_NOTIFIER_ENTRY_ST *next = add(2, 2);
  add(3, 3);
  ORP_UTIL_NOTIFIER_ENTRY_ST *before = add(0, 0);
  on_call = [&](ORP_WORD data) {
    if (data != 1) return;
    ORP_UTIL_NotifierUnReg(notifier_, self);
    ORP_UTIL_NotifierUnReg(notifier_, next);
    ORP_UTIL_NotifierUnReg(notifier_, before);
    add(4, 4);
    EXPECT_EQ(0u, ORP_UTIL_NotifierDoNotifyExtend(notifier_, 0, nullptr)) << "an inner one";
    EXPECT_EQ(1u, self->data) << "not freed before the outermost notification ends";
  };

  EXPECT_THAT(notify(), ElementsAre(0, 1, 3, 4, 3, 4));
  EXPECT_THAT(notify(), ElementsAre(3, 4));
  EXPECT_EQ(0u, notifier_->reserved);
}

TEST_F(NotifierTest, ReportsMissingArgumentsAndMemory) {
  ORP_UTIL_NOTIFIER_ENTRY_ST *entry = add(1, 1);
  const ORP_UTIL_NOTIFIER_PAIR_ST no_procedure = {nullptr, "name"};
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UTIL_NotifierRegEx(notifier_, &no_procedure, 1, 0, &entry));
  EXPECT_EQ(nullptr, entry);

  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_UTIL_NotifierReg(notifier_, call, 1, 0, &entry));
}

}  // namespace
}  // namespace msgapi
