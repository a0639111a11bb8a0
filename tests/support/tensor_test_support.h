// Helpers for the tensor tests: frames of random pixels with padded rows, and a formula
// model of one tensor sample written from a frame.
#pragma once

#include <zarvel/frame.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

namespace zarvel::test {

// A host frame with `extra` bytes of padding after each row, filled with random bytes
// (padding included). The caller frees it.
inline zarvel_frame_t* random_frame(std::mt19937& rng, uint32_t format, int32_t w, int32_t h,
                                    int32_t extra = 0) {
  const int32_t strides[4] = {w * zarvel_frame_pixel_size(format) + extra, 0, 0, 0};
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, strides, 0);
  if (f == nullptr) return nullptr;
  for (int64_t i = 0; i < int64_t{strides[0]} * h; ++i)
    f->plane[0][i] = static_cast<uint8_t>(rng());
  return f;
}

// The tensor sample that plane c, row y, column x of an item should hold: the frame pixel's
// R, G, B (or grey) value picked by colour type, normalised for float tensors, or the pad.
// mean, std and pad are in R, G, B order. Returned as the bytes of one element.
struct Sample {
  uint8_t bytes[4];
};

inline Sample expected_sample(const zarvel_frame_t* f, uint32_t color_type, uint32_t elem,
                              const float* mean, const float* std, const float* pad, int c,
                              int32_t y, int32_t x) {
  // Caller's entry used by this plane: BGR tensors take the entries backwards, grey the middle.
  const int entry = color_type == 2 ? 1 : color_type == 0 ? 2 - c : c;
  Sample s{};
  if (x >= f->width || y >= f->height) {
    if (elem == ZARVEL_ELEM_U8) {
      s.bytes[0] = static_cast<uint8_t>(static_cast<int64_t>(std::trunc(pad[entry])) & 0xFF);
    } else {
      std::memcpy(s.bytes, &pad[entry], 4);
    }
    return s;
  }
  const uint8_t* px = f->plane[0] + int64_t{y} * f->stride[0];
  int rgb[3];
  if (f->format == ZARVEL_PIXFMT_GREY) {
    rgb[0] = rgb[1] = rgb[2] = px[x];
  } else {
    const bool bgr = f->format == ZARVEL_PIXFMT_BGR24;
    px += 3 * x;
    rgb[0] = px[bgr ? 2 : 0];
    rgb[1] = px[1];
    rgb[2] = px[bgr ? 0 : 2];
  }
  float value;
  if (color_type == 2) {
    const int luma = f->format == ZARVEL_PIXFMT_GREY
                         ? rgb[0]
                         : static_cast<int>(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]);
    if (elem == ZARVEL_ELEM_U8) {
      s.bytes[0] = static_cast<uint8_t>(luma);
      return s;
    }
    const bool identity = mean[1] == 0.0f && std[1] == 1.0f;
    value = identity ? static_cast<float>(luma) : (static_cast<float>(luma) - mean[1]) / std[1];
  } else {
    if (elem == ZARVEL_ELEM_U8) {
      s.bytes[0] = static_cast<uint8_t>(rgb[entry]);
      return s;
    }
    value = (static_cast<float>(rgb[entry]) - mean[entry]) * (1.0f / std[entry]);
  }
  std::memcpy(s.bytes, &value, 4);
  return s;
}

}  // namespace zarvel::test
