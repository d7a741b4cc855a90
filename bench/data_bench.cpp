// DM messages and events, each beside the bare work that it cannot do without: copying the same
// bytes, or making and printing the same object with cJSON alone.

#include <benchmark/benchmark.h>
#include <cJSON.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "msgapi/dmmsg.h"
#include "msgapi/event.h"

namespace {

struct Item {
  std::string name;
  std::string value;
};

// Items like those of a link event: names of 6 to 8 characters, values of 12 to 15.
std::vector<Item> make_items(size_t count) {
  std::vector<Item> items;
  for (size_t i = 0; i < count; ++i) {
    items.push_back({"name" + std::to_string(i), "value-of-item-" + std::to_string(i)});
  }
  return items;
}

void *build(const std::vector<Item> &items) {
  void *body = nullptr;
  ORP_DMMSG_Builder(&body, "mic", 0);
  for (const Item &item : items) {
    ORP_DMMSG_AppendItem(&body, 0, item.name.c_str(), item.value.c_str(),
                         static_cast<uint32_t>(item.value.size() + 1));
  }
  return body;
}

size_t bytes_of(const std::vector<Item> &items) {
  size_t bytes = ORP_MSG_HEADER_SIZE + 24;
  for (const Item &item : items) bytes += 12 + item.name.size() + item.value.size() + 2;
  return bytes;
}

void finish_items(benchmark::State &state) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_DmBuild(benchmark::State &state) {
  const std::vector<Item> items = make_items(static_cast<size_t>(state.range(0)));
  for (auto _ : state) ORP_DMMSG_Free(build(items));
  finish_items(state);
}

// The same bytes copied into one block of the right size.
void BM_DmBuildBare(benchmark::State &state) {
  const std::vector<Item> items = make_items(static_cast<size_t>(state.range(0)));
  const size_t size = bytes_of(items);
  for (auto _ : state) {
    char *block = static_cast<char *>(std::malloc(size));
    char *place = block + ORP_MSG_HEADER_SIZE + 24;
    for (const Item &item : items) {
      const uint32_t name_size = static_cast<uint32_t>(std::strlen(item.name.c_str()) + 1);
      const uint32_t head[] = {0, name_size, static_cast<uint32_t>(item.value.size() + 1)};
      std::memcpy(place, head, sizeof head);
      std::memcpy(place + sizeof head, item.name.c_str(), name_size);
      std::memcpy(place + sizeof head + name_size, item.value.c_str(), head[2]);
      place += sizeof head + name_size + head[2];
    }
    benchmark::DoNotOptimize(block);
    benchmark::ClobberMemory();
    std::free(block);
  }
  finish_items(state);
}

void BM_DmWalk(benchmark::State &state) {
  void *body = build(make_items(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    ORP_DMMSG_ITEM_ST item;
    const void *cursor = nullptr;
    while (ORP_DMMSG_GetItemEx(body, &item, &cursor) == 0) benchmark::DoNotOptimize(item);
  }
  finish_items(state);
  ORP_DMMSG_Free(body);
}

// A sealed event, as a subscriber receives it.
ORP_MSG_HEADER_ST *make_event(const std::vector<Item> &items) {
  void *body = nullptr;
  ORP_DMMSG_Builder(&body, "mic", 0);
  ORP_DMMSG_AppendItem(&body, 0, "EventType", "LinkUp", 7);
  for (const Item &item : items) {
    ORP_DMMSG_AppendItem(&body, 0, item.name.c_str(), item.value.c_str(),
                         static_cast<uint32_t>(item.value.size() + 1));
  }
  (void)ORP_DMMSG_Send(body);  // seals it; there is no connection
  ORP_MSG_HEADER_ST *message = ORP_MSG_GetMsgHead(body);
  message->ulMsgType = ORP_MSG_EVENT_WAN;
  return message;
}

void BM_EventToJson(benchmark::State &state) {
  ORP_MSG_HEADER_ST *message = make_event(make_items(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    char *text = nullptr;
    if (ORP_EVT_GetEventContent(message, &text, nullptr) != 0) state.SkipWithError("not converted");
    std::free(text);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  std::free(message);
}

// The same object made and printed with cJSON, its time stamp given.
void BM_EventToJsonBare(benchmark::State &state) {
  const std::vector<Item> items = make_items(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    cJSON *event = cJSON_CreateObject();
    cJSON_AddStringToObject(event, "Method", "notify");
    cJSON_AddStringToObject(event, "Module", "wan");
    cJSON_AddStringToObject(event, "EventType", "LinkUp");
    cJSON_AddStringToObject(event, "Timestamp", "2021-06-04T10:10:10Z");
    cJSON *payload = cJSON_AddObjectToObject(event, "Payload");
    for (const Item &item : items) {
      cJSON_AddStringToObject(payload, item.name.c_str(), item.value.c_str());
    }
    cJSON_free(cJSON_Print(event));
    cJSON_Delete(event);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

BENCHMARK(BM_DmBuild)->Arg(4)->Arg(64)->Arg(1024);
BENCHMARK(BM_DmBuildBare)->Arg(4)->Arg(64)->Arg(1024);
BENCHMARK(BM_DmWalk)->Arg(4)->Arg(64)->Arg(1024);
BENCHMARK(BM_EventToJson)->Arg(4)->Arg(64);
BENCHMARK(BM_EventToJsonBare)->Arg(4)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
