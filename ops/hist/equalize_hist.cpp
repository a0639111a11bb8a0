// zarvel_frame_equalize_hist: histogram equalisation of a grey frame through slot 5 of the
// Device API.
#include <zarvel/aux.h>

#include <cstdint>

#include "ops/hist/hist.h"
#include "plugin/device_api.h"
#include "plugin/dispatch.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr const char* kEqualize = "zarvel_frame_equalize_hist";

int32_t equalize_hist(zarvel_frame_t* src, zarvel_frame_t** dst) {
  if (src == nullptr || dst == nullptr) return kInvalidArgument;
  if (src->format != ZARVEL_PIXFMT_GREY) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Only support the histogram of a fmt:[gray] image. input fmt:[%s]\n",
           zarvel_frame_pixfmt_to_string(src->format));
    return kUnsupported;
  }
  // An empty frame has no darkest level to map to 0; the 32-bit counters bound the size.
  if (src->width <= 0 || src->height <= 0 || int64_t{src->width} * src->height > INT32_MAX) {
    ZA_LOG(ZARVEL_LOG_FAILURE,
           "[%s] Cannot equalize the histogram of a frame of %d x %d pixels: the pixel count "
           "must be between 1 and 2147483647.\n",
           kEqualize, src->width, src->height);
    return kInvalidArgument;
  }
  const bool allocated = *dst == nullptr;
  int32_t status = prepare_output(src, dst, {src->width, src->height}, kEqualize);
  if (status != kOk) return status;
  status = is_same_frame_fmt_and_memtype(src, *dst, kEqualize);
  if (status != kOk) return status;
  return dispatch_frame_op(
      kEqualize, src, dst, allocated,
      [](zarvel_frame_t* s, zarvel_frame_t* d) { return host_device_api().equalize_hist(s, d); });
}

}  // namespace
}  // namespace zarvel::aux

extern "C" ZARVEL_AUX_API int32_t zarvel_frame_equalize_hist(zarvel_frame_t* src,
                                                             zarvel_frame_t** dst) {
  return zarvel::aux::equalize_hist(src, dst);
}
