// zarvel_frame_crop, zarvel_frame_resize and zarvel_frame_scale.
#include "ops/crop_resize/crop_resize.h"

#include <zarvel/aux.h>

#include <algorithm>
#include <cmath>

#include "frame_api/frame_api.h"
#include "plugin/device_api.h"
#include "plugin/dispatch.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr const char* kCrop = "zarvel_frame_crop";
constexpr const char* kResize = "zarvel_frame_resize";

void log_illegal_roi(const zarvel_frame_t* src, Area2D area) {
  ZA_LOG(ZARVEL_LOG_FAILURE,
         "[%s] Illegal RoI. Cannot get sub frame of Area2D{%d, %d, %d, %d} from frame of "
         "Size2D{ %d, %d }!\n",
         kCrop, area.x, area.y, area.width, area.height, src->width, src->height);
}

// Fills `bytes` bytes from `data` through a buffer wrapped around the frame's memory, so that
// device memory is filled by the frame library.
int32_t fill_bytes(uint8_t* data, int64_t bytes, uint32_t mem_type, int32_t value) {
  BufferPtr buffer(zarvel_buffer_make(data, bytes, mem_type, nullptr, nullptr));
  if (!buffer) return kFailed;
  return zarvel_buffer_set(buffer.get(), value);
}

// A newly allocated crop output outside the source shows black luma, neutral chroma, and
// zeros for packed and grey frames.
void fill_background(zarvel_frame_t* out) {
  const uint32_t mem = zarvel_frame_mem_type(out);
  switch (out->format) {
    case ZARVEL_PIXFMT_YU12:
    case ZARVEL_PIXFMT_NV21:
    case ZARVEL_PIXFMT_NV12: {
      const int64_t stride = out->stride[0];
      // For YU12 the second fill covers both chroma planes, which lie back to back.
      if (fill_bytes(out->plane[0], stride * out->height, mem, 0) == kOk) {
        fill_bytes(out->plane[1], static_cast<int64_t>(out->height / 2) * stride, mem, 128);
      }
      break;
    }
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
    case ZARVEL_PIXFMT_GREY:
      zarvel_frame_reset(out, 0);
      break;
    default:
      break;
  }
}

int32_t crop(zarvel_frame_t* src, zarvel_frame_t** dst, Area2D area) {
  if (src == nullptr || dst == nullptr) return kInvalidArgument;
  const int64_t right = static_cast<int64_t>(area.x) + area.width;
  const int64_t bottom = static_cast<int64_t>(area.y) + area.height;
  if (area.x >= 0 && area.y >= 0 && right <= src->width && bottom <= src->height) {
    FramePtr view(zarvel_frame_roi(src, area));
    if (!view) log_illegal_roi(src, area);
    return zarvel_frame_copy(view.get(), dst);
  }

  const bool allocated = *dst == nullptr;
  int32_t status = prepare_output(src, dst, {area.width, area.height}, kCrop);
  if (status != kOk) return status;
  if (allocated) fill_background(*dst);

  const int64_t x0 = std::max<int64_t>(area.x, 0), y0 = std::max<int64_t>(area.y, 0);
  const int64_t x1 = std::min<int64_t>(right, src->width);
  const int64_t y1 = std::min<int64_t>(bottom, src->height);
  const auto w = static_cast<int32_t>(x1 - x0), h = static_cast<int32_t>(y1 - y0);
  FramePtr src_view(
      zarvel_frame_roi(src, {static_cast<int32_t>(x0), static_cast<int32_t>(y0), w, h}));
  zarvel_frame_t* dst_view = zarvel_frame_roi(
      *dst, {static_cast<int32_t>(x0 - area.x), static_cast<int32_t>(y0 - area.y), w, h});
  if (!src_view || dst_view == nullptr) log_illegal_roi(src, area);
  status = zarvel_frame_copy(src_view.get(), &dst_view);
  zarvel_frame_free(&dst_view);
  if (status != kOk && allocated) zarvel_frame_free(dst);
  return status;
}

int32_t resize(zarvel_frame_t* src, zarvel_frame_t** dst, Size2D size) {
  if (src == nullptr || dst == nullptr) return kInvalidArgument;
  if (size.width <= 0 || size.height <= 0) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Invalid target size Size2D{ %d, %d }!\n", kResize, size.width,
           size.height);
    return kInvalidArgument;
  }
  const bool allocated = *dst == nullptr;
  int32_t status = prepare_output(src, dst, size, kResize);
  if (status != kOk) return status;
  status = is_same_frame_fmt_and_memtype(src, *dst, kResize);
  if (status != kOk) return status;
  if (size.width == src->width && size.height == src->height) {
    ZA_LOG(ZARVEL_LOG_NOTE, "[%s] Scale ratio is 1, degrade to zarvel_frame_copy to speed up.\n",
           kResize);
    return zarvel_frame_copy(src, dst);
  }
  return dispatch_frame_op(kResize, src, dst, allocated,
                           [size](zarvel_frame_t* s, zarvel_frame_t* d) {
                             return host_device_api().resize(s, d, size);
                           });
}

int32_t scale(zarvel_frame_t* src, zarvel_frame_t** dst, float ratio) {
  if (src == nullptr && !(ratio > 0.0f)) return kInvalidArgument;
  if (src == nullptr) return kInvalidArgument;
  const float w = static_cast<float>(src->width) * ratio;
  const float h = static_cast<float>(src->height) * ratio;
  // Truncation toward zero of a value an int32 cannot hold is undefined: refuse it.
  if (!(std::fabs(w) < 2147483520.0f) || !(std::fabs(h) < 2147483520.0f)) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Invalid scale ratio %f for frame of Size2D{ %d, %d }!\n",
           "zarvel_frame_scale", static_cast<double>(ratio), src->width, src->height);
    return kInvalidArgument;
  }
  return resize(src, dst, {static_cast<int32_t>(w), static_cast<int32_t>(h)});
}

}  // namespace
}  // namespace zarvel::aux

extern "C" {

ZARVEL_AUX_API int32_t zarvel_frame_crop(zarvel_frame_t* src, zarvel_frame_t** dst, Area2D area) {
  return zarvel::aux::crop(src, dst, area);
}

ZARVEL_AUX_API int32_t zarvel_frame_resize(zarvel_frame_t* src, zarvel_frame_t** dst, Size2D size) {
  return zarvel::aux::resize(src, dst, size);
}

ZARVEL_AUX_API int32_t zarvel_frame_scale(zarvel_frame_t* src, zarvel_frame_t** dst, float ratio) {
  return zarvel::aux::scale(src, dst, ratio);
}

}  // extern "C"
