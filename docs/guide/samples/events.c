/* events: subscribes to network events and publishes one, with a cJSON payload. */
#include <cjson/cJSON.h>
#include <msgapi.h>
#include <msgapi/kit.h>
#include <stdio.h>

static uint32_t print(uint32_t type, const void *data, uint32_t length) {
  cJSON *event = cJSON_ParseWithLength(data, length);
  const cJSON *payload = cJSON_GetObjectItem(event, "Payload");
  const cJSON *address = cJSON_GetObjectItem(payload, "address");
  if (type != ORP_MSG_EVENT_NETWORK) return 1;
  printf("%s\n", cJSON_IsString(address) ? address->valuestring : "no address");
  cJSON_Delete(event);
  OrpUvLoopStop(OrpUvLoopGetDefault());
  return 0;
}

static void changed(uint32_t server, uint32_t connected) {
  cJSON *payload;
  if (server != MSGKIT_MESSAGE_SERVER || !connected) return;
  payload = cJSON_CreateObject();
  cJSON_AddStringToObject(payload, "address", "192.0.2.1");
  ORP_EVT_PublishEventWithJson(ORP_EVT_GetEventModuleNameByEventType(ORP_MSG_EVENT_NETWORK),
                               "AddressUp", ORP_MSG_EVENT_NETWORK, payload);
  cJSON_Delete(payload);
}

static uint32_t start(void) {
  return msgkit_subscribe(ORP_MSG_EVENT_NETWORK, print);
}

int main(void) {
  const MSGKIT_DAEMON_ST daemon = {"events", start, changed, NULL, NULL};
  return msgkit_run_daemon(&daemon);
}
