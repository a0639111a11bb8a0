// Slot 4 of the host Device API: one fixed kernel for each supported (source, destination)
// pair, looked up in the order of the pair table below.
#include "frame_api/frame_api.h"
#include "ops/color/color.h"
#include "ops/color/color_planes.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

using color::Chroma;

constexpr uint32_t kGrey = ZARVEL_PIXFMT_GREY;
constexpr uint32_t kGrey16 = ZARVEL_PIXFMT_GREY16;
constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24;
constexpr uint32_t kBgr = ZARVEL_PIXFMT_BGR24;
constexpr uint32_t kNv12 = ZARVEL_PIXFMT_NV12;
constexpr uint32_t kNv21 = ZARVEL_PIXFMT_NV21;
constexpr uint32_t kYu12 = ZARVEL_PIXFMT_YU12;

// The chroma planes of a 4:2:0 frame as U and V byte streams.
color::ChromaPlanes chroma_planes(zarvel_frame_t* f) {
  switch (f->format) {
    case ZARVEL_PIXFMT_NV12:
      return {f->plane[1], f->stride[1], f->plane[1] + 1, f->stride[1], 2};
    case ZARVEL_PIXFMT_NV21:
      return {f->plane[1] + 1, f->stride[1], f->plane[1], f->stride[1], 2};
    default:
      return {f->plane[1], f->stride[1], f->plane[2], f->stride[2], 1};
  }
}

Chroma chroma_of(uint32_t format) {
  return format == kNv12 ? Chroma::kNv12 : (format == kNv21 ? Chroma::kNv21 : Chroma::kYu12);
}

int32_t rgb_to_yuv(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::rgb_to_yuv420(s->plane[0], s->stride[0], s->format == kBgr, d->plane[0], d->stride[0],
                       chroma_planes(d), s->width, s->height);
  return kOk;
}

int32_t yuv_to_rgb(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::yuv420_to_rgb(chroma_of(s->format), s->plane[0], s->stride[0], s->plane[1], s->stride[1],
                       s->format == kYu12 ? s->plane[2] : nullptr,
                       s->format == kYu12 ? s->stride[2] : 0, d->plane[0], d->stride[0], s->width,
                       s->height, d->format == kBgr);
  return kOk;
}

// YU12 -> NV12/NV21: the Y plane, then U,V (or V,U) pairs.
int32_t planar_to_semi_planar(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::copy_plane(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width, s->height);
  const bool u_first = d->format == kNv12;
  color::interleave_chroma(
      u_first ? s->plane[1] : s->plane[2], u_first ? s->stride[1] : s->stride[2],
      u_first ? s->plane[2] : s->plane[1], u_first ? s->stride[2] : s->stride[1], d->plane[1],
      d->stride[1], s->width / 2, s->height / 2);
  return kOk;
}

// NV12/NV21 -> YU12.
int32_t semi_planar_to_planar(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::copy_plane(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width, s->height);
  const bool u_first = s->format == kNv12;
  color::split_chroma(s->plane[1], s->stride[1], u_first ? d->plane[1] : d->plane[2],
                      u_first ? d->stride[1] : d->stride[2], u_first ? d->plane[2] : d->plane[1],
                      u_first ? d->stride[2] : d->stride[1], s->width / 2, s->height / 2);
  return kOk;
}

// NV12 <-> NV21.
int32_t chroma_swap(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::copy_plane(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width, s->height);
  color::swap_pairs(s->plane[1], s->stride[1], d->plane[1], d->stride[1], s->width / 2,
                    s->height / 2);
  return kOk;
}

int32_t byte_swap(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::swap_rb(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width, s->height);
  return kOk;
}

int32_t grey_replicate(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::grey_to_rgb(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width, s->height);
  return kOk;
}

int32_t grey16_stretch(zarvel_frame_t* s, zarvel_frame_t* d) {
  if (color::grey16_stretch(s->plane[0], s->stride[0], d->plane[0], d->stride[0], s->width,
                            s->height)) {
    return kOk;
  }
  ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "No memory for the histogram of a %dx%d GREY16 frame!\n",
              s->width, s->height);
  return kFailed;
}

int32_t weighted_grey(zarvel_frame_t* s, zarvel_frame_t* d) {
  color::rgb_to_grey(s->plane[0], s->stride[0], s->format == kBgr, d->plane[0], d->stride[0],
                     s->width, s->height);
  return kOk;
}

// 4:2:0 -> GREY into a given frame: the luma plane seen as a grey frame, copied.
int32_t luma_copy(zarvel_frame_t* s, zarvel_frame_t* d) {
  FramePtr luma(zarvel_frame_ref(s));
  if (!luma) return kFailed;
  luma->format = kGrey;
  luma->plane_count = 1;
  return zarvel_frame_copy(luma.get(), &d);
}

// GREY -> 4:2:0: the grey bytes become the luma plane, the chroma is neutral (128).
int32_t grey_to_yuv(zarvel_frame_t* s, zarvel_frame_t* d) {
  const uint32_t format = d->format;
  const uint64_t plane_count = d->plane_count;
  d->format = kGrey;
  d->plane_count = 1;
  const int32_t status = zarvel_frame_copy(s, &d);
  d->format = format;
  d->plane_count = plane_count;
  if (status != kOk) return status;
  const int32_t rows = d->height / 2;
  if (format == kYu12) {
    color::fill_plane(d->plane[1], d->stride[1], d->width / 2, rows, 128);
    color::fill_plane(d->plane[2], d->stride[2], d->width / 2, rows, 128);
  } else {
    color::fill_plane(d->plane[1], d->stride[1], d->width, rows, 128);
  }
  return kOk;
}

struct Pair {
  uint32_t src;
  uint32_t dst;
  int32_t (*kernel)(zarvel_frame_t* src, zarvel_frame_t* dst);
};

// Tried in this order; the first match runs.
constexpr Pair kPairs[] = {
    {kRgb, kNv12, rgb_to_yuv},
    {kBgr, kNv12, rgb_to_yuv},
    {kYu12, kNv12, planar_to_semi_planar},
    {kGrey, kNv12, grey_to_yuv},
    {kNv21, kNv12, chroma_swap},
    {kRgb, kNv21, rgb_to_yuv},
    {kBgr, kNv21, rgb_to_yuv},
    {kYu12, kNv21, planar_to_semi_planar},
    {kGrey, kNv21, grey_to_yuv},
    {kNv12, kNv21, chroma_swap},
    {kNv12, kRgb, yuv_to_rgb},
    {kNv21, kRgb, yuv_to_rgb},
    {kYu12, kRgb, yuv_to_rgb},
    {kBgr, kRgb, byte_swap},
    {kGrey, kRgb, grey_replicate},
    {kNv12, kBgr, yuv_to_rgb},
    {kNv21, kBgr, yuv_to_rgb},
    {kYu12, kBgr, yuv_to_rgb},
    {kRgb, kBgr, byte_swap},
    {kGrey, kBgr, grey_replicate},
    {kGrey16, kGrey, grey16_stretch},
    {kRgb, kGrey, weighted_grey},
    {kBgr, kGrey, weighted_grey},
    {kNv12, kGrey, luma_copy},
    {kNv21, kGrey, luma_copy},
    {kYu12, kGrey, luma_copy},
    {kNv12, kYu12, semi_planar_to_planar},
    {kNv21, kYu12, semi_planar_to_planar},
    {kRgb, kYu12, rgb_to_yuv},
    {kBgr, kYu12, rgb_to_yuv},
    {kGrey, kYu12, grey_to_yuv},
};

}  // namespace

int32_t host_cvt_color(zarvel_frame_t* src, zarvel_frame_t* dst) {
  for (const Pair& pair : kPairs) {
    if (pair.src == src->format && pair.dst == dst->format) return pair.kernel(src, dst);
  }
  ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "Unsupported frame convert from %s to %s!\n",
              zarvel_frame_pixfmt_to_string(src->format),
              zarvel_frame_pixfmt_to_string(dst->format));
  return kUnsupported;
}

}  // namespace zarvel::aux
