// zarvel_frame_rotate: clockwise quarter and half turns through slot 1 of the Device API.
#include "ops/rotate/rotate.h"

#include <zarvel/aux.h>

#include <cstdint>

#include "frame_api/frame_api.h"
#include "plugin/device_api.h"
#include "plugin/dispatch.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr const char* kRotate = "zarvel_frame_rotate";

int32_t rotate_frame(zarvel_frame_t* src, zarvel_frame_t** dst, int32_t code) {
  if (src == nullptr || dst == nullptr) return kInvalidArgument;
  float angle = 0.0f;
  Size2D size{src->width, src->height};
  switch (code) {
    case 0:
      angle = 90.0f;
      size = {src->height, src->width};
      break;
    case 1:
      angle = 180.0f;
      break;
    case 2:
      angle = 270.0f;
      size = {src->height, src->width};
      break;
    default:
      return kInvalidArgument;
  }
  const bool allocated = *dst == nullptr;
  int32_t status = prepare_output(src, dst, size, kRotate);
  if (status != kOk) return status;
  status = is_same_frame_fmt_and_memtype(src, *dst, kRotate);
  if (status != kOk) return status;
  auto slot = [angle](zarvel_frame_t* s, zarvel_frame_t* d) {
    return host_device_api().rotate(s, d, angle);
  };
  // Every output pixel comes from elsewhere in the source, so rotating in place would read
  // pixels already overwritten.
  return dispatch_unshared_frame_op(kRotate, "rotating", src, dst, allocated, slot);
}

}  // namespace
}  // namespace zarvel::aux

extern "C" ZARVEL_AUX_API int32_t zarvel_frame_rotate(zarvel_frame_t* src, zarvel_frame_t** dst,
                                                      int32_t code) {
  return zarvel::aux::rotate_frame(src, dst, code);
}
