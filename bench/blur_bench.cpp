// Masking of personal data in buffers of 1 KiB: the library's two calls for log files, beside the
// same rules with regexec(). RE2 and Hyperscan only find the values, all patterns in one pass, and
// mask nothing.

#include <benchmark/benchmark.h>
#include <regex.h>

#include <cstring>
#include <string>

#include "log/posix_blur.h"
#include "msgapi/blur.h"

#ifdef HAVE_RE2
#include <re2/re2.h>
#endif
#ifdef HAVE_LIBHS
#include <hs.h>
#endif

namespace {

constexpr size_t kSize = 1024;

std::string fill(const std::string &lines) {
  std::string text;
  while (text.size() < kSize) text += lines;
  text.resize(kSize);
  return text;
}

// Lines of a gateway's daemons without anything to mask.
const std::string &clean_text() {
  static const std::string text = fill(
      "[00000123456][wan][INFO]:link eth0.2 is up, speed 1000, duplex full, mtu 1492\n"
      "[00000123460][dhcp][INFO]:lease of br-lan renewed, 86400 s left, 12 of 253 in use\n"
      "[00000123999][web][WARN]:login failed at 12:30:45, attempt 2 of 5, session Xk2-77\n"
      "[00000124001][voip][ERRO]:registration refused: 403 Forbidden (retry in 30.5 s)\n"
      "[00000124010][upg][INFO]:image v1.12.3-rc4 checked, size 8388608, state READY_TO_BOOT\n");
  return text;
}

// Lines with one value each.
const std::string &personal_text() {
  static const std::string text = fill(
      "[00000123456][wlan][INFO]:station 00:1a:2B:3c:4D:5e joined the guest network, rssi -61\n"
      "[00000123460][dhcp][INFO]:offered 192.168.100.17 to the new host, lease of 86400 s\n"
      "[00000123999][cwmp][INFO]:inform sent for the device 4857544312AB34CD, retry 0\n"
      "[00000124001][wan][INFO]:prefix 2001:db8:85a3::8a2e:370:7334 is delegated\n"
      "[00000124010][upnp][INFO]:uuid:2fac1234-31f8-11b4-a222-08002b34c003 announced\n");
  return text;
}

const std::string &text_of(const benchmark::State &state) {
  return state.range(0) == 0 ? clean_text() : personal_text();
}

void finish(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kSize));
  state.SetLabel(state.range(0) == 0 ? "no personal data" : "a value in every line");
}

void Library(benchmark::State &state) {
  const std::string &text = text_of(state);
  char buffer[kSize + 1];
  for (auto _ : state) {
    std::memcpy(buffer, text.c_str(), kSize + 1);
    MlogBlurString(buffer, kSize);
    MlogBlurIpv6String(buffer, kSize);
    benchmark::DoNotOptimize(buffer);
  }
  finish(state);
}

void Regexec(benchmark::State &state) {
  test::PosixPatterns posix;
  for (auto _ : state) benchmark::DoNotOptimize(posix.blur_log_text(text_of(state)));
  finish(state);
}

void RegexecCompiledOnEachCall(benchmark::State &state) {
  for (auto _ : state) {
    test::PosixPatterns posix;
    benchmark::DoNotOptimize(posix.blur_log_text(text_of(state)));
  }
  finish(state);
}

constexpr test::Pattern kLogPatterns[] = {test::Pattern::kMac,    test::Pattern::kIpv4,
                                          test::Pattern::kSerial, test::Pattern::kUuid,
                                          test::Pattern::kHwaddr, test::Pattern::kIpv6};

#ifdef HAVE_RE2
void Re2Alternation(benchmark::State &state) {
  std::string expression;
  for (const test::Pattern pattern : kLogPatterns) {
    expression +=
        (expression.empty() ? "(?:" : "|(?:") + std::string(test::expression_of(pattern)) + ")";
  }
  RE2::Options options;
  options.set_longest_match(true);
  options.set_never_capture(true);
  const RE2 re(expression, options);
  const std::string &text = text_of(state);
  for (auto _ : state) {
    const re2::StringPiece all(text);
    re2::StringPiece match;
    size_t from = 0;
    while (re.Match(all, from, all.size(), RE2::UNANCHORED, &match, 1)) {
      from = static_cast<size_t>(match.data() - all.data()) + match.size();
      benchmark::DoNotOptimize(match);
    }
  }
  finish(state);
}
#endif

#ifdef HAVE_LIBHS
void Hyperscan(benchmark::State &state) {
  const char *expressions[std::size(kLogPatterns)];
  unsigned flags[std::size(kLogPatterns)];
  unsigned ids[std::size(kLogPatterns)];
  for (unsigned i = 0; i < std::size(kLogPatterns); ++i) {
    expressions[i] = test::expression_of(kLogPatterns[i]);
    flags[i] = 0;
    ids[i] = i;
  }
  hs_database_t *database = nullptr;
  hs_compile_error_t *error = nullptr;
  hs_scratch_t *scratch = nullptr;
  if (hs_compile_multi(expressions, flags, ids, std::size(kLogPatterns), HS_MODE_BLOCK, nullptr,
                       &database, &error) != HS_SUCCESS ||
      hs_alloc_scratch(database, &scratch) != HS_SUCCESS) {
    state.SkipWithError("the patterns do not compile");
    return;
  }
  const std::string &text = text_of(state);
  uint64_t matches = 0;
  const auto count = [](unsigned, unsigned long long, unsigned long long, unsigned,
                        void *context) -> int {
    ++*static_cast<uint64_t *>(context);
    return 0;
  };
  for (auto _ : state) {
    hs_scan(database, text.data(), kSize, 0, scratch, count, &matches);
    benchmark::DoNotOptimize(matches);
  }
  hs_free_scratch(scratch);
  hs_free_database(database);
  finish(state);
}
#endif

BENCHMARK(Library)->Arg(0)->Arg(1);
#ifdef HAVE_RE2
BENCHMARK(Re2Alternation)->Arg(0)->Arg(1);
#endif
#ifdef HAVE_LIBHS
BENCHMARK(Hyperscan)->Arg(0)->Arg(1);
#endif
BENCHMARK(Regexec)->Arg(0)->Arg(1);
BENCHMARK(RegexecCompiledOnEachCall)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
