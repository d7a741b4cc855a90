#include "msgapi/nvpair.h"

#include <gtest/gtest.h>

#include <string>

#include "support/allocation.h"

namespace {

std::string shown(const ORP_UTIL_NV_PAIR_ST *head) {
  std::string text;
  for (; head != nullptr; head = head->pstNext) {
    text += std::string(head->pcName) + "=" + head->pcValue + ";";
  }
  return text;
}

TEST(NvPair, KeepsOneNodeANameInTheOrderOfInsertion) {
  ORP_UTIL_NV_PAIR_ST *list = nullptr;
  char name[] = "b";

  ORP_UTIL_NV_PAIR_ST *node = ORP_UTIL_NvPairSet(&list, name, "1");
  name[0] = 'x';  // the list has a copy
  ORP_UTIL_NvPairSet(&list, "a", "2");
  ORP_UTIL_NvPairSet(&list, "B", "");

  EXPECT_EQ(node, ORP_UTIL_NvPairSet(&list, "b", "3"));
  EXPECT_EQ("b=3;a=2;B=;", shown(list));
  EXPECT_EQ(node, ORP_UTIL_NvPairFindByName(list, "b"));
  EXPECT_STREQ("", ORP_UTIL_NvPairGetValue(list, "B"));

  ORP_UTIL_NvPairDelByName(&list, "a");
  ORP_UTIL_NvPairDelByName(&list, "absent");
  EXPECT_EQ("b=3;B=;", shown(list));
  ORP_UTIL_NvPairDelAll(&list);
  EXPECT_EQ(nullptr, list);
}

TEST(NvPair, SkipsNodesWithoutAName) {
  ORP_UTIL_NV_PAIR_ST second = {nullptr, const_cast<char *>("n"), const_cast<char *>("v")};
  ORP_UTIL_NV_PAIR_ST first = {&second, nullptr, nullptr};

  EXPECT_EQ(&second, ORP_UTIL_NvPairFindByName(&first, "n"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairFindByName(&first, nullptr));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairGetValue(&first, "m"));
}

TEST(NvPair, StaysAsItWasWithoutMemory) {
  ORP_UTIL_NV_PAIR_ST *list = nullptr;
  ORP_UTIL_NvPairSet(&list, "n", "old");
  const auto failures = [&list](const char *name, const char *value) {
    const std::string before = shown(list);
    return test::fail_every_allocation([&] {
      const bool set = ORP_UTIL_NvPairSet(&list, name, value) != nullptr;
      EXPECT_NE(set, before == shown(list));
      return set;
    });
  };

  EXPECT_EQ(3u, failures("m", "v"));
  EXPECT_EQ(1u, failures("n", "new"));
  EXPECT_EQ("n=new;m=v;", shown(list));
  ORP_UTIL_NvPairDelAll(&list);
}

}  // namespace
