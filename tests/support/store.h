// Values in the sandbox's configuration store.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "cfmstore.h"

namespace test {

// Defines a value, which is its own default.
inline void define(uint32_t area, uint32_t id, uint32_t type, uint32_t size, std::string_view value,
                   ORP_DB_KEY_ST key = {}) {
  const CFM_VALUE each = {area, key.ulObject, key.ulInstance, id,
                          type, size,         value.data(),   static_cast<uint32_t>(value.size())};
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(&each, 1, CFM_DEFINE_DEFAULT));
}

inline void define_number(uint32_t id, uint32_t value, ORP_DB_KEY_ST key = {}) {
  define(CFM_AREA_PARAMETER, id, CFM_TYPE_NUMBER, 4,
         {reinterpret_cast<const char *>(&value), sizeof value}, key);
}

inline void define_text(uint32_t id, std::string_view value, ORP_DB_KEY_ST key = {},
                        uint32_t size = 68) {
  define(CFM_AREA_PARAMETER, id, CFM_TYPE_TEXT, size, value, key);
}

}  // namespace test
