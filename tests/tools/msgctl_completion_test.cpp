// The help, and the words that shells offer.

#include <gmock/gmock.h>

#include <fstream>
#include <string>

#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
using test::Admin;
using test::client;
using test::Msgctl;
using test::Output;
using test::RawClient;
using test::run;
using test::shell;
using testing::AllOf;
using testing::HasSubstr;

TEST_F(Msgctl, CompletesInBash) {
  Admin admin({{"GET /v1/clients", json{{"clients", {client(1, "wifi"), client(2, "wan")}}}.dump()},
               {"GET /v1/paths", json{{"paths", {{{"path", "/dev"}}}}}.dump()}});
  const auto complete = [](const std::string &line) {
    return shell("source " MSGAPI_SOURCE
                 "/tools/msgctl/completion/msgctl.bash\n"
                 "COMP_WORDS=(" +
                 line +
                 ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_msgctl\n"
                 "printf '%s ' \"${COMPREPLY[@]}\"")
        .text;
  };
  EXPECT_EQ("wan wifi ", complete("msgctl info w"));
  EXPECT_EQ("wan wifi ", complete("msgctl call --timeout 100 w"));
  EXPECT_EQ("wan web webconsole wlan ", complete("msgctl publish w"));
  EXPECT_EQ("save-cfg save-cfg-sync save-cfg-to-app save-cfg-to-app-sync ",
            complete("msgctl call wifi save-cfg"));
  EXPECT_EQ("/dev ", complete("msgctl get /"));
  EXPECT_EQ("list listen ", complete("msgctl lis"));
  EXPECT_THAT(complete("msgctl wait --"), AllOf(HasSubstr("--gone"), HasSubstr("--timeout")));
  EXPECT_EQ("wifi ", complete("msgctl wait --gone wif"));
  std::ofstream("/var/file.pcapng");
  EXPECT_EQ("/var/file.pcapng ", complete("msgctl replay --to wifi /var/file"));
}

// The line after the tab key, by zsh's own completion system.
TEST_F(Msgctl, CompletesInZsh) {
  if (shell("command -v zsh").status != 0) GTEST_SKIP() << "zsh is not installed";
  RawClient wifi("wifi");
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
                  "msgctl info w\n"
                  "msgctl call --timeout 100 w\n"
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

TEST_F(Msgctl, CompletesInFish) {
  if (shell("command -v fish").status != 0) GTEST_SKIP() << "fish is not installed";
  RawClient wifi("wifi"), wan("wan");
  const auto complete = [](const std::string &line) {
    return shell("cd /var; HOME=/var fish --no-config -c 'source " MSGAPI_SOURCE
                 "/tools/msgctl/completion/msgctl.fish; complete -C \"" +
                 line + "\"' | cut -f 1 | tr '\\n' ' '")
        .text;
  };
  std::ofstream("/var/file.pcapng");
  EXPECT_EQ("list listen ", complete("msgctl lis"));
  EXPECT_EQ("wan wifi ", complete("msgctl info w"));
  EXPECT_EQ("wan wifi ", complete("msgctl call --timeout 100 w"));
  EXPECT_EQ("save-cfg save-cfg-sync save-cfg-to-app save-cfg-to-app-sync ",
            complete("msgctl call wifi save-cfg"));
  EXPECT_EQ("wan web webconsole wlan ", complete("msgctl publish w"));
  EXPECT_EQ("wifi ", complete("msgctl wait --gone wif"));
  EXPECT_EQ("file.pcapng ", complete("msgctl replay file"));
  EXPECT_THAT(complete("msgctl call --"), AllOf(HasSubstr("--sub-type"), HasSubstr("--timeout")));
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
