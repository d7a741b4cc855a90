// A shim that lets every call be: what the driver must not take for a success.

#include "plan.h"

extern "C" {

void torture_attach(torture::Plan *) {}

int32_t torture_blocks() {
  return 0;
}
}
