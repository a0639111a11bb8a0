// Slot 5 of the host Device API: equalises plane 0 of a grey frame.
#include <cstdint>

#include "ops/hist/hist.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {

int32_t host_equalize_hist(zarvel_frame_t* src, zarvel_frame_t* dst) {
  const int64_t pixels = int64_t{src->width} * src->height;
  if (src->width <= 0 || src->height <= 0 || pixels > INT32_MAX) {
    // No darkest level exists in an empty histogram, and the counters are 32-bit.
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
                "Cannot equalize the histogram of a frame of %d x %d pixels: the pixel count "
                "must be between 1 and 2147483647.\n",
                src->width, src->height);
    return kInvalidArgument;
  }
  hist::equalize_hist_plane(src->height, src->width, src->stride[0], src->plane[0], dst->stride[0],
                            dst->plane[0]);
  return kOk;
}

}  // namespace zarvel::aux
