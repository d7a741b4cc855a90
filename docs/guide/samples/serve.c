/* clock: answers requests, and GET /clock/uptime by HTTP. */
#include <msgapi.h>
#include <msgapi/kit.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#define TYPE_UPTIME 0x7001u

/* The first word of the answer is 0 or a status; the body is there only with 0. */
static ORP_MSG_HEADER_ST *uptime(ORP_MSG_HEADER_ST *request) {
  struct timespec now;
  uint32_t seconds;
  if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
    return ORP_MSG_MsgRespBuilder(request, ORP_ERR_SYSTEM, NULL, 0);
  }
  seconds = (uint32_t)now.tv_sec;
  return ORP_MSG_MsgRespBuilder(request, ORP_OK, &seconds, sizeof seconds);
}

/* The library frees the text. Another result than 0 sends nothing. */
static uint32_t uptime_by_path(const ORP_MSG_RESTFUL_REQ_ST *request, char **response) {
  struct timespec now;
  (void)request;
  if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) return 1;
  *response = malloc(64);
  if (*response == NULL) return 1;
  snprintf(*response, 64, "{\"seconds\": %ld}", (long)now.tv_sec);
  return 0;
}

static const ORP_MSG_RESTFUL_ROW_ST kRows[] = {{"uptime", uptime_by_path}, {NULL, NULL}};

static uint32_t start(void) {
  uint32_t status = ORP_MSG_RegisterSyncMsgProc(TYPE_UPTIME, uptime, 0, NULL);
  return status != ORP_OK ? status : msgkit_serve_path("/clock", kRows, 0);
}

int main(void) {
  const MSGKIT_DAEMON_ST daemon = {"clock", start, NULL, NULL, NULL};
  return msgkit_run_daemon(&daemon);
}
