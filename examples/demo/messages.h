// What the demo's daemons say to each other.
#pragma once

#include <cstdint>

// Messages from the panel ("web") to the station ("cms").
constexpr uint32_t kReadTemperature = 0x1001;  // answer: ulMsgData, hundredths of a degree
constexpr uint32_t kReadHistory = 0x1002;      // answer: kHistorySize bytes, byte n is n % 251
constexpr uint32_t kMeasure = 0x1003;          // answer: ulMsgData of the request, plus one

// Between the knots. Data: how often it is to be passed on; answer: 0, or why one got none.
constexpr uint32_t kAskLeft = 0x1004;
constexpr uint32_t kAskRight = 0x1005;

// From the flood, to whoever does not read.
constexpr uint32_t kReading = 0x1006;  // data: its number; 1000 bytes; not answered

constexpr uint32_t kTemperature = 2150;
constexpr uint32_t kHistorySize = 1024 * 1024;

// Notification from the station to the panel: how often the temperature was read, and its value.
constexpr uint32_t kTemperatureRead = 5;
