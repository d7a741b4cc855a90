// UTF-8 to 16-bit units and back, for texts of several kinds, beside iconv and, if installed, ICU.
// Rates count bytes of UTF-8.

#include <benchmark/benchmark.h>
#include <iconv.h>

#ifdef HAVE_ICU_UC
#include <unicode/ustring.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "msgapi/charset.h"

namespace {

struct Kind {
  const char *name;
  const char *sample;
};

constexpr Kind kKinds[] = {
    {"ascii", "The quick brown fox jumps over the lazy dog. "},
    {"accents", "Fran\u00e7ais d\u00e9j\u00e0 vu, gr\u00f6\u00dfere \u00dcbung; "},
    {"cyrillic",
     "\u0428\u0438\u0440\u043e\u043a\u0430\u044f \u044d\u043b\u0435\u043a\u0442\u0440 "},
    {"chinese", "\u5bb6\u5ead\u7f51\u5173\u8bbe\u5907\u7684\u8bbe\u7f6e\u9875\u9762\uff0c"},
    {"mixed", "SSID: \u5ba2\u5385 2.4G, Wi-Fi \u5bc6\u7801 12345678 "},
};

std::string sample_text(const benchmark::State &state) {
  std::string text;
  while (text.size() < 4000) text += kKinds[state.range(0)].sample;
  return text;
}

std::vector<uint16_t> sample_units(const std::string &text) {
  std::vector<uint16_t> units(text.size() + 1);
  auto size = static_cast<uint32_t>(units.size());
  if (CL_Utf8ToUcs2(text.data(), static_cast<uint32_t>(text.size()), units.data(), &size) !=
      CL_OK) {
    std::abort();
  }
  units.resize(size);
  return units;
}

void finish(benchmark::State &state, const std::string &text) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
  state.SetLabel(kKinds[state.range(0)].name);
}

void utf8_to_units(benchmark::State &state) {
  const std::string text = sample_text(state);
  std::vector<uint16_t> units(text.size() + 1);
  for (auto _ : state) {
    auto size = static_cast<uint32_t>(units.size());
    if (CL_Utf8ToUcs2(text.data(), static_cast<uint32_t>(text.size()), units.data(), &size) !=
        CL_OK) {
      std::abort();
    }
    benchmark::ClobberMemory();
  }
  finish(state, text);
}
BENCHMARK(utf8_to_units)->DenseRange(0, 4);

void utf8_to_units_iconv(benchmark::State &state) {
  const std::string text = sample_text(state);
  std::vector<uint16_t> units(text.size() + 1);
  const iconv_t handle = ::iconv_open("UCS-2LE", "UTF-8");
  for (auto _ : state) {
    char *in = const_cast<char *>(text.data()), *out = reinterpret_cast<char *>(units.data());
    size_t in_left = text.size(), out_left = 2 * units.size();
    if (::iconv(handle, &in, &in_left, &out, &out_left) != 0) std::abort();
    benchmark::ClobberMemory();
  }
  ::iconv_close(handle);
  finish(state, text);
}
BENCHMARK(utf8_to_units_iconv)->DenseRange(0, 4);

#ifdef HAVE_ICU_UC
void utf8_to_units_icu(benchmark::State &state) {
  const std::string text = sample_text(state);
  std::vector<UChar> units(text.size() + 1);
  for (auto _ : state) {
    int32_t size = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &size, text.data(),
                  static_cast<int32_t>(text.size()), &status);
    if (U_FAILURE(status)) std::abort();
    benchmark::ClobberMemory();
  }
  finish(state, text);
}
BENCHMARK(utf8_to_units_icu)->DenseRange(0, 4);
#endif

void units_to_utf8(benchmark::State &state) {
  const std::string text = sample_text(state);
  const std::vector<uint16_t> units = sample_units(text);
  std::vector<char> back(text.size() + 1);
  for (auto _ : state) {
    auto size = static_cast<uint32_t>(back.size());
    if (CL_Ucs2ToUtf8(units.data(), static_cast<uint32_t>(units.size()), back.data(), &size) !=
        CL_OK) {
      std::abort();
    }
    benchmark::ClobberMemory();
  }
  finish(state, text);
}
BENCHMARK(units_to_utf8)->DenseRange(0, 4);

void units_to_utf8_iconv(benchmark::State &state) {
  const std::string text = sample_text(state);
  const std::vector<uint16_t> units = sample_units(text);
  std::vector<char> back(text.size() + 1);
  const iconv_t handle = ::iconv_open("UTF-8", "UCS-2LE");
  for (auto _ : state) {
    char *in = reinterpret_cast<char *>(const_cast<uint16_t *>(units.data())), *out = back.data();
    size_t in_left = 2 * units.size(), out_left = back.size();
    if (::iconv(handle, &in, &in_left, &out, &out_left) != 0) std::abort();
    benchmark::ClobberMemory();
  }
  ::iconv_close(handle);
  finish(state, text);
}
BENCHMARK(units_to_utf8_iconv)->DenseRange(0, 4);

#ifdef HAVE_ICU_UC
void units_to_utf8_icu(benchmark::State &state) {
  const std::string text = sample_text(state);
  const std::vector<uint16_t> units = sample_units(text);
  const std::vector<UChar> characters(units.begin(), units.end());
  std::vector<char> back(text.size() + 1);
  for (auto _ : state) {
    int32_t size = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8(back.data(), static_cast<int32_t>(back.size()), &size, characters.data(),
                static_cast<int32_t>(characters.size()), &status);
    if (U_FAILURE(status)) std::abort();
    benchmark::ClobberMemory();
  }
  finish(state, text);
}
BENCHMARK(units_to_utf8_icu)->DenseRange(0, 4);
#endif

}  // namespace

BENCHMARK_MAIN();
