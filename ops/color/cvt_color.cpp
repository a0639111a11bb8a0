// zarvel_frame_cvt_color: shortcuts for outputs that need no pixel work, the output checks,
// and the conversion through slot 4 of the Device API table.
#include <zarvel/aux.h>

#include "frame_api/frame_api.h"
#include "ops/color/color.h"
#include "plugin/device_api.h"
#include "plugin/dispatch.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr const char* kCvtColor = "zarvel_frame_cvt_color";

int32_t cvt_color(zarvel_frame_t* src, zarvel_frame_t** out, uint32_t dst_format) {
  if (src == nullptr || out == nullptr || src->format == 0) return kInvalidArgument;
  const uint32_t src_mem = zarvel_frame_mem_type(src);
  bool allocated = false;

  if (*out == nullptr) {
    if (is_yuv420(src->format) && dst_format == ZARVEL_PIXFMT_GREY) {
      // The luma plane already is the grey image: a relabelled reference, no pixel touched.
      zarvel_frame_t* luma = zarvel_frame_ref(src);
      if (luma == nullptr) return kFailed;
      luma->format = ZARVEL_PIXFMT_GREY;
      luma->plane_count = 1;
      *out = luma;
      return kOk;
    }
    if (src->format == dst_format) {
      ZA_LOG(ZARVEL_LOG_NOTE,
             "[%s] Converting a frame to the same color space, degrade to zarvel_frame_ref to "
             "speed up!\n",
             kCvtColor);
      *out = zarvel_frame_ref(src);
      return *out != nullptr ? kOk : kFailed;
    }
    const int32_t default_strides[4] = {0, 0, 0, 0};
    *out = zarvel_frame_alloc(src_mem, dst_format, src->width, src->height, default_strides,
                              src->meta_word1);
    if (*out == nullptr) return kFailed;
    allocated = true;
  } else {
    const zarvel_frame_t* given = *out;
    const uint32_t given_mem = zarvel_frame_mem_type(given);
    if (given_mem != src_mem || given->format != dst_format || given->width != src->width ||
        given->height != src->height) {
      ZA_LOG(ZARVEL_LOG_FAILURE,
             "[%s] Required_frame and given_frame not match:\n\treq:\tgiven:\nmem:\t%d\t%d\n"
             "fmt:\t%s\t%s\nwidth:\t%d\t%d\nheight:\t%d\t%d\n",
             kCvtColor, static_cast<int>(src_mem), static_cast<int>(given_mem),
             zarvel_frame_pixfmt_to_string(dst_format),
             zarvel_frame_pixfmt_to_string(given->format), src->width, given->width, src->height,
             given->height);
      return kInvalidArgument;
    }
    if (src->format == dst_format) {
      ZA_LOG(ZARVEL_LOG_ADVICE,
             "[%s] Converting a frame to the same color space, degrade to zarvel_frame_copy to "
             "speed up!\n",
             kCvtColor);
      return zarvel_frame_copy(src, out);
    }
  }

  const auto slot = [](zarvel_frame_t* s, zarvel_frame_t* d) {
    return host_device_api().cvt_color(s, d);
  };
  // The kernels write rows and planes before they have read all of the source (YU12 to NV12 in
  // place would overwrite U before reading it).
  return dispatch_unshared_frame_op(kCvtColor, "converting", src, out, allocated, slot);
}

}  // namespace
}  // namespace zarvel::aux

extern "C" ZARVEL_AUX_API int32_t zarvel_frame_cvt_color(zarvel_frame_t* src, zarvel_frame_t** out,
                                                         uint32_t dst_format) {
  return zarvel::aux::cvt_color(src, out, dst_format);
}
