// Who may do what at the message server: a list of rules, the first that fits decides.
// docs/policy.md has the file's format.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/type_files.h"

namespace policy {

// Where the server looks for its policy unless it is told.
inline constexpr const char *kDefaultFile = "/etc/msgapi/policy.json";

// What a rule is about.
enum class Action : uint8_t {
  kOwn,              // registering under a name
  kSend,             // a message to an application, or to the server (mic), events included
  kReceive,          // a message from an application
  kSubscribe,        // getting events of a type
  kSubscribeOthers,  // subscribing an application by its name, and cancelling that
  kService,          // what the server does itself
  kHttp,             // a request by HTTP
  kSpeakFor,         // sending in another application's name
};
inline constexpr size_t kActions = 8;
std::string_view word_of(Action action);
std::optional<Action> action_of(std::string_view word);

// What the server does itself, for those who may ask for it.
enum class Service : uint8_t {
  kConfigSave,
  kConfigExport,
  kConfigImport,
  kConfigCheck,
  kConfigRestore,
  kReboot,
  kApplicationStart,
  kApplicationStop,
  kLogin,
  kLoginLimits,
  kExitOthers,
  kSyncPoints,
};
inline constexpr size_t kServices = 12;
std::string_view word_of(Service service);
std::optional<Service> service_of(std::string_view word);
// The service that a message to the server asks for; most types ask for none, or for one that
// everybody may have. `data` is its ulMsgData. ORP_MSG_EXIT asks for kExitOthers if it names
// another application.
std::optional<Service> service_of(uint32_t type, uint32_t data);

// Who asks, as the kernel knows it.
struct Who {
  static constexpr uid_t kUnknown = static_cast<uid_t>(-1);

  uid_t user = kUnknown;
  std::vector<gid_t> groups = {};  // the one of the process, too
  std::string board = {};          // "ADDRESS:PORT" on which it came in over TCP, else empty
};

struct Question {
  Action action;
  // kOwn, kSubscribeOthers, kSpeakFor: that name; kSend: the receiver's; kReceive: the sender's;
  // kService: its word; kHttp: the path.
  std::string_view name = {};
  uint32_t type = 0;             // kSend, kReceive, kSubscribe, kSubscribeOthers
  std::string_view method = {};  // kHttp
};

struct Decision {
  static constexpr uint32_t kDefault = 0;
  static constexpr uint32_t kBuiltIn = UINT32_MAX;

  bool allowed;
  uint32_t rule;  // its place in the file, from 1; or one of the above
  size_t line;    // of the rule, 0 without one
};

// The file cannot be read, or there is a mistake in it.
struct BadPolicy : std::runtime_error {
  explicit BadPolicy(catalogue::Problem what)
      : std::runtime_error(what.text()), problem(std::move(what)) {}
  catalogue::Problem problem;
};

// Whether a name or a path fits a rule's pattern: "*" stands for any characters, also none, "?" for
// one. The time is at most proportional to the product of both lengths.
bool matches(std::string_view pattern, std::string_view text) noexcept;

class Policy {
 public:
  // The policy without a file: everything is allowed, except what only root and members of
  // `own_group`, the server's, may do: exporting, importing and restoring the configuration,
  // stopping applications, rebooting, and changing login locks and limits.
  explicit Policy(gid_t own_group);
  // The rules of `text`; where they do not decide, the restrictions above stay. `file` is named in
  // problems and reasons. Throws BadPolicy.
  Policy(std::string_view text, std::string_view file, const catalogue::Catalogue &types,
         gid_t own_group);
  // The same of a file.
  static Policy load(const std::string &path, const catalogue::Catalogue &types, gid_t own_group);

  Decision decide(const Who &who, const Question &question) const;
  // Whether anybody is refused any of that.
  bool limits(Action action) const { return limits_[static_cast<size_t>(action)]; }
  bool has_file() const { return !file_.empty(); }
  size_t size() const { return count_; }

  // "/etc/msgapi/policy.json:12", for people.
  std::string source_of(const Decision &decision) const;

 private:
  struct Range {
    uint32_t first;
    uint32_t last;
  };
  // Empty lists fit everything; a rule without users, groups and boards fits everybody.
  struct Rule {
    bool allows = false;
    uint32_t number = 0;
    size_t line = 0;
    std::vector<uid_t> users = {};
    std::vector<gid_t> groups = {};
    std::vector<std::string> boards = {};
    std::vector<std::string> names = {};
    std::vector<std::string> methods = {};
    std::vector<Range> types = {};
  };
  struct Reader;

  static bool fits(const Rule &rule, const Who &who);
  static bool fits(const Rule &rule, const Question &question);
  void add_built_in(gid_t own_group);
  void note_limits();

  std::string file_;
  bool default_ = true;
  size_t count_ = 0;
  std::array<std::vector<Rule>, kActions> rules_;
  std::array<bool, kActions> limits_{};
};

}  // namespace policy
