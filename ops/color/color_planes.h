// Plane loops of the colour conversions: (height, width, stride, pointer) in, bytes out. Each
// loop picks its row kernels from the processor-feature word on every call.
#pragma once

#include <cstdint>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {

// Chroma planes of a 4:2:0 frame as seen by the RGB <-> YUV loops: U and V bytes advance by
// `step` along a row (2 in an interleaved plane, 1 in a planar one).
struct ChromaPlanes {
  uint8_t* u;
  int32_t u_stride;
  uint8_t* v;
  int32_t v_stride;
  int32_t step;
};

// 4:2:0 -> RGB24/BGR24. c1/c2 as in YuvRowPair; c2 is unused for the interleaved layouts.
void yuv420_to_rgb(Chroma chroma, const uint8_t* y, int32_t y_stride, const uint8_t* c1,
                   int32_t c1_stride, const uint8_t* c2, int32_t c2_stride, uint8_t* dst,
                   int32_t dst_stride, int32_t width, int32_t height, bool bgr);

// RGB24/BGR24 -> 4:2:0: luma of every pixel; chroma of each whole 2x2 block from its
// top-left pixel.
void rgb_to_yuv420(const uint8_t* rgb, int32_t rgb_stride, bool bgr, uint8_t* y, int32_t y_stride,
                   const ChromaPlanes& chroma, int32_t width, int32_t height);

void rgb_to_grey(const uint8_t* rgb, int32_t rgb_stride, bool bgr, uint8_t* grey,
                 int32_t grey_stride, int32_t width, int32_t height);
void swap_rb(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
             int32_t width, int32_t height);
void grey_to_rgb(const uint8_t* grey, int32_t grey_stride, uint8_t* rgb, int32_t rgb_stride,
                 int32_t width, int32_t height);

// Plain byte rows; rows merge into one block when both planes are contiguous.
void copy_plane(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                int32_t row_bytes, int32_t rows);
// Sets `row_bytes` bytes of each row; padding is left alone.
void fill_plane(uint8_t* dst, int32_t stride, int32_t row_bytes, int32_t rows, uint8_t value);
// Swaps the two bytes of every pair of an interleaved chroma plane.
void swap_pairs(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                int32_t pairs, int32_t rows);
// Two planar chroma planes -> one interleaved plane (first, second) and back.
void interleave_chroma(const uint8_t* first, int32_t first_stride, const uint8_t* second,
                       int32_t second_stride, uint8_t* dst, int32_t dst_stride, int32_t pairs,
                       int32_t rows);
void split_chroma(const uint8_t* src, int32_t src_stride, uint8_t* first, int32_t first_stride,
                  uint8_t* second, int32_t second_stride, int32_t pairs, int32_t rows);

// GREY16 -> GREY contrast stretch between the low and high percentile bounds of the
// histogram (16-bit running sums that wrap, as the format's consumers expect). src_stride is
// in bytes. The 256 KiB histogram lives on the heap, not on the caller's thread stack; false
// when it cannot be allocated (nothing is written then).
bool grey16_stretch(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                    int32_t width, int32_t height);
// The bounds of the stretch from its 65536-bin histogram (exposed for tests).
Grey16Bounds grey16_bounds(const uint32_t* hist, int32_t width, int32_t height);

}  // namespace zarvel::aux::color
