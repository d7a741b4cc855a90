// Texts of statuses, from the catalogue's table.

#include "catalogue/status_table.h"
#include "msgapi/kit.h"

namespace {

using catalogue::StatusFamily;

static_assert(static_cast<uint32_t>(StatusFamily::kMessages) == MSGKIT_STATUS_MESSAGES);
static_assert(static_cast<uint32_t>(StatusFamily::kStore) == MSGKIT_STATUS_STORE);
static_assert(static_cast<uint32_t>(StatusFamily::kConfiguration) == MSGKIT_STATUS_CONFIGURATION);
static_assert(static_cast<uint32_t>(StatusFamily::kItems) == MSGKIT_STATUS_ITEMS);
static_assert(static_cast<uint32_t>(StatusFamily::kEvents) == MSGKIT_STATUS_EVENTS);
static_assert(static_cast<uint32_t>(StatusFamily::kLogin) == MSGKIT_STATUS_LOGIN);
static_assert(static_cast<uint32_t>(StatusFamily::kProcesses) == MSGKIT_STATUS_PROCESSES);
static_assert(static_cast<uint32_t>(StatusFamily::kPaths) == MSGKIT_STATUS_PATHS);
static_assert(static_cast<uint32_t>(StatusFamily::kBlur) == MSGKIT_STATUS_BLUR);
static_assert(static_cast<uint32_t>(StatusFamily::kBridges) == MSGKIT_STATUS_BRIDGES);
static_assert(static_cast<uint32_t>(StatusFamily::kNotify) == MSGKIT_STATUS_NOTIFY);
static_assert(static_cast<uint32_t>(StatusFamily::kDns) == MSGKIT_STATUS_DNS);
static_assert(static_cast<uint32_t>(StatusFamily::kCharset) == MSGKIT_STATUS_CHARSET);
static_assert(static_cast<uint32_t>(StatusFamily::kLog) == MSGKIT_STATUS_LOG);
static_assert(static_cast<uint32_t>(StatusFamily::kSockets) == MSGKIT_STATUS_SOCKETS);

const catalogue::StatusNumber *find(uint32_t family, int64_t status) {
  if (family > MSGKIT_STATUS_SOCKETS) return nullptr;
  return catalogue::find_status(status, static_cast<StatusFamily>(family));
}

}  // namespace

// The table's texts are literals, so their data ends with a NUL.

extern "C" const char *msgkit_status_name(uint32_t family, int64_t status) {
  const catalogue::StatusNumber *known = find(family, status);
  return known == nullptr ? "?" : known->name.data();
}

extern "C" const char *msgkit_status_sentence(uint32_t family, int64_t status) {
  const catalogue::StatusNumber *known = find(family, status);
  return known == nullptr ? "unknown status" : known->sentence.data();
}
