// Helpers of the rotation tests: an index-mapping oracle, per-format plane geometry, frames
// with padded strides, and buffers that end at an inaccessible page.
#pragma once

#include <sys/mman.h>
#include <unistd.h>
#include <zarvel/frame.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace zarvel::test {

// A plane of a format: bytes per pixel and the divisor of width and height.
struct PlaneGeometry {
  int pixel_size;
  int div;
};

inline std::vector<PlaneGeometry> planes_of(uint32_t format) {
  switch (format) {
    case ZARVEL_PIXFMT_GREY:
      return {{1, 1}};
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
      return {{3, 1}};
    case ZARVEL_PIXFMT_NV12:
    case ZARVEL_PIXFMT_NV21:
      return {{1, 1}, {2, 2}};
    case ZARVEL_PIXFMT_YU12:
      return {{1, 1}, {1, 2}, {1, 2}};
    default:
      return {};
  }
}

// The rotated plane as tight rows, pixel by pixel from the clockwise mapping.
inline std::vector<uint8_t> rotate_oracle(const uint8_t* src, int h, int w, int stride, int p,
                                          int angle) {
  const bool quarter = angle == 90 || angle == 270;
  const int oh = quarter ? w : h, ow = quarter ? h : w;
  std::vector<uint8_t> out(static_cast<size_t>(oh) * ow * p);
  for (int r = 0; r < oh; ++r) {
    for (int c = 0; c < ow; ++c) {
      int sr = 0, sc = 0;
      if (angle == 90) sr = h - 1 - c, sc = r;
      if (angle == 180) sr = h - 1 - r, sc = w - 1 - c;
      if (angle == 270) sr = c, sc = w - 1 - r;
      for (int k = 0; k < p; ++k) {
        out[(static_cast<size_t>(r) * ow + c) * p + k] =
            src[static_cast<size_t>(sr) * stride + static_cast<size_t>(sc) * p + k];
      }
    }
  }
  return out;
}

// Strides with `pad` extra bytes on every plane (pad 0: the library's choice).
inline std::vector<int32_t> padded_strides(uint32_t format, int w, int pad) {
  std::vector<int32_t> s(4, 0);
  if (pad == 0) return s;
  const auto planes = planes_of(format);
  for (size_t i = 0; i < planes.size(); ++i) {
    const int row = format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21
                        ? w
                        : w / planes[i].div * planes[i].pixel_size;
    s[i] = row + pad + static_cast<int>(i);
  }
  return s;
}

// Sets every byte a host frame's planes span, padding included.
inline void fill_planes(zarvel_frame_t* f, uint8_t value) {
  for (uint64_t i = 0; i < f->plane_count; ++i) std::memset(f->plane[i], value, f->plane_size[i]);
}
inline void fill_random(zarvel_frame_t* f, std::mt19937& rng) {
  for (uint64_t i = 0; i < f->plane_count; ++i) {
    for (uint64_t k = 0; k < f->plane_size[i]; ++k) f->plane[i][k] = static_cast<uint8_t>(rng());
  }
}

// `size` bytes whose last byte sits right before a PROT_NONE page.
class GuardedBytes {
 public:
  explicit GuardedBytes(size_t size) : size_(size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t pages = (size + page - 1) / page;
    map_bytes_ = (pages + 1) * page;
    void* p = mmap(nullptr, map_bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
    if (base_ != nullptr) mprotect(base_ + pages * page, page, PROT_NONE);
    data_ = base_ == nullptr ? nullptr : base_ + pages * page - size;
  }
  ~GuardedBytes() {
    if (base_ != nullptr) munmap(base_, map_bytes_);
  }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;
  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  size_t size_;
  size_t map_bytes_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

}  // namespace zarvel::test
