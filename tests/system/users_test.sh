#!/usr/bin/env bash
# users_test.sh SOURCE BUILD: two ordinary users, members of one group, send each other bodies that
# travel through files, with the directories as the packages make them.
set -euo pipefail
source=$(realpath "$1")
build=$(realpath "$2")
readonly sender=65533 receiver=65532 members=65531

if ! awk '$1 <= 65532 && $1 + $3 > 65533 { found = 1 } END { exit !found }' /proc/self/uid_map; then
  echo "an ordinary user's sandbox has no other users"
  exit 77
fi
fail() {
  cat /var/log/servers.log
  echo "$*"
  exit 1
}

# The lines of the packages' file that systemd-tmpfiles would act on, with a group of ours.
while read -r kind path mode _; do
  [[ $kind == d ]] && install -d -g "$members" -m "$mode" "${path/#\/run//var/run}"
done <"$source/packaging/systemd/msgapi.tmpfiles"

cat >/var/large.c <<'C'
/* large serve: answers with the number of sevens in a body. large send: prints such an answer. */
#include <msgapi.h>
#include <stdlib.h>
#include <string.h>
enum { kSize = 65536, kType = 0x1234 };
static ORP_MSG_HEADER_ST *count(ORP_MSG_HEADER_ST *request) {
  const char *body = (const char *)request + ORP_MSG_HEADER_SIZE;
  uint32_t sevens = 0, i;
  for (i = 0; i < request->ulDataLen; ++i) sevens += body[i] == 7;
  return ORP_MSG_MsgRespBuilder(request, sevens, NULL, 0);
}
int main(int argc, char **argv) {
  const int serve = argc == 2 && strcmp(argv[1], "serve") == 0;
  ORP_MSG_HEADER_ST *request = malloc(ORP_MSG_HEADER_SIZE + kSize), *answer = NULL;
  uint32_t status;
  if (request == NULL) return 1;
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_RegisterSyncMsgProc(kType, count, 0, NULL);
  if (ORP_MSG_Init(serve ? "server" : "client") != ORP_OK) return 1;
  if (serve) return (int)OrpUvLoopRun(NULL, 20000);
  ORP_MSG_SimpleBuilder(request, "server", kType, 0);
  request->ulDataLen = kSize;
  memset((char *)request + ORP_MSG_HEADER_SIZE, 7, kSize);
  status = ORP_MSG_SendAndRecv(request, &answer, 5000);
  if (status != ORP_OK) return printf("status 0x%x\n", status), 1;
  return printf("%u sevens\n", answer->ulMsgData) < 0;
}
C
cc -std=c99 -I"$source/include" /var/large.c -L"$build/lib" -lmsgapi -Wl,-rpath,"$build/lib" -o /var/large

as() { setpriv --reuid="$1" --regid="$1" --groups="$members" "${@:2}"; }
export -f as
export sender receiver members
# shellcheck disable=SC2016 # expanded inside
output=$("$build/bin/with_servers.sh" bash -euc '
  as "$receiver" /var/large serve &
  for try in 1 2 3 4 5 6 7 8 9 10; do
    as "$sender" /var/large send && break
    sleep 0.5
  done
  kill "$!"
  ls /var/run/msg' 2>/var/log/servers.log) || fail "it failed after: $output"
[[ $output == *"65536 sevens" ]] || fail "printed (and left behind): $output"
