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
  ORP_UTIL_NvPairDelAll(&list);
  EXPECT_EQ(nullptr, list);
}

TEST(NvPair, DeletesByName) {
  ORP_UTIL_NV_PAIR_ST *list = nullptr;
  for (const char *name : {"a", "b", "c"}) ORP_UTIL_NvPairSet(&list, name, name);

  ORP_UTIL_NvPairDelByName(&list, "b");
  ORP_UTIL_NvPairDelByName(&list, "absent");
  EXPECT_EQ("a=a;c=c;", shown(list));
  ORP_UTIL_NvPairDelByName(&list, "a");
  ORP_UTIL_NvPairDelByName(&list, "c");
  EXPECT_EQ(nullptr, list);
}

TEST(NvPair, SkipsNodesWithoutANameAndIgnoresNullArguments) {
  ORP_UTIL_NV_PAIR_ST second = {nullptr, const_cast<char *>("n"), const_cast<char *>("v")};
  ORP_UTIL_NV_PAIR_ST first = {&second, nullptr, nullptr};
  ORP_UTIL_NV_PAIR_ST *list = nullptr;

  EXPECT_EQ(&second, ORP_UTIL_NvPairFindByName(&first, "n"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairFindByName(&first, nullptr));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairGetValue(nullptr, "n"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairGetValue(&first, "m"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairSet(nullptr, "n", "v"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairSet(&list, nullptr, "v"));
  EXPECT_EQ(nullptr, ORP_UTIL_NvPairSet(&list, "n", nullptr));
  ORP_UTIL_NvPairDelByName(nullptr, "n");
  ORP_UTIL_NvPairDelByName(&list, nullptr);
  ORP_UTIL_NvPairDelAll(nullptr);
}

TEST(NvPair, StaysAsItWasWithoutMemory) {
  ORP_UTIL_NV_PAIR_ST *list = nullptr;
  ORP_UTIL_NvPairSet(&list, "n", "old");

  EXPECT_EQ(3u, test::fail_every_allocation([&list] {
              const bool added = ORP_UTIL_NvPairSet(&list, "m", "v") != nullptr;
              if (!added) {
                EXPECT_EQ("n=old;", shown(list));
              }
              return added;
            }));
  EXPECT_EQ(1u, test::fail_every_allocation([&list] {
              const bool changed = ORP_UTIL_NvPairSet(&list, "n", "new") != nullptr;
              if (!changed) {
                EXPECT_EQ("n=old;m=v;", shown(list));
              }
              return changed;
            }));
  EXPECT_EQ("n=new;m=v;", shown(list));
  ORP_UTIL_NvPairDelAll(&list);
}

}  // namespace
