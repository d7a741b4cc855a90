// What the shared library's file tells the dynamic linker.

#include <gmock/gmock.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "support/file.h"

namespace {

using Names = std::set<std::string>;
using test::contents;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr bool kSanitized = sizeof MSGAPI_SANITIZE > sizeof "";

// The lines that readelf(1) prints about the library, after `filter`.
Names readelf(const std::string &options, const std::string &filter) {
  const std::string command = "LC_ALL=C readelf -W " + options + " " MSGAPI_LIBRARY " | " + filter;
  FILE *pipe = ::popen(command.c_str(), "r");
  Names lines;
  for (char line[4096]; std::fgets(line, sizeof line, pipe) != nullptr;) {
    lines.emplace(line, std::strcspn(line, "\n"));
  }
  EXPECT_EQ(0, ::pclose(pipe)) << command;
  return lines;
}

// What the group of `pattern` matches in `text`.
Names found(const std::string &pattern, const std::string &text) {
  const std::regex regex(pattern);
  Names names;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

Names listed_names() {
  return found(R"((?:^|\n)(\w+))", contents(MSGAPI_ABI_DIRECTORY "/exports.txt"));
}

Names without(Names names, const Names &others) {
  std::erase_if(names, [&](const std::string &name) { return others.contains(name); });
  return names;
}

TEST(Abi, ExportsWhatTheListSaysAndNothingElse) {
  // Versions, which are absolute, and sections, which a device's library lists, do not count.
  const Names exported = readelf("--dyn-syms", R"(awk '$1 ~ /^[0-9]+:/ && $4 != "SECTION" &&
                                          $7 != "UND" && $7 != "ABS" { print $8 }' | sed 's/@.*//')");
  const Names listed = listed_names();

  EXPECT_THAT(without(exported, listed), IsEmpty());
  EXPECT_THAT(without(listed, exported), IsEmpty()) << "missing from the library";
}

TEST(Abi, HasAStoredTypeForEveryName) {
  // At the start of a line a type, then the name, then arguments, an array bound or the end.
  const Names stored = found(R"((?:^|\n)\w[\w *]*?(\w+)(?:\[\w+\])?(?:\(|;))",
                             contents(MSGAPI_ABI_DIRECTORY "/prototypes.h"));
  const Names listed = listed_names();

  EXPECT_THAT(without(listed, stored), IsEmpty()) << "missing from prototypes.h";
  EXPECT_THAT(without(stored, listed), IsEmpty());
}

TEST(Abi, HasAStoredLayoutForEveryPublicRecord) {
  const std::string stored = contents(MSGAPI_ABI_DIRECTORY "/layout32.txt");
  size_t records = 0;
  for (const char *directory :
       {"/include/msgapi", "/platform/orputil/include", "/platform/cfmapi/include"}) {
    for (const auto &header :
         std::filesystem::directory_iterator(std::string(MSGAPI_SOURCE) + directory)) {
      for (const std::string &record :
           found(R"((?:^|\n)(?:typedef )?struct (\w+) \{)", contents(header.path()))) {
        ++records;
        EXPECT_THAT(stored, HasSubstr("\n" + record + " ")) << header.path();
      }
    }
  }
  EXPECT_GT(records, 40u);
}

TEST(Abi, NeedsOnlyThePlatformsLibraries) {
  if (kSanitized) GTEST_SKIP() << "sanitizers bring libraries of their own";
  Names needed = readelf("-d", R"(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')");
  // On some machines the dynamic linker itself exports part of the C library.
  std::erase_if(needed, [](const std::string &name) { return name.starts_with("ld-linux"); });

  EXPECT_EQ((Names{"libc.so.6", "libcfmapi.so.1", "libcjson.so.1", "liborputil.so.1"}), needed);
}

TEST(Abi, NamesItsSourcesAsTheyStandInTheTree) {
  if (kSanitized) GTEST_SKIP() << "sanitizers name them in their own way";
  if (MSGAPI_COUNTED) GTEST_SKIP() << "the library writes its counters to absolute paths";
  const Names texts = readelf("-p .rodata -p .data -p .data.rel.ro", "cat");

  EXPECT_THAT(texts, Contains(HasSubstr("src/notify/delivery.cpp")));
  EXPECT_THAT(texts, Not(Contains(HasSubstr(MSGAPI_SOURCE)))) << "of the machine that built it";
  EXPECT_THAT(texts, Not(Contains(HasSubstr("../src/"))));
}

TEST(Abi, RunsNoConstructor) {
  if (kSanitized) GTEST_SKIP() << "sanitizers register every library";
  if (MSGAPI_COUNTED) GTEST_SKIP() << "each unit registers its counters";

  // Every shared library has one, which is the compiler's.
  EXPECT_THAT(readelf("-d", R"(sed -n 's/.*(INIT_ARRAYSZ) *//p')"),
              AnyOf(IsEmpty(), ElementsAre(std::to_string(sizeof(void *)) + " (bytes)")));
}

#if UINTPTR_MAX == UINT32_MAX && defined(NDEBUG)
TEST(Abi, IsSmallOnTheDevice) {
  size_t in_file = 0, writable = 0;
  for (const std::string &segment : readelf("-l", "grep LOAD")) {
    size_t file_size = 0, memory_size = 0;
    char flags[4] = "";
    EXPECT_EQ(3, std::sscanf(segment.c_str(), " LOAD %*x %*x %*x %zx %zx %3c", &file_size,
                             &memory_size, flags));
    in_file += file_size;
    if (flags[1] == 'W') writable += memory_size;
  }

  EXPECT_GT(160u * 1024 - 2048, in_file) << "room for the section headers of a stripped file";
  EXPECT_GT(16u * 1024, writable);
}
#endif

}  // namespace
