// Independent references for the warp kernels, written from the formulas rather than from
// the kernels: one model per arithmetic (truncating float blend; floored Q16 blend with fused
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
  Plane(int32_t w, int32_t h, int32_t c, int32_t pad = 0, uint8_t fill = 0)
      : width(w), height(h), stride(w * c + pad), channels(c), bytes(size_t(stride) * h, fill) {}
  uint8_t* row(int32_t y) { return bytes.data() + static_cast<size_t>(y) * stride; }
  const uint8_t* row(int32_t y) const { return bytes.data() + static_cast<size_t>(y) * stride; }
};

// Processor conversion semantics: values an int32 cannot hold, and NaN, become INT32_MIN.
inline int32_t cvt(float v, bool floor) {
  if (!(v >= -2147483648.0f && v < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(floor ? std::floor(v) : v);
}

// Channel ch of pixel (col, row) under a border mode: 1 clamps to the edge, others read the
// border byte outside the plane.
inline int sample(const Plane& in, int64_t col, int64_t row, int ch, int mode, uint8_t border) {
  if (mode == 1) {
    col = col < 0 ? 0 : (col >= in.width ? in.width - 1 : col);
    row = row < 0 ? 0 : (row >= in.height ? in.height - 1 : row);
  } else if (col < 0 || col >= in.width || row < 0 || row >= in.height) {
    return border;
  }
  return in.row(static_cast<int32_t>(row))[col * in.channels + ch];
}

// Bilinear warp of `in` into `out`; m has 6 (affine) or 9 (perspective) entries. Modes 0
// (constant), 1 (replicate) and 5 (transparent: only where all four neighbours are inside)
// write; any other writes nothing.
// Scalar: truncated coordinates, float weights, truncated result.
// Vector, lane by lane: round-down mode, fused coordinates, reciprocal estimate of w, floored
// Q16 weights, 32-bit wrapping blend rounded to nearest.
inline void model(bool vector, const Plane& in, Plane& out, const float* m, bool perspective,
                  int mode, uint8_t border) {
  if (mode != 0 && mode != 1 && mode != 5) return;
  const int saved = std::fegetround();
  if (vector) std::fesetround(FE_DOWNWARD);
  for (int32_t y = 0; y < out.height; ++y) {
    for (int32_t x = 0; x < out.width; ++x) {
      const float xf = static_cast<float>(x), yf = static_cast<float>(y);
      float sx, sy;
      if (vector) {
        sx = std::fmaf(m[0], xf, std::fmaf(m[1], yf, m[2]));
        sy = std::fmaf(m[3], xf, std::fmaf(m[4], yf, m[5]));
        if (perspective) {
          const float w = std::fmaf(m[6], xf, std::fmaf(m[7], yf, m[8]));
          const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(w)));
          sx *= r, sy *= r;
        }
      } else {
        sx = m[0] * xf + (m[1] * yf + m[2]), sy = m[3] * xf + (m[4] * yf + m[5]);
        if (perspective) {
          const float w = m[6] * xf + (m[7] * yf + m[8]);
          sx /= w, sy /= w;
        }
      }
      const int32_t ix = cvt(sx, vector), iy = cvt(sy, vector);
      const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
      const float wf[4] = {(1.0f - fx) * (1.0f - fy), fx * (1.0f - fy), (1.0f - fx) * fy, fx * fy};
      if (mode == 5 &&
          !(ix >= 0 && int64_t{ix} + 1 < in.width && iy >= 0 && int64_t{iy} + 1 < in.height))
        continue;
      for (int ch = 0; ch < in.channels; ++ch) {
        int t[4];
        for (int k = 0; k < 4; ++k)
          t[k] = sample(in, int64_t{ix} + k % 2, iy + k / 2, ch, mode, border);
        uint8_t& dst = out.row(y)[x * in.channels + ch];
        if (vector) {
          uint32_t sum = 0x8000u;
          for (int k = 0; k < 4; ++k)
            sum += static_cast<uint32_t>(cvt(wf[k] * 65536.0f, true)) * t[k];
          dst = static_cast<uint8_t>(sum >> 16);
        } else {
          dst = static_cast<uint8_t>(
              cvt(wf[0] * t[0] + wf[1] * t[1] + wf[2] * t[2] + wf[3] * t[3] + 0.0f, false));
        }
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
  GuardedPlane(const Plane& p, bool at_start) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = size_t(p.stride) * (p.height - 1) + size_t(p.width) * p.channels;
    const size_t data_pages = (size + page - 1) / page + 1;
    total_ = (data_pages + 2) * page;
    void* base = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return;
    base_ = static_cast<uint8_t*>(base);
    mprotect(base_, page, PROT_NONE);
    mprotect(base_ + (data_pages + 1) * page, page, PROT_NONE);
    data_ = at_start ? base_ + page : base_ + (data_pages + 1) * page - size;
    std::memcpy(data_, p.bytes.data(), size);
  }
  ~GuardedPlane() {
    if (base_ != nullptr) munmap(base_, total_);
  }
  GuardedPlane(const GuardedPlane&) = delete;
  GuardedPlane& operator=(const GuardedPlane&) = delete;
  const uint8_t* data() const { return data_; }

 private:
  size_t total_ = 0;
  uint8_t *base_ = nullptr, *data_ = nullptr;
};

}  // namespace zarvel::test::warp
