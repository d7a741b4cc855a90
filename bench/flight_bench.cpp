// The cost of one record of the flight recorder.

#include <benchmark/benchmark.h>

#include <array>
#include <string>

#include "flight/reader.h"
#include "flight/recorder.h"

namespace {

constexpr const char *kPath = "/var/run/flight_bench";
constexpr uint64_t kRing = 1 << 20;

void accepted_and_delivered(benchmark::State &state) {
  flight::Recorder recorder(kPath, kRing, static_cast<uint32_t>(state.range(0)));
  const std::array<char, flight::kHeaderSize> header{};
  const std::string body(256, 'x');
  for (auto _ : state) {
    recorder.tick();
    const uint64_t about = recorder.accepted(1, 2, header.data(), 256, body);
    recorder.tick();
    recorder.delivered(about, 1, 2, 0x1234, 5);
  }
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(accepted_and_delivered)->Arg(0)->Arg(256);

void off(benchmark::State &state) {
  flight::Recorder recorder;
  const std::array<char, flight::kHeaderSize> header{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(recorder.accepted(1, 2, header.data(), 256, {}));
  }
}
BENCHMARK(off);

void read(benchmark::State &state) {
  flight::Recorder recorder(kPath, kRing, 0);
  const std::array<char, flight::kHeaderSize> header{};
  for (int i = 0; i < 20000; ++i) recorder.accepted(1, 2, header.data(), 256, {});
  int64_t records = 0;
  flight::Entry entry;
  for (auto _ : state) {
    flight::Reader reader = flight::Reader::follow(kPath);
    while (reader.next(&entry) == flight::Reader::Next::kEntry) ++records;
  }
  state.SetItemsProcessed(records);
}
BENCHMARK(read);

}  // namespace

BENCHMARK_MAIN();
