/* ask: asks the daemon "clock", and says what went wrong. */
#include <msgapi.h>
#include <msgapi/kit.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define TYPE_UPTIME 0x7001u

static int fails(uint32_t status) {
  fprintf(stderr, "ask: %s: %s\n", msgkit_status_name(MSGKIT_STATUS_MESSAGES, status),
          msgkit_status_sentence(MSGKIT_STATUS_MESSAGES, status));
  return 1;
}

int main(void) {
  ORP_MSG_HEADER_ST request, *answer = NULL;
  uint32_t status = ORP_MSG_InitWithoutHandle("ask"), seconds;
  if (status != ORP_OK) return fails(status);
  ORP_MSG_SimpleBuilder(&request, "clock", TYPE_UPTIME, 0);
  status = ORP_MSG_SendAndRecv(&request, &answer, 2000);
  if (status != ORP_OK) return fails(status); /* nobody answered */
  if (answer->ulMsgData != ORP_OK) return fails(answer->ulMsgData);
  if (answer->ulDataLen != sizeof seconds) return fails(ORP_ERR_ARGUMENT);
  memcpy(&seconds, ORP_MSG_GetMsgByHeader(answer), sizeof seconds);
  printf("up for %u s\n", seconds);
  free(answer);
  return 0;
}
