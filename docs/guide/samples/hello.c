/* hello: asks itself for twice 21. */
#include <msgapi.h>
#include <stdio.h>

static ORP_MSG_HEADER_ST *twice(ORP_MSG_HEADER_ST *request) {
  return ORP_MSG_MsgRespBuilder(request, 2 * request->ulMsgData, NULL, 0);
}

int main(void) {
  uint32_t answer = 0;
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_RegisterSyncMsgProc(0x1234, twice, 0, NULL);
  if (ORP_MSG_Init("hello") != ORP_OK) return 1;
  if (ORP_MSG_SendAndRecvMsgData("hello", 0x1234, 21, 1000, &answer) != ORP_OK) return 1;
  printf("%u\n", answer);
  return 0;
}
