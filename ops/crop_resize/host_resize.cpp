// Slot 0 of the host Device API: resize each plane of a frame with the bilinear resampler.
#include "ops/crop_resize/crop_resize.h"
#include "ops/crop_resize/resample.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {

int32_t host_resize(zarvel_frame_t* src, zarvel_frame_t* dst, Size2D size) {
  const int32_t sw = src->width, sh = src->height;
  const int32_t dw = size.width, dh = size.height;
  auto plane = [&](int i, int32_t sw_i, int32_t sh_i, int32_t dw_i, int32_t dh_i, int32_t c) {
    return resample::resample_plane(src->plane[i], sw_i, sh_i, src->stride[i], dst->plane[i], dw_i,
                                    dh_i, dst->stride[i], c);
  };
  int32_t status = kOk;
  switch (src->format) {
    case ZARVEL_PIXFMT_GREY:
      return plane(0, sw, sh, dw, dh, 1);
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
      return plane(0, sw, sh, dw, dh, 3);
    case ZARVEL_PIXFMT_NV12:
    case ZARVEL_PIXFMT_NV21:
      // The chroma pairs move together as two interleaved channels, whatever their order.
      status = plane(0, sw, sh, dw, dh, 1);
      if (status == kOk) status = plane(1, sw / 2, sh / 2, dw / 2, dh / 2, 2);
      return status;
    case ZARVEL_PIXFMT_YU12:
      status = plane(0, sw, sh, dw, dh, 1);
      if (status == kOk) status = plane(1, sw / 2, sh / 2, dw / 2, dh / 2, 1);
      if (status == kOk) status = plane(2, sw / 2, sh / 2, dw / 2, dh / 2, 1);
      return status;
    default:
      ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "Resizing a frame in format [%s] is not supported yet!\n",
                  zarvel_frame_pixfmt_to_string(src->format));
      return kOk;  // the destination keeps its pixels; the status stays 0 by design
  }
}

}  // namespace zarvel::aux
