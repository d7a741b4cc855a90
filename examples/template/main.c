/* @NAME@: answers requests of type TYPE_DOUBLE with the number they carry, doubled. */
#include "@NAME@.h"

#include <msgapi.h>
#include <msgapi/kit.h>

static ORP_MSG_HEADER_ST *twice(ORP_MSG_HEADER_ST *request) {
  return ORP_MSG_MsgRespBuilder(request, 2 * request->ulMsgData, NULL, 0);
}

/* Before connecting: everything that other processes may ask for is registered here. */
static uint32_t start(void) {
  return ORP_MSG_RegisterSyncMsgProc(TYPE_DOUBLE, twice, 0, NULL);
}

int main(void) {
  const MSGKIT_DAEMON_ST daemon = {"@NAME@", start, NULL, NULL, NULL};
  return msgkit_run_daemon(&daemon);
}
