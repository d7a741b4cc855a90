// The help, and the words that shells offer.

#include <gmock/gmock.h>

#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "msgapi/messages.h"
#include "tools/msgctl_support.h"

namespace {

using test::Msgctl;
using test::Output;
using test::RawClient;
using test::run;
using test::shell;
using testing::AllOf;
using testing::HasSubstr;

// In front of the tab key, and what is offered.
const std::pair<const char *, const char *> kLines[] = {
    {"msgctl lis", "list listen "},
    {"msgctl info w", "wan wifi "},
    {"msgctl call --timeout 100 w", "wan wifi "},
    {"msgctl call wifi save-cfg", "save-cfg save-cfg-sync save-cfg-to-app save-cfg-to-app-sync "},
    {"msgctl publish w", "wan web webconsole wlan "},
    {"msgctl get /", "/dev "},
    {"msgctl wait --gone wif", "wifi "},
    {"msgctl wait --g", "--gone "},
    {"msgctl call --s", "--sub-type "},
    {"msgctl replay --to wifi file", "file.pcapng "},
};

class MsgctlCompletion : public Msgctl {
 protected:
  MsgctlCompletion() { std::ofstream("/var/file.pcapng"); }
  void SetUp() override {
    Msgctl::SetUp();
    wifi_.emplace("wifi");
    wan_.emplace("wan");
    wan_->send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev\0", 5)});
    wan_->drain();
  }
  // What the command line prints. The shells wait for the bus half a second only, so that a busy
  // machine gets another try.
  static std::string completed(const std::string &command, const std::string &offered) {
    std::string text;
    test::eventually([&] { return (text = shell("cd /var; " + command).text) == offered; });
    return text;
  }
  std::optional<RawClient> wifi_, wan_;
};

TEST_F(MsgctlCompletion, CompletesInBash) {
  for (const auto &[line, offered] : kLines) {
    EXPECT_EQ(offered, completed("source " MSGAPI_SOURCE "/tools/msgctl/completion/msgctl.bash\n"
                                 "COMP_WORDS=(" +
                                     std::string(line) +
                                     ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_msgctl\n"
                                     "printf '%s ' \"${COMPREPLY[@]}\"",
                                 offered));
  }
}

// The line after the tab key, by zsh's own completion system.
TEST_F(MsgctlCompletion, CompletesInZsh) {
  if (shell("command -v zsh").status != 0) GTEST_SKIP() << "zsh is not installed";
  std::ofstream("/var/zshrc") << "PROMPT=\n"
                                 "fpath=(" MSGAPI_SOURCE
                                 R"(/tools/msgctl/completion $fpath)
autoload -Uz compinit
compinit -u -D
tab() {
  zle complete-word
  print -r -- "$LBUFFER" >>/var/completed
  LBUFFER=
}
zle -N tab
bindkey '^I' tab
: >/var/ready)";
  std::ofstream("/var/type.zsh") << R"(
zmodload zsh/zpty
zpty -b shell 'zsh -f -i'
zpty -w shell 'source /var/zshrc'
for i in {1..500}; do [[ -e /var/ready ]] && break; sleep 0.02; done
while read -r line; do
  before=$(wc -l 2>/dev/null </var/completed)
  zpty -w -n shell "$line"$'\t'
  for i in {1..500}; do [[ $(wc -l 2>/dev/null </var/completed) != $before ]] && break; sleep 0.02; done
done
zpty -d shell
cat /var/completed)";
  EXPECT_EQ(shell("zsh -f /var/type.zsh <<'LINES'\n"
                  "msgctl lis\n"
                  "msgctl info wi\n"
                  "msgctl call --timeout 100 wi\n"
                  "msgctl call wifi save-c\n"
                  "msgctl publish webc\n"
                  "msgctl wait --go\n"
                  "msgctl wait --gone wif\n"
                  "msgctl replay ready\n"
                  "LINES")
                .text,
            "msgctl list\n"
            "msgctl info wifi \n"
            "msgctl call --timeout 100 wifi \n"
            "msgctl call wifi save-cfg\n"
            "msgctl publish webconsole \n"
            "msgctl wait --gone \n"
            "msgctl wait --gone wifi \n"
            "msgctl replay ready\n");
}

TEST_F(MsgctlCompletion, CompletesInFish) {
  if (shell("command -v fish").status != 0) GTEST_SKIP() << "fish is not installed";
  for (const auto &[line, offered] : kLines) {
    EXPECT_EQ(offered, completed("HOME=/var fish --no-config -c 'source " MSGAPI_SOURCE
                                 "/tools/msgctl/completion/msgctl.fish; complete -C \"" +
                                     std::string(line) + "\"' | cut -f 1 | tr '\\n' ' '",
                                 offered));
  }
}

TEST_F(Msgctl, EveryCommandExplainsItself) {
  for (const char *command :
       {"call",   "send",  "get",    "post",   "put",   "patch", "delete",     "publish",
        "listen", "serve", "wait",   "ping",   "count", "exit",  "sync",       "notify",
        "stats",  "types", "status", "doctor", "list",  "info",  "disconnect", "complete"}) {
    const Output output = run({command, "--help"});
    EXPECT_EQ(0, output.status) << command;
    EXPECT_THAT(output.text, AllOf(HasSubstr("--json"), HasSubstr("--timeout"), HasSubstr("--as")));
  }
}

}  // namespace
