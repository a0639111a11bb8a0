// A tiny application built against the installed tree.
#include <zarvel/aux.h>

#include <cstdio>
#include <cstring>

int main() {
  auto* frame = zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 8, 4, nullptr, 0);
  const bool ok = frame != nullptr && std::strcmp(__plugin_name(), "zarvel_aux") == 0 &&
                  std::strcmp(zarvel_device_get_name(), "") != 0;
  zarvel_frame_free(&frame);
  std::printf("%s %s\n", __plugin_name(), zarvel_aux_version());
  return ok ? 0 : 1;
}
