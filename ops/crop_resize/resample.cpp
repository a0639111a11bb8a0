// Table building and the plane loop of the bilinear resampler, with the choice of row
// kernels by the processor-feature word.
#include "ops/crop_resize/resample.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "ops/crop_resize/resample_kernels.h"
#include "plugin/cpu_features.h"
#include "plugin/status.h"

namespace zarvel::aux::resample {

void compute_axis_taps(int32_t src_size, int32_t dst_size, AxisTap* taps) {
  // The ratio in single precision, its reciprocal in double rounded to single.
  const float ratio = static_cast<float>(dst_size) / static_cast<float>(src_size);
  const double factor = static_cast<float>(1.0 / static_cast<double>(ratio));
  for (int32_t d = 0; d < dst_size; ++d) {
    const double f = (d + 0.5) * factor - 0.5;
    int64_t s = static_cast<int64_t>(std::floor(f));
    double frac = f - static_cast<double>(s);
    if (s < 0) {
      s = 0;
      frac = 0.0;
    }
    if (s >= src_size - 1) {
      s = src_size - 1;
      frac = 0.0;
    }
    int32_t w1 = static_cast<int32_t>(std::nearbyint(frac * kWeightScale));
    int32_t w0 = static_cast<int32_t>(std::nearbyint((1.0 - frac) * kWeightScale));
    if (s == src_size - 1 && src_size >= 2) {
      // Same value, but both taps inside the plane: the last pixel as the second tap.
      s = src_size - 2;
      w1 = w0 + w1;
      w0 = 0;
    }
    taps[d] = {static_cast<int32_t>(s), static_cast<int16_t>(w0), static_cast<int16_t>(w1)};
  }
}

namespace {

size_t align_up(size_t n) { return (n + 63) & ~static_cast<size_t>(63); }

// Carves aligned arrays out of one scratch block.
class Carver {
 public:
  explicit Carver(uint8_t* base) : next_(base) {}
  template <class T>
  T* take(size_t count) {
    T* p = reinterpret_cast<T*>(next_);
    next_ += align_up(sizeof(T) * count);
    return p;
  }

 private:
  uint8_t* next_;
};

}  // namespace

int32_t resample_plane(const uint8_t* src, int32_t sw, int32_t sh, int32_t src_stride, uint8_t* dst,
                       int32_t dw, int32_t dh, int32_t dst_stride, int32_t channels) {
  if (sw <= 0 || sh <= 0 || dw <= 0 || dh <= 0) return kOk;
  if (static_cast<int64_t>(dw) * channels > (int64_t{1} << 28) ||
      static_cast<int64_t>(sw) * channels > (int64_t{1} << 28)) {
    return kFailed;
  }
  const bool avx2 = (cpu_features() & kCpuAvx2) != 0;
  const int n = dw * channels;  // output elements per row
  const int groups = (n + 3) / 4;
  const int step = sw >= 2 ? channels : 0;

  // One scratch block for the tables and two rows of horizontal sums.
  const size_t total = 4 * align_up(sizeof(int32_t) * n) + 2 * align_up(sizeof(int32_t) * groups) +
                       align_up(sizeof(AxisTap) * dw) + align_up(sizeof(AxisTap) * dh) +
                       2 * align_up(sizeof(int16_t) * n);
  std::unique_ptr<uint8_t, decltype(&std::free)> block(
      static_cast<uint8_t*>(std::aligned_alloc(64, align_up(total))), &std::free);
  if (!block) return kFailed;
  Carver carve(block.get());
  auto* ofs = carve.take<int32_t>(n);
  auto* weights = carve.take<int32_t>(n);
  auto* shuffle = carve.take<uint32_t>(n);
  auto* base = carve.take<int32_t>(groups);
  auto* split_hi = carve.take<int32_t>(groups);
  auto* col_taps = carve.take<AxisTap>(dw);
  auto* row_taps = carve.take<AxisTap>(dh);
  int16_t* sums[2] = {carve.take<int16_t>(n), carve.take<int16_t>(n)};

  compute_axis_taps(sw, dw, col_taps);
  compute_axis_taps(sh, dh, row_taps);
  for (int dx = 0; dx < dw; ++dx) {
    const uint32_t pair = static_cast<uint16_t>(col_taps[dx].w0) |
                          (static_cast<uint32_t>(static_cast<uint16_t>(col_taps[dx].w1)) << 16);
    for (int c = 0; c < channels; ++c) {
      ofs[dx * channels + c] = col_taps[dx].index * channels + c;
      weights[dx * channels + c] = static_cast<int32_t>(pair);
    }
  }

  // Vector rows, over the prefix of whole groups whose loads stay inside the row: the window
  // form where each group of 4 elements finds its taps within 16 bytes; else, for 2 and 3
  // channels, the split form (two 8-byte halves, one per column of the group); else the
  // gather form. (Offsets are not monotonic element by element: the channels of one column
  // step up, the next column may start lower.)
  const int64_t row_bytes = static_cast<int64_t>(sw) * channels;
  enum class Form { kWindow, kSplit, kGather } form = Form::kWindow;
  int window_safe = 0;
  for (int g = 0; g < n / 4; ++g) {
    const int32_t* o = ofs + 4 * g;
    const int32_t lo = std::min({o[0], o[1], o[2], o[3]});
    const int32_t hi = std::max({o[0], o[1], o[2], o[3]});
    if (lo + 16 > row_bytes) break;
    if (hi + step - lo > 15) form = Form::kSplit;
    window_safe = 4 * (g + 1);
  }
  auto pick = [step](int32_t t0) {
    const auto t = static_cast<uint32_t>(t0);
    return t | 0x80u << 8 | (t + static_cast<uint32_t>(step)) << 16 | 0x80u << 24;
  };
  int split_safe = 0;
  if (form == Form::kSplit) {
    if (channels < 2) form = Form::kGather;
    for (int g = 0; g < n / 4 && form == Form::kSplit; ++g) {
      const int32_t* o = ofs + 4 * g;
      // First tap of the group's first and last column.
      const int32_t a = o[0] - (4 * g) % channels, b = o[3] - (4 * g + 3) % channels;
      if (b + 8 > row_bytes) break;
      base[g] = a;
      split_hi[g] = b;
      for (int k = 0; k < 4; ++k) {
        const bool first = o[k] - a + step + 1 <= 8 && o[k] >= a && o[k] < b;
        shuffle[4 * g + k] = first ? pick(o[k] - a) : pick(o[k] - b + 8);
        if (!first && (o[k] < b || o[k] - b + step + 1 > 8)) form = Form::kGather;
      }
      if (form == Form::kSplit) split_safe = 4 * (g + 1);
    }
  } else {
    for (int g = 0; g < window_safe / 4; ++g) {
      const int32_t* o = ofs + 4 * g;
      base[g] = std::min({o[0], o[1], o[2], o[3]});
      for (int k = 0; k < 4; ++k) shuffle[4 * g + k] = pick(o[k] - base[g]);
    }
  }
  int gather_safe = 0;
  while (gather_safe < n && ofs[gather_safe] + 4 <= row_bytes) ++gather_safe;

  auto horizontal = [&](int32_t sy, int16_t* out) {
    const uint8_t* row = src + static_cast<int64_t>(sy) * src_stride;
    int done = 0;
    if (avx2) {
      switch (form) {
        case Form::kWindow:
          done = hresample_row_avx2_window(row, base, shuffle, weights, out, window_safe);
          break;
        case Form::kSplit:
          done = hresample_row_avx2_split(row, base, split_hi, shuffle, weights, out, split_safe);
          break;
        case Form::kGather:
          done = hresample_row_avx2_gather(row, ofs, weights, out, gather_safe, step);
          break;
      }
    }
    hresample_row_c(row, ofs + done, weights + done, out + done, n - done, step);
  };

  // Rows of sums are cached by source row: an upscale reuses them across output rows.
  int32_t cached[2] = {-1, -1};
  for (int32_t dy = 0; dy < dh; ++dy) {
    const int32_t sy0 = row_taps[dy].index;
    const int32_t sy1 = sh >= 2 ? sy0 + 1 : sy0;
    if (cached[0] != sy0 && cached[1] == sy0) {
      std::swap(sums[0], sums[1]);
      std::swap(cached[0], cached[1]);
    }
    if (cached[0] != sy0) {
      horizontal(sy0, sums[0]);
      cached[0] = sy0;
    }
    if (cached[1] != sy1) {
      horizontal(sy1, sums[1]);
      cached[1] = sy1;
    }
    uint8_t* out = dst + static_cast<int64_t>(dy) * dst_stride;
    const int32_t b0 = row_taps[dy].w0, b1 = row_taps[dy].w1;
    const int done = avx2 ? vresample_row_avx2(sums[0], sums[1], b0, b1, out, n) : 0;
    vresample_row_c(sums[0] + done, sums[1] + done, b0, b1, out + done, n - done);
  }
  return kOk;
}

}  // namespace zarvel::aux::resample
