// Shared pieces of the fuzz targets: a reader that turns the fuzzer's bytes into bounded
// arguments, and frames, regions and tensors built from them through the frame library.
#pragma once

#include <zarvel/aux.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "frame_test_support.h"

namespace zarvel::fuzz {

using test::visible_bytes;

// Consumes the input front to back; past its end every read gives zeros.
struct Input {
  const uint8_t* data;
  size_t size, pos = 0;

  uint8_t u8() { return pos < size ? data[pos++] : 0; }
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= uint32_t{u8()} << (8 * i);
    return v;
  }
  // An integer in [lo, hi].
  int32_t range(int32_t lo, int32_t hi) {
    return lo + static_cast<int32_t>(u32() % (static_cast<uint32_t>(hi - lo) + 1));
  }
  // Mostly a small coordinate or size, sometimes a value at the edges of int32.
  int32_t coord(int32_t lo, int32_t hi) {
    static constexpr int32_t kExtreme[] = {INT32_MIN, INT32_MAX, 1 << 24, -(1 << 24), 1 << 30};
    const uint8_t pick = u8();
    return pick >= 240 ? kExtreme[pick % 5] : range(lo, hi);
  }
  // Any float, with the special values and large magnitudes over-represented.
  float real(float lo, float hi) {
    using lim = std::numeric_limits<float>;
    static constexpr float kSpecial[] = {
        lim::quiet_NaN(),  lim::infinity(), -lim::infinity(), 0.0f, -0.0f, 1e30f, -1e30f, 3e9f,
        lim::denorm_min(), lim::max()};
    const uint8_t pick = u8();
    if (pick >= 236) return kSpecial[pick % 10];
    if (pick >= 224) return std::bit_cast<float>(u32());
    return lo + (hi - lo) * static_cast<float>(u32() % 65536) / 65535.0f;
  }
};

inline constexpr uint32_t kFormats[] = {
    ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,  ZARVEL_PIXFMT_NV12,
    ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12,  ZARVEL_PIXFMT_GREY16, 0x34325241u /* unknown */};

inline uint32_t pick_format(Input& in) { return kFormats[in.u8() % 8]; }

// Largest frame side the targets make, to keep every run fast.
inline constexpr int32_t kMaxSide = 64;

// A frame of fuzzed format, size, strides, memory type, possibly a region view of a larger
// frame, with fuzzed pixels; null when the library refuses the geometry (also fuzzed).
inline zarvel_frame_t* make_frame(Input& in, uint32_t format) {
  // Each declarator's initialiser runs in order.
  const int32_t w = in.range(1, kMaxSide), h = in.range(1, kMaxSide);
  const bool view = (in.u8() & 3) == 0;
  const int32_t dx = view ? in.range(0, 8) : 0, dy = view ? in.range(0, 8) : 0;
  int32_t strides[4] = {0, 0, 0, 0};
  if ((in.u8() & 1) != 0) {
    for (int i = 0; i < 4; ++i) {
      const int64_t bytes = test::plane_rows(format, i, w + dx, h + dy).first;
      const uint8_t pad = in.u8();
      // Mostly a row plus padding, sometimes one byte short of a row.
      strides[i] = static_cast<int32_t>(pad == 255 ? bytes - 1 : bytes + pad % 19);
    }
  }
  zarvel_frame_t* frame = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w + dx, h + dy, strides, 0);
  if (frame == nullptr) return nullptr;
  test::for_each_row(frame, [&in](uint8_t* row, int64_t bytes, int, int64_t y) {
    for (int64_t x = 0; x < bytes; ++x) row[x] = static_cast<uint8_t>(in.u8() ^ (x * 29 + y));
  });
  frame->meta_word0 = in.u8();
  if (view) {
    zarvel_frame_t* roi = zarvel_frame_roi(frame, Area2D{dx, dy, w, h});
    zarvel_frame_free(&frame);
    frame = roi;
    if (frame == nullptr) return nullptr;
  }
  if ((in.u8() & 7) == 0) {
    zarvel_frame_t* device = nullptr;
    if (zarvel_frame_upload(frame, &device) != ZARVEL_OK) device = nullptr;
    zarvel_frame_free(&frame);
    frame = device;
  }
  return frame;
}

inline zarvel_frame_t* make_frame(Input& in) { return make_frame(in, pick_format(in)); }
// Null (when the next byte is 255) or a frame as above.
inline zarvel_frame_t* maybe_frame(Input& in) { return in.u8() == 255 ? nullptr : make_frame(in); }

// A region: corners around a 64-pixel frame, sizes from -2, sometimes at the edges of int32.
inline Area2D area(Input& in) {
  return Area2D{in.coord(-70, 70), in.coord(-70, 70), in.coord(-2, 70), in.coord(-2, 70)};
}
inline void fill(Input& in, float* values, size_t n, float lo, float hi) {
  for (size_t i = 0; i < n; ++i) values[i] = in.real(lo, hi);
}

// A host or device tensor of fuzzed element type and shape (each side up to 64, at most four
// items of four channels), sometimes a strided view of a larger one; null when refused.
inline zarvel_tensor_t* make_tensor(Input& in) {
  static constexpr uint32_t kElems[] = {ZARVEL_ELEM_U8, ZARVEL_ELEM_F32, ZARVEL_ELEM_S8, 7u};
  const uint32_t elem = kElems[in.u8() % 4];
  const uint32_t mem = (in.u8() & 7) == 0 ? ZARVEL_MEM_DEVICE : ZARVEL_MEM_HOST;
  const int32_t shape[4] = {in.range(1, 4), in.range(1, 4), in.range(1, kMaxSide),
                            in.range(1, kMaxSide)};
  if ((in.u8() & 3) != 0)
    return zarvel_tensor_alloc(mem, elem, shape[0], shape[1], shape[2], shape[3]);
  const int32_t extra[4] = {in.range(0, 1), in.range(0, 2), in.range(0, 5), in.range(0, 5)};
  zarvel_tensor_t* parent = zarvel_tensor_alloc(mem, elem, shape[0] + extra[0], shape[1] + extra[1],
                                                shape[2] + extra[2], shape[3] + extra[3]);
  const int32_t start[4] = {extra[0], extra[1] / 2, extra[2] / 2, extra[3]};
  zarvel_tensor_t* view = zarvel_tensor_roi(parent, start, shape);
  zarvel_tensor_free(&parent);
  return view;
}

// Sizes a run may ask for: small ones, or ones so large that their byte count is refused
// outright (sizes in between are legal but only make the run slow and large).
inline bool bounded_size(int32_t w, int32_t h) {
  const int64_t pixels = int64_t{w} * h;
  return w <= 0 || h <= 0 || pixels <= 256 * 256 || pixels >= (int64_t{1} << 47);
}

// Stops the run: libFuzzer reports the input as a crash.
[[noreturn]] inline void fail() { __builtin_trap(); }

}  // namespace zarvel::fuzz
