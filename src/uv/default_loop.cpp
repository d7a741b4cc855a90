#include "uv/default_loop.h"

#include "uv/child_signal.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvLoop) == 440);

OrpUvLoop g_default_loop;
OrpUvLoop *g_override;

}  // namespace

void init_loop(OrpUvLoop *loop) {
  const ChildSignalBlock block;
  *loop = OrpUvLoop{};
  loop->flags = ORP_UV_LOOP_INITIALISED;
}

OrpUvLoop *default_loop() {
  if (g_override != nullptr) return g_override;
  if ((g_default_loop.flags & ORP_UV_LOOP_INITIALISED) == 0) init_loop(&g_default_loop);
  return &g_default_loop;
}

OrpUvLoop *default_loop_override() {
  return g_override;
}

void set_default_loop_override(OrpUvLoop *loop) {
  const ChildSignalBlock block;
  g_override = loop;
}

OrpUvLoop *own_default_loop() {
  return &g_default_loop;
}

}  // namespace msgapi::uv

using namespace msgapi::uv;

extern "C" void OrpUvLoopInit(OrpUvLoop *loop) {
  if (loop != nullptr) init_loop(loop);
}

extern "C" OrpUvLoop *OrpUvLoopGetDefault(void) {
  return default_loop();
}
