// Slot 1 of the host Device API: rotates each plane of a frame, the chroma planes of the
// 4:2:0 formats at half size.
#include <algorithm>

#include "ops/rotate/rotate.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {

int32_t host_rotate(zarvel_frame_t* src, zarvel_frame_t* dst, float angle) {
  // Truncation toward zero; a value no int32 holds (or NaN) is no rotation at all.
  const int32_t degrees =
      angle > -2147483648.0f && angle < 2147483648.0f ? static_cast<int32_t>(angle) : 0;
  const int32_t sw = src->width, sh = src->height;
  const bool quarter = degrees == 90 || degrees == 270;
  // A given output may be larger than the rotated image: only the top-left rotated size is
  // written, the rest keeps its pixels, and the source is never read outside its bounds.
  const int32_t dw = std::min(dst->width, quarter ? sh : sw);
  const int32_t dh = std::min(dst->height, quarter ? sw : sh);
  auto plane = [&](int i, int32_t pixel_size, int32_t div) {
    rotate::rotate_plane(degrees, pixel_size, sh / div, sw / div, src->stride[i], src->plane[i],
                         dh / div, dw / div, dst->stride[i], dst->plane[i]);
  };
  switch (src->format) {
    case ZARVEL_PIXFMT_GREY:
      plane(0, 1, 1);
      return kOk;
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
      plane(0, 3, 1);
      return kOk;
    case ZARVEL_PIXFMT_NV12:
    case ZARVEL_PIXFMT_NV21:
      // Each chroma pair moves as one two-byte pixel, whatever its order.
      plane(0, 1, 1);
      plane(1, 2, 2);
      return kOk;
    case ZARVEL_PIXFMT_YU12:
      plane(0, 1, 1);
      plane(1, 1, 2);
      plane(2, 1, 2);
      return kOk;
    default:
      ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "Rotating a frame in format [%s] is not supported yet!\n",
                  zarvel_frame_pixfmt_to_string(src->format));
      return kOk;  // the destination keeps its pixels; the status stays 0 by design
  }
}

}  // namespace zarvel::aux
