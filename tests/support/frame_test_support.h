// Helpers for frame tests: pixel patterns, visible-byte snapshots and release counters.
#pragma once

#include <zarvel/frame.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <utility>
#include <vector>

namespace zarvel::test {

inline constexpr uint32_t kAllFormats[] = {
    ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_NV12,
    ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12,  ZARVEL_PIXFMT_GREY16};

// Visible {bytes per row, rows} of plane i, written out per format rather than taken from
// the library; {0, 0} past the format's last plane.
inline std::pair<int64_t, int64_t> plane_rows(uint32_t format, int i, int32_t w, int32_t h) {
  const bool nv = format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21;
  if (i == 0) return {int64_t{w} * zarvel_frame_pixel_size(format), h};
  if ((nv && i == 1) || (format == ZARVEL_PIXFMT_YU12 && i <= 2)) return {nv ? w : w / 2, h / 2};
  return {0, 0};
}

// Applies fn(row pointer, visible bytes, plane, row) to every row of every plane of a host frame.
template <typename Fn>
void for_each_row(const zarvel_frame_t* f, Fn fn) {
  for (int i = 0; i < 4; ++i) {
    const auto [row_bytes, rows] = plane_rows(f->format, i, f->width, f->height);
    for (int64_t y = 0; y < rows; ++y) fn(f->plane[i] + y * f->stride[i], row_bytes, i, y);
  }
}

// Each plane of a format the operations take: bytes per pixel and the divisor of width and
// height (none for GREY16).
struct PlaneGeometry {
  int pixel_size, div;
};
inline std::vector<PlaneGeometry> planes_of(uint32_t format) {
  if (format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21) return {{1, 1}, {2, 2}};
  if (format == ZARVEL_PIXFMT_YU12) return {{1, 1}, {1, 2}, {1, 2}};
  if (format == ZARVEL_PIXFMT_GREY16) return {};
  return {{zarvel_frame_pixel_size(format), 1}};
}

// Sets every byte a host frame's planes span, padding included.
inline void fill_planes(zarvel_frame_t* f, uint8_t value) {
  for (uint64_t i = 0; i < f->plane_count; ++i) std::fill_n(f->plane[i], f->plane_size[i], value);
}
inline void fill_random(zarvel_frame_t* f, std::mt19937& rng) {
  for (uint64_t i = 0; i < f->plane_count; ++i)
    std::generate_n(f->plane[i], f->plane_size[i], [&] { return static_cast<uint8_t>(rng()); });
}

inline void fill_pattern(zarvel_frame_t* f, int seed) {
  for_each_row(f, [seed](uint8_t* row, int64_t n, int plane, int64_t y) {
    for (int64_t x = 0; x < n; ++x)
      row[x] = static_cast<uint8_t>(seed + 71 * plane + 13 * y + 7 * x);
  });
}

inline std::vector<uint8_t> visible_bytes(const zarvel_frame_t* f) {
  std::vector<uint8_t> bytes;
  for_each_row(
      f, [&](uint8_t* row, int64_t n, int, int64_t) { bytes.insert(bytes.end(), row, row + n); });
  return bytes;
}

struct ReleaseCounter {
  std::atomic<int> calls{0};
  static void release(void* self) { static_cast<ReleaseCounter*>(self)->calls++; }
};

}  // namespace zarvel::test
