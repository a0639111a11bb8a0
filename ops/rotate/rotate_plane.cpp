// The plane loop of the rotation: 64 x 64 destination tiles for quarter turns with plain
// loops over the right and bottom remainders, and row reversal for half turns. The vector
// variants are chosen from the processor-feature word.
#include "ops/rotate/rotate.h"
#include "ops/rotate/rotate_kernels.h"
#include "plugin/cpu_features.h"

namespace zarvel::aux::rotate {
namespace {

using TileFn = void (*)(const uint8_t*, ptrdiff_t, int32_t, int32_t, uint8_t*, ptrdiff_t, int32_t,
                        int32_t);

// The 128-bit kernels need SSSE3. The feature word carries no SSSE3 bit of its own; every
// processor with VEX-encoded 128-bit instructions (kCpuAvx) has it.
bool use_ssse3() { return (cpu_features() & kCpuAvx) != 0; }
bool use_avx2() { return (cpu_features() & kCpuAvx2) != 0; }

void quarter_turn(int32_t angle, int32_t pixel_size, int32_t src_h, int32_t src_w,
                  ptrdiff_t src_stride, const uint8_t* src, int32_t dst_h, int32_t dst_w,
                  ptrdiff_t dst_stride, uint8_t* dst) {
  const bool cw = angle == 90;
  auto rect = cw ? rotate90_rect_c : rotate270_rect_c;
  TileFn tile = nullptr;
  if (pixel_size == 1 && use_ssse3()) tile = cw ? rotate90_tile_ssse3 : rotate270_tile_ssse3;
  if (pixel_size == 2 && use_ssse3()) tile = cw ? rotate90_tile2_ssse3 : rotate270_tile2_ssse3;
  if (pixel_size == 3 && use_avx2()) tile = cw ? rotate90_tile3_avx2 : rotate270_tile3_avx2;

  const int32_t rows = dst_h / kTile * kTile;
  const int32_t cols = dst_w / kTile * kTile;
  for (int32_t r = 0; r < rows; r += kTile) {
    for (int32_t c = 0; c < cols; c += kTile) {
      if (tile != nullptr) {
        tile(src, src_stride, src_h, src_w, dst, dst_stride, r, c);
      } else {
        rect(pixel_size, src, src_stride, src_h, src_w, dst, dst_stride, r, r + kTile, c,
             c + kTile);
      }
    }
    rect(pixel_size, src, src_stride, src_h, src_w, dst, dst_stride, r, r + kTile, cols, dst_w);
  }
  rect(pixel_size, src, src_stride, src_h, src_w, dst, dst_stride, rows, dst_h, 0, dst_w);
}

void half_turn(int32_t pixel_size, int32_t src_h, int32_t src_w, ptrdiff_t src_stride,
               const uint8_t* src, int32_t dst_h, int32_t dst_w, ptrdiff_t dst_stride,
               uint8_t* dst) {
  using RowFn = int32_t (*)(const uint8_t*, int32_t, uint8_t*, int32_t);
  RowFn row = nullptr;
  if (use_ssse3()) {
    row = pixel_size == 1   ? reverse_row_ssse3
          : pixel_size == 2 ? reverse_row2_ssse3
          : pixel_size == 3 ? reverse_row3_ssse3
                            : nullptr;
  }
  for (int32_t r = 0; r < dst_h; ++r) {
    const uint8_t* s = src + (src_h - 1 - r) * src_stride;
    uint8_t* d = dst + r * dst_stride;
    const int32_t done = row != nullptr ? row(s, src_w, d, dst_w) : 0;
    reverse_row_c(pixel_size, s, src_w, d, done, dst_w);
  }
}

}  // namespace

void rotate_plane(int32_t angle, int32_t pixel_size, int32_t src_h, int32_t src_w,
                  int32_t src_stride, const uint8_t* src, int32_t dst_h, int32_t dst_w,
                  int32_t dst_stride, uint8_t* dst) {
  if (dst_h <= 0 || dst_w <= 0) return;
  switch (angle) {
    case 90:
    case 270:
      return quarter_turn(angle, pixel_size, src_h, src_w, src_stride, src, dst_h, dst_w,
                          dst_stride, dst);
    case 180:
      return half_turn(pixel_size, src_h, src_w, src_stride, src, dst_h, dst_w, dst_stride, dst);
    default:
      return;  // no other angle is a pure copy of pixels
  }
}

}  // namespace zarvel::aux::rotate
