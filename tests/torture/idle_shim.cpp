// A shim that makes no call fail. The driver must not take that for a success.

#include "plan.h"

extern "C" {

void torture_attach(torture::Plan *) {}

int32_t torture_blocks() {
  return 0;
}
}
