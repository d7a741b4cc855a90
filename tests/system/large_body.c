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
