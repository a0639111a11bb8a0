// Shared pieces of the fuzz targets: a reader that turns the fuzzer's bytes into bounded
// arguments, and frames and tensors built from them through the frame library.
#pragma once

#include <zarvel/aux.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace zarvel::fuzz {

// Consumes the input front to back; past its end every read gives zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= uint32_t{u8()} << (8 * i);
    return v;
  }
  bool flag() { return (u8() & 1) != 0; }
  // An integer in [lo, hi].
  int32_t range(int32_t lo, int32_t hi) {
    const uint32_t span = static_cast<uint32_t>(hi - lo) + 1;
    return lo + static_cast<int32_t>(u32() % span);
  }
  // Mostly a small coordinate or size, sometimes a value at the edges of int32.
  int32_t coord(int32_t lo, int32_t hi) {
    static constexpr int32_t kExtreme[] = {std::numeric_limits<int32_t>::min(),
                                           std::numeric_limits<int32_t>::max(), 1 << 24, -(1 << 24),
                                           1 << 30};
    const uint8_t pick = u8();
    if (pick >= 240) return kExtreme[pick % 5];
    return range(lo, hi);
  }
  // Any float, with the special values and large magnitudes over-represented.
  float real(float lo, float hi) {
    static constexpr float kSpecial[] = {std::numeric_limits<float>::quiet_NaN(),
                                         std::numeric_limits<float>::infinity(),
                                         -std::numeric_limits<float>::infinity(),
                                         0.0f,
                                         -0.0f,
                                         1e30f,
                                         -1e30f,
                                         3e9f,
                                         std::numeric_limits<float>::denorm_min(),
                                         std::numeric_limits<float>::max()};
    const uint8_t pick = u8();
    if (pick >= 236) return kSpecial[pick % 10];
    if (pick >= 224) {
      const uint32_t bits = u32();
      float f;
      std::memcpy(&f, &bits, sizeof f);
      return f;
    }
    return lo + (hi - lo) * static_cast<float>(u32() % 65536) / 65535.0f;
  }
  size_t remaining() const { return size_ - pos_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

inline constexpr uint32_t kFormats[] = {
    ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,  ZARVEL_PIXFMT_NV12,
    ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12,  ZARVEL_PIXFMT_GREY16, 0x34325241u /* unknown */};

inline uint32_t pick_format(Input& in) { return kFormats[in.u8() % 8]; }

// Largest frame side the targets make, to keep every run fast.
inline constexpr int32_t kMaxSide = 64;

// Visible bytes per row and rows of plane i (0 rows past the format's planes).
inline void plane_rows(uint32_t format, int i, int32_t w, int32_t h, int64_t* bytes,
                       int64_t* rows) {
  const bool nv = format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21;
  const bool yu = format == ZARVEL_PIXFMT_YU12;
  *bytes = 0;
  *rows = 0;
  if (i == 0) {
    *bytes = int64_t{w} * zarvel_frame_pixel_size(format);
    *rows = h;
  } else if ((nv && i == 1) || (yu && i <= 2)) {
    *bytes = nv ? w : w / 2;
    *rows = h / 2;
  }
}

// Visible bytes of a host frame, plane by plane.
inline std::vector<uint8_t> visible_bytes(const zarvel_frame_t* f) {
  std::vector<uint8_t> out;
  for (int i = 0; i < 4; ++i) {
    int64_t bytes, rows;
    plane_rows(f->format, i, f->width, f->height, &bytes, &rows);
    for (int64_t y = 0; y < rows; ++y) {
      const uint8_t* row = f->plane[i] + y * f->stride[i];
      out.insert(out.end(), row, row + bytes);
    }
  }
  return out;
}

// A frame of fuzzed format, size, strides, memory type, possibly a region view of a larger
// frame, with fuzzed pixels; null when the library refuses the geometry (also fuzzed).
inline zarvel_frame_t* make_frame(Input& in, uint32_t format) {
  const int32_t w = in.range(1, kMaxSide);
  const int32_t h = in.range(1, kMaxSide);
  const bool view = (in.u8() & 3) == 0;
  const int32_t dx = view ? in.range(0, 8) : 0;
  const int32_t dy = view ? in.range(0, 8) : 0;
  int32_t strides[4] = {0, 0, 0, 0};
  if (in.flag()) {
    for (int i = 0; i < 4; ++i) {
      int64_t bytes, rows;
      plane_rows(format, i, w + dx, h + dy, &bytes, &rows);
      const uint8_t pad = in.u8();
      // Mostly a row plus padding, sometimes one byte short of a row.
      strides[i] = static_cast<int32_t>(pad == 255 ? bytes - 1 : bytes + pad % 19);
    }
  }
  zarvel_frame_t* frame = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w + dx, h + dy, strides, 0);
  if (frame == nullptr) return nullptr;
  for (int i = 0; i < 4; ++i) {
    int64_t bytes, rows;
    plane_rows(format, i, frame->width, frame->height, &bytes, &rows);
    for (int64_t y = 0; y < rows; ++y) {
      uint8_t* row = frame->plane[i] + y * frame->stride[i];
      for (int64_t x = 0; x < bytes; ++x) row[x] = static_cast<uint8_t>(in.u8() ^ (x * 29 + y));
    }
  }
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
  if (w <= 0 || h <= 0) return true;
  const int64_t pixels = int64_t{w} * h;
  return pixels <= 256 * 256 || pixels >= (int64_t{1} << 47);
}

// Stops the run: libFuzzer reports the input as a crash.
[[noreturn]] inline void fail() { __builtin_trap(); }

}  // namespace zarvel::fuzz
