// What the shared library's file tells the dynamic linker.

#include <elf.h>
#include <gmock/gmock.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

using Names = std::set<std::string>;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string contents(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class SharedLibrary {
 public:
  explicit SharedLibrary(const std::string &path) : bytes_(contents(path)) {
    const auto head = at<ElfW(Ehdr)>(0, 1).at(0);
    sections_ = at<ElfW(Shdr)>(head.e_shoff, head.e_shnum);
  }

  // Names that others can link with. Versions, which are absolute, and sections, which have no
  // name, do not count.
  Names exported() const {
    Names names;
    for (const auto &symbol : entries<ElfW(Sym)>(SHT_DYNSYM)) {
      if (symbol.st_name != 0 && symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS) {
        names.insert(dynamic_text(symbol.st_name));
      }
    }
    return names;
  }

  Names needed() const {
    Names names;
    for (const auto &entry : entries<ElfW(Dyn)>(SHT_DYNAMIC)) {
      if (entry.d_tag == DT_NEEDED) names.insert(dynamic_text(entry.d_un.d_val));
    }
    return names;
  }

  struct Size {
    size_t file = 0;      // everything that is loaded
    size_t writable = 0;  // in memory
  };
  Size size() const {
    const auto head = at<ElfW(Ehdr)>(0, 1).at(0);
    Size size;
    for (const auto &segment : at<ElfW(Phdr)>(head.e_phoff, head.e_phnum)) {
      if (segment.p_type != PT_LOAD) continue;
      size.file += segment.p_filesz;
      if ((segment.p_flags & PF_W) != 0) size.writable += segment.p_memsz;
    }
    return size;
  }

  // The code and the constants.
  std::string program() const {
    std::string bytes;
    for (const auto &section : sections_) {
      if (section.sh_type == SHT_PROGBITS && (section.sh_flags & SHF_ALLOC) != 0) {
        bytes += bytes_.substr(section.sh_offset, section.sh_size);
      }
    }
    return bytes;
  }

  size_t constructors() const { return entries<ElfW(Addr)>(SHT_INIT_ARRAY).size(); }

 private:
  template <typename T>
  std::vector<T> at(size_t offset, size_t count) const {
    std::vector<T> values(count);
    EXPECT_LE(offset + count * sizeof(T), bytes_.size());
    std::memcpy(values.data(), bytes_.data() + offset, count * sizeof(T));
    return values;
  }

  template <typename T>
  std::vector<T> entries(uint32_t section_type) const {
    for (const auto &section : sections_) {
      if (section.sh_type == section_type) {
        return at<T>(section.sh_offset, section.sh_size / sizeof(T));
      }
    }
    return {};
  }

  // Only the string table of the dynamic names is loaded.
  std::string dynamic_text(size_t offset) const {
    for (const auto &section : sections_) {
      if (section.sh_type == SHT_STRTAB && (section.sh_flags & SHF_ALLOC) != 0) {
        return bytes_.c_str() + section.sh_offset + offset;
      }
    }
    return {};
  }

  std::string bytes_;
  std::vector<ElfW(Shdr)> sections_;
};

Names listed_names() {
  Names names;
  std::ifstream file(MSGAPI_ABI_DIRECTORY "/exports.txt");
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') names.insert(line);
  }
  return names;
}

Names names_with_stored_type() {
  const std::string text = contents(MSGAPI_ABI_DIRECTORY "/prototypes.h");
  // At the start of a line a type, then the name, then arguments, an array bound or the end.
  static const std::regex declaration(R"((?:^|\n)\w[\w *]*?(\w+)(?:\[\w+\])?(?:\(|;))");
  Names names;
  for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end;
       ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

Names without(Names names, const Names &others) {
  std::erase_if(names, [&](const std::string &name) { return others.contains(name); });
  return names;
}

TEST(Abi, ExportsWhatTheListSaysAndNothingElse) {
  const Names exported = SharedLibrary(MSGAPI_LIBRARY).exported();
  const Names listed = listed_names();

  EXPECT_THAT(without(exported, listed), IsEmpty());
  EXPECT_THAT(without(listed, exported), IsEmpty()) << "missing from the library";
}

TEST(Abi, HasAStoredTypeForEveryName) {
  const Names stored = names_with_stored_type();
  const Names listed = listed_names();

  EXPECT_THAT(without(listed, stored), IsEmpty()) << "missing from prototypes.h";
  EXPECT_THAT(without(stored, listed), IsEmpty());
}

TEST(Abi, HasAStoredLayoutForEveryPublicRecord) {
  const std::string stored = contents(MSGAPI_ABI_DIRECTORY "/layout32.txt");
  static const std::regex declaration(R"((?:^|\n)(?:typedef )?struct (\w+) \{)");

  size_t records = 0;
  for (const char *directory :
       {"/include/msgapi", "/platform/orputil/include", "/platform/cfmapi/include"}) {
    for (const auto &header :
         std::filesystem::directory_iterator(std::string(MSGAPI_SOURCE) + directory)) {
      const std::string text = contents(header.path());
      for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end;
           ++match) {
        ++records;
        EXPECT_THAT(stored, HasSubstr("\n" + (*match)[1].str() + " ")) << header.path();
      }
    }
  }
  EXPECT_GT(records, 40u);
}

TEST(Abi, NeedsOnlyThePlatformsLibraries) {
  if (MSGAPI_SANITIZED) GTEST_SKIP() << "sanitizers bring libraries of their own";
  Names needed = SharedLibrary(MSGAPI_LIBRARY).needed();
  // On some machines the dynamic linker itself exports part of the C library.
  std::erase_if(needed, [](const std::string &name) { return name.starts_with("ld-linux"); });

  EXPECT_EQ((Names{"libc.so.6", "libcfmapi.so.1", "libcjson.so.1", "liborputil.so.1"}), needed);
}

TEST(Abi, NamesItsSourcesAsTheyStandInTheTree) {
  if (MSGAPI_SANITIZED) GTEST_SKIP() << "sanitizers name them in their own way";
  if (MSGAPI_COUNTED) GTEST_SKIP() << "the library writes its counters to absolute paths";
  const std::string program = SharedLibrary(MSGAPI_LIBRARY).program();
  // The text from there on; empty when it is not there.
  const auto text_at = [&program](const char *start) {
    const size_t at = program.find(start);
    return at == std::string::npos ? std::string() : std::string(program.c_str() + at);
  };

  EXPECT_THAT(text_at("src/notify/delivery.cpp"), Not(IsEmpty()));
  EXPECT_EQ("", text_at(MSGAPI_SOURCE)) << "a path of the machine that built it";
  EXPECT_EQ("", text_at("../src/"));
}

TEST(Abi, RunsNoConstructor) {
  if (MSGAPI_SANITIZED) GTEST_SKIP() << "sanitizers register every library";
  if (MSGAPI_COUNTED) GTEST_SKIP() << "each unit registers its counters";

  // Every shared library has one, which is the compiler's.
  EXPECT_GE(1u, SharedLibrary(MSGAPI_LIBRARY).constructors());
}

#if UINTPTR_MAX == UINT32_MAX && defined(NDEBUG)
TEST(Abi, IsSmallOnTheDevice) {
  const SharedLibrary::Size size = SharedLibrary(MSGAPI_LIBRARY).size();

  EXPECT_GT(160u * 1024 - 2048, size.file) << "room for the section headers of a stripped file";
  EXPECT_GT(16u * 1024, size.writable);
}
#endif

}  // namespace
