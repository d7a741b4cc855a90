// What can be imported into the configuration store: images and JSON files.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "cfmstore.h"
#include "store_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  if (data[0] != '{') {
    CFM_StoreCheckImage(data, static_cast<uint32_t>(size));
    return 0;
  }

  cfmctl::Contents contents;
  try {
    contents = cfmctl::from_json(nlohmann::json::parse(data, data + size));
  } catch (const std::exception &) {
    return 0;
  }
  // Contents that were read are written in a form that reads the same. The order of keys means
  // nothing: a JSON object sorts its keys as texts, "16" before "9".
  const auto written = [](const cfmctl::Contents &each) {
    return nlohmann::json::parse(cfmctl::to_json(each).dump());
  };
  const nlohmann::json first = written(contents);
  if (written(cfmctl::from_json(first)) != first) std::abort();
  return 0;
}
