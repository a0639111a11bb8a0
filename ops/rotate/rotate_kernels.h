// Rotation kernels: plain loops over destination rectangles, and their vector variants.
// Rows are addressed with byte strides; destination pixel (r, c) of a rotated H x W source is
//   90 degrees:  source (H - 1 - c, r)
//   180 degrees: source (H - 1 - r, W - 1 - c)
//   270 degrees: source (c, W - 1 - r)
#pragma once

#include <cstddef>
#include <cstdint>

namespace zarvel::aux::rotate {

// Quarter turns run over 64 x 64 destination tiles, so that the column-wise reads of one tile
// touch 64 source rows that stay in the L1 cache.
inline constexpr int32_t kTile = 64;

// Plain loops, any pixel size (1, 2, 3): destination rows [r0, r1), columns [c0, c1) of a
// src_h x src_w source.
void rotate90_rect_c(int32_t pixel_size, const uint8_t* src, ptrdiff_t src_stride, int32_t src_h,
                     int32_t src_w, uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1,
                     int32_t c0, int32_t c1);
void rotate270_rect_c(int32_t pixel_size, const uint8_t* src, ptrdiff_t src_stride, int32_t src_h,
                      int32_t src_w, uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1,
                      int32_t c0, int32_t c1);
// Destination pixels [c0, c1) of one row of a half turn: dst[c] = src_row[src_w - 1 - c].
void reverse_row_c(int32_t pixel_size, const uint8_t* src_row, int32_t src_w, uint8_t* dst_row,
                   int32_t c0, int32_t c1);

// One full 64 x 64 destination tile at (r0, c0) of one-byte pixels, as 16 x 16 transposes.
void rotate90_tile_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                         uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
void rotate270_tile_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
// The same for two-byte pixels (each chroma pair moves whole), as 8 x 8 pixel transposes.
void rotate90_tile2_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
void rotate270_tile2_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                           uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
// The same for three-byte pixels, as 8 x 8 pixel transposes in 256-bit lanes (needs AVX2).
void rotate90_tile3_avx2(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                         uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
void rotate270_tile3_avx2(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0);
// Walks the 8 x 8 pixel blocks of a full 64 x 64 destination tile at (r0, c0) of a quarter
// turn of P-byte pixels. kBlock(s, s_step, d, d_step) reads 8 rows of 8 pixels (row k at
// s + k * s_step) and writes their columns as rows (column i at d + i * d_step). Clockwise,
// block row k is source row H - 1 - bc - k from column br; counter-clockwise it is source row
// bc + k from column W - 8 - br, whose columns land on destination rows br + 7 down to br.
using BlockFn = void (*)(const uint8_t*, ptrdiff_t, uint8_t*, ptrdiff_t);
template <int P, BlockFn kBlock>
inline void quarter_turn_tile(bool clockwise, const uint8_t* src, ptrdiff_t src_stride,
                              int32_t src_h, int32_t src_w, uint8_t* dst, ptrdiff_t dst_stride,
                              int32_t r0, int32_t c0) {
  for (int32_t br = r0; br < r0 + kTile; br += 8) {
    for (int32_t bc = c0; bc < c0 + kTile; bc += 8) {
      if (clockwise) {
        kBlock(src + (src_h - 1 - bc) * src_stride + P * br, -src_stride,
               dst + br * dst_stride + P * bc, dst_stride);
      } else {
        kBlock(src + bc * src_stride + P * ptrdiff_t{src_w - 8 - br}, src_stride,
               dst + (br + 7) * dst_stride + P * bc, -dst_stride);
      }
    }
  }
}

// The first n (<= src_w) pixels of a reversed one-byte row in blocks of 16; returns the pixels
// written (n rounded down to a multiple of 16). The caller finishes the tail.
int32_t reverse_row_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n);
// The same for two-byte pixels (blocks of 8) and three-byte pixels (steps of 5 while a pixel
// is left after the step; the step may write the first byte of the next pixel).
int32_t reverse_row2_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n);
int32_t reverse_row3_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n);

}  // namespace zarvel::aux::rotate
