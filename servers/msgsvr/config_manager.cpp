// The configuration manager: saves, checks, exports, imports and resets the configuration store on
// behalf of the applications.
//
// The store may be busy for seconds, so a thread of its own does one request after the other, and
// the answer follows. A request for whose answer nobody waits gets none.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cfmapi.h"
#include "cfmstore.h"
#include "common/log_line.h"
#include "msgsvr/sealed_file.h"
#include "msgsvr/services.h"
#include "msgsvr/worker.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr size_t kLargestImage = 64 << 20;

// All other results that a requester gets come from the store.
uint32_t result_of(SealStatus status) {
  return static_cast<uint32_t>(status);
}

class ConfigManager final : public Service {
 public:
  explicit ConfigManager(Server *server)
      : server_(server),
        seal_{server->options().export_key, server->options().export_directories},
        worker_(&server->loop()) {
    for (const uint32_t type : {ORP_MSG_SAVE_CFG, ORP_MSG_SAVE_CFG_TO_APP}) {
      server->serve(type, [this](Client &from, const Message &request) {
        run(from, request, "saving", [] { return CFM_StoreSave(); });
      });
    }
    for (const uint32_t type :
         {ORP_MSG_SAVE_CFG_SYNC, ORP_MSG_SAVE_APPDATA_SYNC, ORP_MSG_SAVE_CFG_TO_APP_SYNC}) {
      server->serve(type, [this](Client &from, const Message &request) {
        run_and_answer(from, request, "saving", [] { return CFM_StoreSave(); });
      });
    }
    server->serve(ORP_MSG_RESTORE_DEFAULTS, [this](Client &from, const Message &request) {
      // The body is mode and user; this port needs neither.
      if (request.body.size() < 8) return;
      run(from, request, "bringing back the defaults of",
          [] { return CFM_StoreRestoreDefaults(); });
    });
    server->serve(ORP_MSG_DELETE_APPDATA, [this](Client &from, const Message &request) {
      run_and_answer(from, request, "deleting the application data of",
                     [] { return CFM_StoreRestoreAppData(); });
    });
    server->serve(ORP_MSG_EXPORT_USER, [this](Client &from, const Message &request) {
      export_users_[from.id] = request.header.ulMsgData;
    });
    server->on_gone([this](Client &client) { export_users_.erase(client.id); });
    server->serve(ORP_MSG_EXPORT_CFG_FILE, [this](Client &from, const Message &request) {
      const uint32_t user = std::exchange(export_users_[from.id], 0);
      transfer(from, request, "export to",
               [this, user](const std::string &path) { return write_export(path, user); });
    });
    server->serve(ORP_MSG_IMPORT_CFG_FILE, [this](Client &from, const Message &request) {
      transfer(from, request, "import from",
               [this](const std::string &path) { return with_image(path, CFM_StoreImport); });
    });
    server->serve(ORP_MSG_CHECK_CFG_FILE, [this](Client &from, const Message &request) {
      transfer(from, request, "check of",
               [this](const std::string &path) { return with_image(path, CFM_StoreCheckImage); });
    });
  }

 private:
  // No file has a path of PATH_MAX characters, so more of it is not kept.
  static std::string path_in(const Message &request) {
    const std::string_view text(request.body.data(), request.body.size());
    return std::string(text.substr(0, std::min<size_t>(text.find('\0'), PATH_MAX)));
  }

  // Name and process, and whose process it is.
  static std::string who(const Client &client) {
    if (client.peer.uid == servers::Peer::kNobody) return client.label();
    return fmt::format("{}, uid {}", client.label(), client.peer.uid);
  }

  static std::string text_of(uint32_t result) {
    if (result == CFM_OK) return "done";
    if (result >= result_of(SealStatus::kBadPath) && result <= result_of(SealStatus::kTaken)) {
      return seal_text(static_cast<SealStatus>(result));
    }
    return fmt::format("failed with 0x{:x}", result);
  }

  template <typename Job>
  void run(Client &from, const Message &request, const char *what, Job job) {
    start(from, request, std::move(job),
          [label = from.label(), what](uint32_t result) { log_failure(label, what, result); });
  }

  template <typename Job>
  void run_and_answer(Client &from, const Message &request, const char *what, Job job) {
    start(
        from, request, std::move(job),
        [this, id = from.id, header = request.header, label = from.label(), what](uint32_t result) {
          log_failure(label, what, result);
          answer(id, header, result);
        });
  }

  // A configuration that leaves the device or comes to it is always logged.
  template <typename Job>
  void transfer(Client &from, const Message &request, const char *what, Job job) {
    const std::string path = path_in(request);
    start(
        from, request, [job, path] { return job(path); },
        [this, id = from.id, header = request.header, who = who(from), what,
         path](uint32_t result) {
          log_line("{}: {} {}: {}", who, what, path, text_of(result));
          answer(id, header, result);
        });
  }

  static void log_failure(const std::string &label, const char *what, uint32_t result) {
    if (result != CFM_OK) log_line("{}: {} the configuration: {}", label, what, text_of(result));
  }

  void answer(uint32_t id, const Header &header, uint32_t result) {
    Client *client = server_->by_id(id);
    if (client == nullptr) return;
    server_->outbox().reply(*client, Message{header, {}, {}}, result);
    server_->outbox().flush();
  }

  // A request counts for its user until it is done, and the users take turns. So nobody makes the
  // server keep many of them, or others wait for many.
  template <typename Job, typename Done>
  void start(Client &from, const Message &request, Job job, Done done) {
    const auto share =
        std::make_shared<Share>(server_->accounts().share(from.account, Kept::kJobs));
    if (!*share) return server_->refuse(from, request, "configuration requests");
    const auto result = std::make_shared<uint32_t>(CFM_OK);
    // The requester gets an answer whatever happens.
    const auto attempt = [result, job] {
      try {
        *result = job();
      } catch (const std::bad_alloc &) {
        *result = CFM_ERR_MEMORY;
      } catch (const std::exception &error) {
        *result = CFM_ERR_UNAVAILABLE;
        log_line("the configuration store: {}", error.what());
      }
    };
    worker_.run(
        attempt, [result, done, share] { done(*result); }, share->user());
  }

  uint32_t write_export(const std::string &path, uint32_t user) const {
    void *image = nullptr;
    uint32_t size = 0;
    const uint32_t status = CFM_StoreExport(&image, &size);
    const std::unique_ptr<void, void (*)(void *)> owner(image, ::free);
    if (status != CFM_OK) return status;
    return result_of(write_sealed(seal_, path, {static_cast<const char *>(image), size}, user));
  }

  uint32_t with_image(const std::string &path, uint32_t (*use)(const void *, uint32_t)) const {
    std::vector<char> image;
    const SealStatus status = read_sealed(seal_, path, kLargestImage, &image);
    if (status != SealStatus::kOk) return result_of(status);
    return use(image.data(), static_cast<uint32_t>(image.size()));
  }

  Server *server_;
  const SealOptions seal_;
  std::unordered_map<uint32_t, uint32_t> export_users_;
  Worker worker_;  // last: its jobs use the above
};

}  // namespace

std::unique_ptr<Service> make_config_manager(Server *server) {
  return std::make_unique<ConfigManager>(server);
}

}  // namespace msgsvr
