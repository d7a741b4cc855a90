// Names by index and by number.

#include <cstring>

#include "orputil.h"

namespace {

constexpr uint32_t kUnknown = 0xFFFFFFFF;

// Independent of the locale, which tolower() is not.
char fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool equal_ignoring_case(const char *a, const char *b) {
  for (; fold(*a) == fold(*b); ++a, ++b) {
    if (*a == '\0') return true;
  }
  return false;
}

}  // namespace

extern "C" uint32_t ORP_UTIL_GetIdxFromStr(const char *name, const char *const *names,
                                           uint32_t count, const char *const *extension) {
  if (name == nullptr) return kUnknown;

  for (uint32_t i = 0; names != nullptr && i < count; ++i) {
    if (names[i] != nullptr && equal_ignoring_case(name, names[i])) return i;
  }
  for (uint32_t i = 0; extension != nullptr && extension[i] != nullptr; ++i) {
    if (equal_ignoring_case(name, extension[i])) return count + i;
  }
  return kUnknown;
}

extern "C" const char *ORP_UTIL_GetStrFromIdx(uint32_t index, const char *const *names,
                                              uint32_t count, const char *const *extension) {
  if (index < count) return names == nullptr ? nullptr : names[index];

  // The extension's length is not known: walk to the wanted entry.
  for (uint32_t i = 0; extension != nullptr && extension[i] != nullptr; ++i) {
    if (i == index - count) return extension[i];
  }
  return nullptr;
}

extern "C" uint32_t ORP_UTIL_StrIdxArrayGetIdxByStr(const ORP_STR_IDX *table, const char *name) {
  if (table == nullptr) return kUnknown;

  const ORP_STR_IDX *row = table;
  while (row->name != nullptr && (name == nullptr || std::strcmp(row->name, name) != 0)) ++row;
  return row->index;
}

extern "C" const char *ORP_UTIL_StrIdxArrayGetStrByIdx(const ORP_STR_IDX *table, uint32_t index) {
  if (table == nullptr) return nullptr;

  const ORP_STR_IDX *row = table;
  while (row->name != nullptr && row->index != index) ++row;
  return row->name;
}
