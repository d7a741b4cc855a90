// Bridge queries: run "brctl" with its output in a result file, read the file, remove it.

#include "msgapi/bridge.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>

#include "base/text.h"
#include "orputil.h"
#include "os/fd.h"
#include "os/line_reader.h"
#include "util/net/bridge_listing.h"

namespace msgapi::net {
namespace {

static_assert(sizeof(ORP_UTIL_BR_FDB_ST) == 43);

constexpr const char *kShowFile = "/var/brctlshow.rst";
constexpr const char *kMacFile = "/var/brctlshowmacs.rst";

// A result file, from before the first command to the end of the query. Whatever is at its path is
// removed first, so that nothing stale is read when a command writes nothing. It is not opened
// through a link.
class ResultFile {
 public:
  explicit ResultFile(const char *path) : path_(path) { ::unlink(path_); }
  ResultFile(const ResultFile &) = delete;
  ResultFile &operator=(const ResultFile &) = delete;
  ~ResultFile() {
    const int saved = errno;
    ::unlink(path_);
    errno = saved;
  }

  os::UniqueFd open() const {
    return os::UniqueFd(::open(path_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  }

 private:
  const char *path_;
};

// Fills kMacFile with the forwarding tables of `bridge`, or of every bridge when it is null.
// Returns the number of bridges; `caller` tags the commands.
uint32_t write_mac_file(const char *caller, const char *bridge) {
  const ResultFile show(kShowFile);
  ORP_UTIL_VExecCmdNoHang(caller, __LINE__, "brctl show > %s", kShowFile);
  // To a shell the heading is a comment, so this command writes no file.
  ORP_UTIL_VExecCmdNoHang(caller, __LINE__, "echo #brctl showmacs result: >%s", kMacFile);
  const os::UniqueFd fd = show.open();
  if (!fd) return 0;

  uint32_t count = 0;
  os::LineReader lines(fd.get());
  std::array<char, kListingLineSize> buffer;
  while (const auto text = lines.next(buffer)) {
    const ShowLine line = parse_show_line(*text);
    const std::string_view name = line.words[0];
    if (!line.is_bridge(false) || !is_command_safe(name)) continue;
    if (bridge != nullptr && name != bridge) continue;

    ORP_UTIL_VExecCmdNoHang(caller, __LINE__, "brctl showmacs %.*s >>%s",
                            static_cast<int>(name.size()), name.data(), kMacFile);
    ++count;
  }
  return count;
}

enum class Lookup { kFound, kNoBridge, kUnknown };

// Looks `mac` up in the forwarding table of `bridge`, or of every bridge when it is null.
Lookup look_up_mac(const char *caller, const char *bridge, const char *mac, MacLine *out) {
  const ResultFile table(kMacFile);
  if (write_mac_file(caller, bridge) == 0) return Lookup::kNoBridge;

  const os::UniqueFd fd = table.open();
  if (!fd) return Lookup::kUnknown;
  const std::optional<MacLine> line = find_mac(fd.get(), mac);
  if (!line) return Lookup::kUnknown;
  *out = *line;
  return Lookup::kFound;
}

}  // namespace
}  // namespace msgapi::net

using namespace msgapi;
using namespace msgapi::net;

extern "C" uint32_t ORP_UTIL_GetBridgeAllNames(char *out, uint32_t outSize) {
  if (out == nullptr) return 0;
  const std::span<char> names(out, outSize);
  copy_cut(names, "");

  const ResultFile show(kShowFile);
  ORP_UTIL_VExecCmdNoHang(__func__, __LINE__, "brctl show >%s", kShowFile);
  const os::UniqueFd fd = show.open();
  if (!fd) return 0;

  return list_bridges(fd.get(), names);
}

extern "C" uint32_t ORP_UTIL_GetBrByLanInterface(const char *ifName, char *out, uint32_t outSize,
                                                 const char *showFile) {
  if (ifName == nullptr || out == nullptr || outSize < 2) return 1;

  if (showFile != nullptr) {
    const os::UniqueFd fd(::open(showFile, O_RDONLY | O_CLOEXEC));
    return fd && find_bridge_of(fd.get(), ifName, {out, outSize}) ? 0 : 1;
  }

  const ResultFile show(kShowFile);
  ORP_UTIL_VExecCmdNoHang(__func__, __LINE__, "brctl show > %s", kShowFile);
  const os::UniqueFd fd = show.open();
  return fd && find_bridge_of(fd.get(), ifName, {out, outSize}) ? 0 : 1;
}

extern "C" uint32_t ORP_UTIL_GetInterfaceNameByMacAddr(const char *mac, char *out,
                                                       uint32_t outSize) {
  if (mac == nullptr || out == nullptr || outSize < 2) return 1;

  MacLine line;
  switch (look_up_mac(__func__, nullptr, mac, &line)) {
    case Lookup::kNoBridge:
      return 0;  // deliberate, and unlike an address that is not found
    case Lookup::kUnknown:
      return 1;
    case Lookup::kFound:
      break;
  }
  return copy_exact({out, outSize}, line.interface.data()) ? 0 : 1;
}

extern "C" uint32_t ORP_UTIL_GetAllInterfaceOnBr(const char *bridge, uint32_t maxCount,
                                                 char (*names)[ORP_IF_NAME_SIZE]) {
  if (bridge == nullptr || names == nullptr || !is_bridge_name(bridge)) return 1;
  if (!is_command_safe(bridge)) return 1;
  std::array<char, 32> path;
  if (!format_exact(path, "/var/brctlshowintfnames_%s", bridge)) return 1;

  const ResultFile show(path.data());
  ORP_UTIL_VExecCmdNoHang(__func__, __LINE__, "brctl show > %s", path.data());
  const os::UniqueFd fd = show.open();
  return fd && list_interfaces(fd.get(), bridge, {names, maxCount}) ? 0 : 1;
}

extern "C" uint32_t ORP_UTIL_GetBrFdbInfoByMacSpecBr(const char *mac, ORP_UTIL_BR_FDB_ST *record,
                                                     const char *bridge) {
  if (mac == nullptr || record == nullptr) return 1;

  MacLine line;
  switch (look_up_mac(__func__, bridge, mac, &line)) {
    case Lookup::kNoBridge:
      return 0;  // deliberate, and unlike an address that is not found
    case Lookup::kUnknown:
      return 1;
    case Lookup::kFound:
      break;
  }
  record->ucPort = static_cast<uint8_t>(line.port);
  const bool mac_fits = copy_exact(record->aucMac, line.mac.data());
  const bool name_fits = copy_exact(record->aucIfName, line.interface.data());
  const bool local_fits = copy_exact(record->aucLocal, line.local.data());
  return mac_fits && name_fits && local_fits ? 0 : ORP_ERR_BRIDGE_TEXT;
}

extern "C" uint32_t ORP_UTIL_GetBrFdbInfoByMac(const char *mac, ORP_UTIL_BR_FDB_ST *record) {
  return ORP_UTIL_GetBrFdbInfoByMacSpecBr(mac, record, nullptr);
}
