// Pixel formats: names, plane geometry and the contiguous layout every frame allocation uses.
#include <zarvel/frame.h>

#include <cstdint>
#include <limits>

#include "internal.h"

namespace zarvel::frame_internal {

namespace {

constexpr FormatInfo kFormats[] = {
    {ZARVEL_PIXFMT_GREY, "GREY", 1, 1, false},     {ZARVEL_PIXFMT_RGB24, "RGB24", 1, 3, false},
    {ZARVEL_PIXFMT_BGR24, "BGR24", 1, 3, false},   {ZARVEL_PIXFMT_NV12, "NV12", 2, 1, true},
    {ZARVEL_PIXFMT_NV21, "NV21", 2, 1, true},      {ZARVEL_PIXFMT_YU12, "YU12", 3, 1, true},
    {ZARVEL_PIXFMT_GREY16, "GREY16", 1, 2, false},
};

// Stride a plane gets when the caller leaves it to the library: plane 0 holds exactly one
// visible row; the interleaved chroma plane of NV12/NV21 has the luma stride (it carries
// width/2 U,V pairs), and the separate chroma planes of YU12 have half of it.
int64_t default_stride(const FormatInfo& info, int32_t plane, int64_t stride0, int64_t row0) {
  if (plane == 0) return row0;
  return info.planes == 2 ? stride0 : stride0 / 2;
}

}  // namespace

const FormatInfo* find_format(uint32_t code) noexcept {
  for (const FormatInfo& info : kFormats) {
    if (info.code == code) return &info;
  }
  return nullptr;
}

PlaneShape plane_shape(const FormatInfo& info, int32_t plane, int32_t width,
                       int32_t height) noexcept {
  if (plane == 0) return {int64_t{width} * info.pixel_size, height};
  if (info.planes == 2) return {width, height / 2};  // width/2 pairs of 2 bytes
  return {width / 2, height / 2};
}

bool valid_size(const FormatInfo& info, int32_t width, int32_t height) noexcept {
  if (width <= 0 || height <= 0) return false;
  return !info.chroma420 || (width % 2 == 0 && height % 2 == 0);
}

bool compute_layout(uint32_t format, int32_t width, int32_t height, const int32_t* strides,
                    Layout* out) noexcept {
  const FormatInfo* info = find_format(format);
  if (info == nullptr || !valid_size(*info, width, height)) return false;
  Layout layout;
  layout.planes = info->planes;
  const int64_t row0 = plane_shape(*info, 0, width, height).row_bytes;
  int64_t stride0 = 0;
  uint64_t total = 0;
  for (int32_t i = 0; i < info->planes; ++i) {
    const PlaneShape shape = plane_shape(*info, i, width, height);
    int64_t stride = strides != nullptr ? strides[i] : 0;
    if (stride == 0) stride = default_stride(*info, i, stride0, row0);
    if (stride < shape.row_bytes || stride > std::numeric_limits<int32_t>::max()) return false;
    if (i == 0) stride0 = stride;
    uint64_t size = 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(stride), static_cast<uint64_t>(shape.rows),
                               &size)) {
      return false;
    }
    layout.stride[i] = static_cast<int32_t>(stride);
    layout.plane_size[i] = size;
    layout.offset[i] = total;
    if (__builtin_add_overflow(total, size, &total)) return false;
  }
  if (total > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
  layout.total = total;
  *out = layout;
  return true;
}

}  // namespace zarvel::frame_internal

using zarvel::frame_internal::find_format;
using zarvel::frame_internal::FormatInfo;
using zarvel::frame_internal::Layout;

extern "C" int32_t zarvel_frame_pixel_size(uint32_t format) {
  const FormatInfo* info = find_format(format);
  return info != nullptr ? info->pixel_size : 0;
}

extern "C" const char* zarvel_frame_pixfmt_to_string(uint32_t format) {
  const FormatInfo* info = find_format(format);
  return info != nullptr ? info->name : "UNKNOWN";
}

extern "C" int64_t zarvel_frame_inferred_size(uint32_t format, int32_t width, int32_t height,
                                              int32_t strides[4]) {
  Layout layout;
  if (!zarvel::frame_internal::compute_layout(format, width, height, strides, &layout)) return -1;
  if (strides != nullptr) {
    for (int i = 0; i < 4; ++i) strides[i] = layout.stride[i];
  }
  return static_cast<int64_t>(layout.total);
}
