// msgctl latency: how long messages wait and how long answers take.

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <memory>

#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"
#include "traffic/latency.h"

namespace msgctl {
namespace {

using traffic::Event;
using traffic::Histogram;

// Bounds the memory even when somebody sends messages of all types.
constexpr size_t kMostRows = 1000;
constexpr const char *kOthers = "(others)";

struct LatencyOptions {
  FlightOptions flight;
  std::string by = "type";
};

struct Measure {
  const char *word;
  Histogram traffic::Times::*times;
};
constexpr Measure kMeasures[] = {{"queue", &traffic::Times::queue},
                                 {"handler", &traffic::Times::handler},
                                 {"total", &traffic::Times::total}};

void add(const traffic::Spans &spans, traffic::Times *times) {
  if (spans.queue_ns) times->queue.add(*spans.queue_ns);
  if (spans.handler_ns) times->handler.add(*spans.handler_ns);
  if (spans.total_ns) times->total.add(*spans.total_ns);
}

Json histogram_json(const Histogram &histogram) {
  return {{"count", histogram.count()},
          {"p50_ns", histogram.quantile(0.5)},
          {"p90_ns", histogram.quantile(0.9)},
          {"p99_ns", histogram.quantile(0.99)},
          {"max_ns", histogram.max()}};
}

// One line for each power of two between the least and the longest time; times below 2048 ns share
// one line.
void draw(const char *word, const Histogram &histogram) {
  constexpr unsigned kWidth = 50, kMicrosecond = 10;
  unsigned first = 64, last = 0;
  uint64_t most = 0;
  const auto count = [&histogram](unsigned power) {
    const uint64_t low = power == kMicrosecond ? 0 : uint64_t{1} << power;
    return histogram.between(low, power == 63 ? ~uint64_t{0} : uint64_t{1} << (power + 1));
  };
  for (unsigned power = kMicrosecond; power < 64; ++power) {
    if (const uint64_t here = count(power); here > 0) {
      first = std::min(first, power);
      last = power;
      most = std::max(most, here);
    }
  }
  print_line("");
  print_line(fmt::format("{} time of {} messages", word, histogram.count()));
  for (unsigned power = first; power <= last && power < 64; ++power) {
    const uint64_t here = count(power);
    // A line that has any messages shows at least one mark.
    const auto width = static_cast<size_t>(here * kWidth / most) + (here > 0 ? 1 : 0);
    print_line(fmt::format("{:>8} {:>8}  {}", "< " + duration_text(uint64_t{2} << power), here,
                           coloured(Colour::kBlue, std::string(width, '#'))));
  }
}

void latency(const LatencyOptions &options, Context *context) {
  const traffic::Filter filter = make_filter(options.flight, *context);
  const bool by_pair = options.by == "pair";
  const EventText text(context->catalogue, true);
  Source source(options.flight.file);
  std::map<std::string, std::unique_ptr<traffic::Times>> rows;
  const auto all = std::make_unique<traffic::Times>();

  const auto row = [&rows](const std::string &key) {
    const bool full = rows.size() >= kMostRows && !rows.contains(key);
    auto &times = rows[full ? kOthers : key];
    if (!times) times = std::make_unique<traffic::Times>();
    return times.get();
  };
  source.read([&](const Event &event) {
    const traffic::Spans spans = traffic::spans_of(event);
    if (!spans.queue_ns && !spans.handler_ns && !spans.total_ns) return;
    if (!filter.matches(event, source.model())) return;
    add(spans, all.get());
    if (!by_pair) {
      add(spans, row(text.type(event.message->type())));
      return;
    }
    // The times of an answer belong to the request's pair.
    const flight::Record &record = event.record;
    add({spans.queue_ns, {}, {}}, row(text.pair(record.from, record.to, source.model())));
    if (event.request != nullptr && (spans.handler_ns || spans.total_ns)) {
      add({{}, spans.handler_ns, spans.total_ns},
          row(text.pair(event.request->from, event.request->to, source.model())));
    }
  });
  std::erase_if(rows, [](const auto &each) {
    return std::all_of(std::begin(kMeasures), std::end(kMeasures), [&each](const Measure &measure) {
      return ((*each.second).*measure.times).count() == 0;
    });
  });

  if (context->json) {
    for (const auto &[key, times] : rows) {
      Json json{{options.by, key}};
      for (const Measure &measure : kMeasures) {
        json[measure.word] = histogram_json((*times).*measure.times);
      }
      print_json(json);
    }
    return;
  }
  constexpr auto kRight = Table::Align::kRight;
  Table table({{by_pair ? "PAIR" : "TYPE"},
               {"TIME"},
               {"COUNT", kRight},
               {"P50", kRight},
               {"P90", kRight},
               {"P99", kRight},
               {"MAX", kRight}});
  for (const auto &[key, times] : rows) {
    std::string name = key;
    for (const Measure &measure : kMeasures) {
      const Histogram &histogram = (*times).*measure.times;
      if (histogram.count() == 0) continue;
      table.add({name, measure.word, std::to_string(histogram.count()),
                 duration_text(histogram.quantile(0.5)), duration_text(histogram.quantile(0.9)),
                 duration_text(histogram.quantile(0.99)), duration_text(histogram.max())});
      name.clear();
    }
  }
  table.print();
  for (const Measure &measure : kMeasures) {
    if (const Histogram &histogram = (*all).*measure.times; histogram.count() > 0) {
      draw(measure.word, histogram);
    }
  }
}

}  // namespace

void add_latency_command(servers::CommandLine *line, Context *context) {
  static LatencyOptions options;
  servers::Command command =
      line->command("latency", "Say how long messages wait and how long their answers take",
                    [context] { latency(options, context); });
  command.choice("--by", &options.by, {"type", "pair"}, "What gets a row of its own");
  add_flight_options(&command, context, &options.flight);
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
