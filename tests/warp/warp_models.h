// Independent references for the warp kernels, written from the formulas rather than from
// the kernels: one per arithmetic (truncating float blend; floored Q16 blend with fused
// coordinates), plus a plane placed between two inaccessible pages.
#pragma once

#include <sys/mman.h>
#include <unistd.h>
#include <xmmintrin.h>

#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zarvel::test::warp {

struct Plane {
  int32_t width = 0, height = 0, stride = 0, channels = 1;
  std::vector<uint8_t> bytes;
  Plane() = default;
  Plane(int32_t w, int32_t h, int32_t c, int32_t pad = 0)
      : width(w),
        height(h),
        stride(w * c + pad),
        channels(c),
        bytes(static_cast<size_t>(stride) * (h > 0 ? h : 0)) {}
  uint8_t* row(int32_t y) { return bytes.data() + static_cast<size_t>(y) * stride; }
  const uint8_t* row(int32_t y) const { return bytes.data() + static_cast<size_t>(y) * stride; }
};

// Processor conversion semantics: values an int32 cannot hold, and NaN, become INT32_MIN.
inline int32_t cvt_trunc(float v) {
  return (v >= -2147483648.0f && v < 2147483648.0f) ? static_cast<int32_t>(v) : INT32_MIN;
}
inline int32_t cvt_floor(float v) {
  return (v >= -2147483648.0f && v < 2147483648.0f) ? static_cast<int32_t>(std::floor(v))
                                                    : INT32_MIN;
}

// Neighbour (col, row) of channel ch under a border mode; `read` false when the pixel
// must be skipped (transparent) — decided by the caller.
inline int sample(const Plane& in, int64_t col, int64_t row, int ch, int mode, uint8_t border) {
  if (mode == 1) {
    col = col < 0 ? 0 : (col >= in.width ? in.width - 1 : col);
    row = row < 0 ? 0 : (row >= in.height ? in.height - 1 : row);
  } else if (col < 0 || col >= in.width || row < 0 || row >= in.height) {
    return border;
  }
  return in.row(static_cast<int32_t>(row))[col * in.channels + ch];
}

// The neighbours top-left, top-right, bottom-left, bottom-right of (ix, iy) for channel ch.
inline void taps(const Plane& in, int64_t ix, int64_t iy, int ch, int mode, uint8_t border,
                 int t[4]) {
  for (int k = 0; k < 4; ++k) t[k] = sample(in, ix + k % 2, iy + k / 2, ch, mode, border);
}

inline bool all_inside(const Plane& in, int64_t ix, int64_t iy) {
  return ix >= 0 && ix + 1 < in.width && iy >= 0 && iy + 1 < in.height;
}

// The scalar arithmetic: truncated coordinates, float weights, truncated result.
// m has 6 (affine) or 9 (perspective) entries.
inline void scalar_model(const Plane& in, Plane& out, const float* m, bool perspective, int mode,
                         uint8_t border) {
  if (mode != 0 && mode != 1 && mode != 5) return;
  for (int32_t y = 0; y < out.height; ++y) {
    for (int32_t x = 0; x < out.width; ++x) {
      const float xf = static_cast<float>(x), yf = static_cast<float>(y);
      const float ty = m[1] * yf + m[2], ty2 = m[4] * yf + m[5];
      float sx = m[0] * xf + ty, sy = m[3] * xf + ty2;
      if (perspective) {
        const float w = m[6] * xf + (m[7] * yf + m[8]);
        sx /= w;
        sy /= w;
      }
      const int32_t ix = cvt_trunc(sx), iy = cvt_trunc(sy);
      const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
      if (mode == 5 && !all_inside(in, ix, iy)) continue;
      for (int ch = 0; ch < in.channels; ++ch) {
        int t[4];
        taps(in, ix, iy, ch, mode, border, t);
        const float v = (1.0f - fx) * (1.0f - fy) * static_cast<float>(t[0]) +
                        fx * (1.0f - fy) * static_cast<float>(t[1]) +
                        (1.0f - fx) * fy * static_cast<float>(t[2]) +
                        fx * fy * static_cast<float>(t[3]) + 0.0f;
        out.row(y)[x * in.channels + ch] = static_cast<uint8_t>(cvt_trunc(v));
      }
    }
  }
}

// The vector arithmetic, lane by lane: round-down mode, fused coordinates, reciprocal
// estimate of w, floored Q16 weights, 32-bit wrapping blend rounded to nearest.
inline void vector_model(const Plane& in, Plane& out, const float* m, bool perspective, int mode,
                         uint8_t border) {
  if (mode != 0 && mode != 1 && mode != 5) return;
  const int saved = std::fegetround();
  std::fesetround(FE_DOWNWARD);
  for (int32_t y = 0; y < out.height; ++y) {
    const float yf = static_cast<float>(y);
    const float rx = std::fmaf(m[1], yf, m[2]), ry = std::fmaf(m[4], yf, m[5]);
    const float rw = perspective ? std::fmaf(m[7], yf, m[8]) : 1.0f;
    for (int32_t x = 0; x < out.width; ++x) {
      const float xf = static_cast<float>(x);
      float sx = std::fmaf(m[0], xf, rx), sy = std::fmaf(m[3], xf, ry);
      if (perspective) {
        const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(std::fmaf(m[6], xf, rw))));
        sx *= r;
        sy *= r;
      }
      const int32_t ix = cvt_floor(sx), iy = cvt_floor(sy);
      const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
      const uint32_t w[4] = {static_cast<uint32_t>(cvt_floor((1.0f - fx) * (1.0f - fy) * 65536.0f)),
                             static_cast<uint32_t>(cvt_floor(fx * (1.0f - fy) * 65536.0f)),
                             static_cast<uint32_t>(cvt_floor((1.0f - fx) * fy * 65536.0f)),
                             static_cast<uint32_t>(cvt_floor(fx * fy * 65536.0f))};
      if (mode == 5 && !all_inside(in, ix, iy)) continue;
      for (int ch = 0; ch < in.channels; ++ch) {
        int t[4];
        taps(in, ix, iy, ch, mode, border, t);
        uint32_t sum = 0x8000u;
        for (int k = 0; k < 4; ++k) sum += w[k] * static_cast<uint32_t>(t[k]);
        out.row(y)[x * in.channels + ch] = static_cast<uint8_t>(sum >> 16);
      }
    }
  }
  std::fesetround(saved);
}

// A copy of a plane's rows placed between two inaccessible pages, flush against the
// trailing one (a read after the last visible byte faults) or, `at_start`, against the
// leading one (a read before the first byte faults).
class GuardedPlane {
 public:
  explicit GuardedPlane(const Plane& p, bool at_start = false) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = p.height > 0 ? static_cast<size_t>(p.stride) * (p.height - 1) +
                                           static_cast<size_t>(p.width) * p.channels
                                     : 0;
    const size_t data_pages = (size + page - 1) / page + 1;
    total_ = (data_pages + 2) * page;
    void* base = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return;
    base_ = static_cast<uint8_t*>(base);
    mprotect(base_, page, PROT_NONE);
    mprotect(base_ + (data_pages + 1) * page, page, PROT_NONE);
    data_ = at_start ? base_ + page : base_ + (data_pages + 1) * page - size;
    for (int32_t y = 0; y < p.height; ++y)
      std::memcpy(data_ + static_cast<size_t>(y) * p.stride, p.row(y),
                  static_cast<size_t>(p.width) * p.channels);
  }
  ~GuardedPlane() {
    if (base_ != nullptr) munmap(base_, total_);
  }
  GuardedPlane(const GuardedPlane&) = delete;
  GuardedPlane& operator=(const GuardedPlane&) = delete;
  const uint8_t* data() const { return data_; }

 private:
  size_t total_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

}  // namespace zarvel::test::warp
