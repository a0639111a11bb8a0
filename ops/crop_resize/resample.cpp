// Table building and the plane loop of the bilinear resampler, with the choice of row
// kernels by the processor-feature word.
#include "ops/crop_resize/resample.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "ops/crop_resize/resample_kernels.h"
#include "plugin/cpu_features.h"
#include "plugin/status.h"

namespace zarvel::aux::resample {

namespace {

// nearbyint for 0 <= x <= 2048 without a library call: adding and removing 2^52 leaves no
// fraction bits, so the sum is rounded in the current rounding mode (nearest, ties to even),
// exactly as nearbyint rounds.
#ifdef __FAST_MATH__
#error "round_weight needs IEEE double arithmetic: build without -ffast-math"
#endif
inline int32_t round_weight(double x) {
  constexpr double kShift = 4503599627370496.0;  // 2^52
  return static_cast<int32_t>((x + kShift) - kShift);
}

}  // namespace

void compute_axis_taps(int32_t src_size, int32_t dst_size, AxisTap* taps, int32_t count) {
  // The ratio in single precision, its reciprocal in double rounded to single.
  const float ratio = static_cast<float>(dst_size) / static_cast<float>(src_size);
  const double factor = static_cast<float>(1.0 / static_cast<double>(ratio));
  if (count < 0 || count > dst_size) count = dst_size;
  for (int32_t d = 0; d < count; ++d) {
    const double f = (d + 0.5) * factor - 0.5;
    // floor(f) without a library call: truncation, one down for negative fractions.
    int64_t s = static_cast<int64_t>(f);
    if (static_cast<double>(s) > f) --s;
    double frac = f - static_cast<double>(s);
    if (s < 0) {
      s = 0;
      frac = 0.0;
    }
    if (s >= src_size - 1) {
      s = src_size - 1;
      frac = 0.0;
    }
    int32_t w1 = round_weight(frac * kWeightScale);
    int32_t w0 = round_weight((1.0 - frac) * kWeightScale);
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

int32_t PlaneResampler::init(int32_t sw, int32_t sh, int32_t dw, int32_t dh, int32_t channels,
                             int64_t readable, int32_t out_w, int32_t out_h) {
  const int64_t key[9] = {sw, sh, dw, dh, channels, readable, out_w, out_h, cpu_features()};
  if (block_ && std::equal(key, key + 9, key_)) return kOk;
  block_.reset();
  const int32_t full_w = dw, full_h = dh;
  if (out_w > 0 && out_w < dw) dw = out_w;
  if (out_h > 0 && out_h < dh) dh = out_h;
  if (sw <= 0 || sh <= 0 || dw <= 0 || dh <= 0 || channels <= 0 ||
      static_cast<int64_t>(dw) * channels > (int64_t{1} << 28) ||
      static_cast<int64_t>(sw) * channels > (int64_t{1} << 28)) {
    return kFailed;
  }
  avx2_ = (cpu_features() & kCpuAvx2) != 0;
  sh_ = sh;
  dh_ = dh;
  source_bytes_ = static_cast<int64_t>(sw) * channels;
  n_ = dw * channels;  // output elements per row
  step_ = sw >= 2 ? channels : 0;
  const int groups = (n_ + 3) / 4;

  // One scratch block for the tables and two rows of horizontal sums.
  const int wide_blocks = n_ / 32;
  const size_t total = 5 * align_up(sizeof(int32_t) * n_) + 2 * align_up(sizeof(int32_t) * groups) +
                       align_up(sizeof(int32_t) * wide_blocks) + align_up(sizeof(int32_t) * dw) +
                       2 * align_up(sizeof(uint16_t) * n_) + align_up(sizeof(AxisTap) * dw) +
                       align_up(sizeof(AxisTap) * dh) + 2 * align_up(sizeof(int16_t) * n_);
  block_.reset(static_cast<uint8_t*>(std::aligned_alloc(64, align_up(total))));
  if (!block_) return kFailed;
  Carver carve(block_.get());
  ofs_ = carve.take<int32_t>(n_);
  weights_ = carve.take<int32_t>(n_);
  shuffle_ = carve.take<uint32_t>(n_);
  base_ = carve.take<int32_t>(groups);
  split_hi_ = carve.take<int32_t>(groups);
  wide_base_ = carve.take<int32_t>(wide_blocks);
  wide_picks_ = carve.take<uint16_t>(n_);
  pixel_ofs_ = carve.take<int32_t>(dw);
  w_low_ = carve.take<uint16_t>(n_);
  w_high_ = carve.take<uint16_t>(n_);
  auto* col_taps = carve.take<AxisTap>(dw);
  row_taps_ = carve.take<AxisTap>(dh);
  sums_[0] = carve.take<int16_t>(n_);
  sums_[1] = carve.take<int16_t>(n_);

  compute_axis_taps(sw, full_w, col_taps, dw);
  compute_axis_taps(sh, full_h, row_taps_, dh);
  for (int dx = 0; dx < dw; ++dx) {
    const auto w0 = static_cast<uint16_t>(col_taps[dx].w0);
    const auto w1 = static_cast<uint16_t>(col_taps[dx].w1);
    const uint32_t pair = w0 | static_cast<uint32_t>(w1) << 16;
    for (int c = 0; c < channels; ++c) {
      ofs_[dx * channels + c] = col_taps[dx].index * channels + c;
      weights_[dx * channels + c] = static_cast<int32_t>(pair);
      w_low_[dx * channels + c] = static_cast<uint16_t>((w0 & 63) | (w1 & 63) << 8);
      w_high_[dx * channels + c] = static_cast<uint16_t>(w0 >> 6 | (w1 >> 6) << 8);
    }
  }
  const int64_t row_bytes = std::max(readable, static_cast<int64_t>(sw) * channels);
  wide_elements_ = 0;
  wide_gather_ = false;
  if ((cpu_features() & kCpuAvx512Vbmi) != 0) plan_wide_rows(row_bytes);
  // The 256-bit tables serve only what the 512-bit row leaves.
  vector_elements_ = 0;
  if (wide_elements_ < n_) plan_vector_rows(row_bytes);
  std::copy(key, key + 9, key_);
  return kOk;
}

// Vector rows, over the prefix of whole groups whose loads stay inside the row: the window
// form where each group of 4 elements finds its taps within 16 bytes; else, for 2 and 3
// channels, the split form (two 8-byte halves, one per column of the group); else the gather
// form. (Offsets are not monotonic element by element: the channels of one column step up,
// the next column may start lower.)
// The byte picks {tap0, zero, tap1, zero} of an element whose first tap is t bytes into its
// window: a byte shuffle zeroes the 0x80 bytes, the 512-bit permute masks them.
uint32_t PlaneResampler::pick(int32_t t0) const {
  const auto t = static_cast<uint32_t>(t0);
  return t | 0x80u << 8 | (t + static_cast<uint32_t>(step_)) << 16 | 0x80u << 24;
}

void PlaneResampler::plan_vector_rows(int64_t row_bytes) {
  form_ = Form::kWindow;
  int window_safe = 0;
  for (int g = 0; g < n_ / 4; ++g) {
    const int32_t* o = ofs_ + 4 * g;
    const int32_t lo = std::min({o[0], o[1], o[2], o[3]});
    const int32_t hi = std::max({o[0], o[1], o[2], o[3]});
    if (lo + 16 > row_bytes) break;
    if (hi + step_ - lo > 15) form_ = Form::kSplit;
    window_safe = 4 * (g + 1);
  }
  if (form_ == Form::kWindow) {
    for (int g = 0; g < window_safe / 4; ++g) {
      const int32_t* o = ofs_ + 4 * g;
      base_[g] = std::min({o[0], o[1], o[2], o[3]});
      for (int k = 0; k < 4; ++k) shuffle_[4 * g + k] = pick(o[k] - base_[g]);
    }
    vector_elements_ = window_safe;
    return;
  }
  // The split form needs each column's two taps within 8 bytes: 2 or 3 channels.
  const int channels_per_column = step_ > 0 ? step_ : 1;
  int split_safe = 0;
  bool split_fits = channels_per_column >= 2;
  for (int g = 0; g < n_ / 4 && split_fits; ++g) {
    const int32_t* o = ofs_ + 4 * g;
    // First taps of the columns of the group's first and last element.
    const int32_t a = o[0] - (4 * g) % channels_per_column;
    const int32_t b = o[3] - (4 * g + 3) % channels_per_column;
    if (b + 8 > row_bytes) break;
    base_[g] = a;
    split_hi_[g] = b;
    for (int k = 0; k < 4; ++k) {
      const bool first = o[k] >= a && o[k] < b && o[k] - a + step_ + 1 <= 8;
      shuffle_[4 * g + k] = first ? pick(o[k] - a) : pick(o[k] - b + 8);
      if (!first && (o[k] < b || o[k] - b + step_ + 1 > 8)) split_fits = false;
    }
    if (split_fits) split_safe = 4 * (g + 1);
  }
  if (split_fits) {
    vector_elements_ = split_safe;
    return;
  }
  form_ = Form::kGather;
  vector_elements_ = 0;
  while (vector_elements_ < n_ && ofs_[vector_elements_] + 4 <= row_bytes) ++vector_elements_;
}

// The 512-bit window form: the prefix of whole 32-element blocks whose taps lie within 128
// bytes that stay inside the row. Its elements start the row; the 256-bit row takes over
// after them.
void PlaneResampler::plan_wide_rows(int64_t row_bytes) {
  for (int k = 0; k < n_ / 32; ++k) {
    const int32_t* o = ofs_ + 32 * k;
    const int32_t lo = *std::min_element(o, o + 32), hi = *std::max_element(o, o + 32);
    if (hi + step_ - lo > 127 || lo + 128 > row_bytes) break;
    wide_base_[k] = lo;
    for (int j = 0; j < 32; ++j) {
      wide_picks_[32 * k + j] = static_cast<uint16_t>((o[j] - lo) | (o[j] - lo + step_) << 8);
    }
    wide_elements_ = 32 * (k + 1);
  }
  // Three channels reduced more than the window reaches (about 3x): the pixel-gather form,
  // whose 8-byte reads hold both columns of a pixel whatever the spread.
  wide_gather_ = wide_elements_ == 0 && step_ == 3;
  if (!wide_gather_) return;
  const int pixels = n_ / 3;
  for (int p = 0; p < pixels; ++p) pixel_ofs_[p] = ofs_[3 * p];
  int safe = 0;
  while (safe + 32 <= pixels && pixel_ofs_[safe + 31] + 8 <= row_bytes) safe += 32;
  wide_elements_ = 3 * safe;
}

void PlaneResampler::horizontal(const uint8_t* row, int16_t* out, int first) const {
  int done = first;
  if (first == 0 && wide_elements_ > 0) {
    done = wide_gather_
               ? hresample_row_avx512_gather3(row, pixel_ofs_, w_low_, w_high_, out, wide_elements_)
               : hresample_row_avx512_window(row, wide_base_, wide_picks_, w_low_, w_high_, out,
                                             wide_elements_);
  }
  if (avx2_ && done < vector_elements_) {
    // The 256-bit tables from element `done` on (a multiple of 32: whole groups of 4).
    const int n = vector_elements_ - done;
    int more = 0;
    switch (form_) {
      case Form::kWindow:
        more = hresample_row_avx2_window(row, base_ + done / 4, shuffle_ + done, weights_ + done,
                                         out + done, n);
        break;
      case Form::kSplit:
        more = hresample_row_avx2_split(row, base_ + done / 4, split_hi_ + done / 4,
                                        shuffle_ + done, weights_ + done, out + done, n);
        break;
      case Form::kGather:
        more = hresample_row_avx2_gather(row, ofs_ + done, weights_ + done, out + done, n, step_);
        break;
    }
    done += more;
  }
  hresample_row_c(row, ofs_ + done, weights_ + done, out + done, n_ - done, step_);
}

void PlaneResampler::vertical(int32_t dy, uint8_t* out, int first) const {
  const int32_t b0 = row_taps_[dy].w0, b1 = row_taps_[dy].w1;
  const int16_t* s0 = sums_[0] + first;
  const int16_t* s1 = sums_[1] + first;
  out += first;
  const int n = n_ - first;
  const int done = avx2_ ? vresample_row_avx2(s0, s1, b0, b1, out, n) : 0;
  vresample_row_c(s0 + done, s1 + done, b0, b1, out + done, n - done);
}

void PlaneResampler::both_passes(int32_t dy, const uint8_t* row0, const uint8_t* row1,
                                 uint8_t* out) {
  const int done =
      resample_rows_avx512_gather3(row0, row1, pixel_ofs_, w_low_, w_high_, row_taps_[dy].w0,
                                   row_taps_[dy].w1, out, wide_elements_);
  if (done == n_) return;
  horizontal(row0, sums_[0], done);
  horizontal(row1, sums_[1], done);
  vertical(dy, out, done);
}

void PlaneResampler::swap_rows(int32_t cached[2]) {
  std::swap(sums_[0], sums_[1]);
  std::swap(cached[0], cached[1]);
}

int32_t resample_plane(const uint8_t* src, int32_t sw, int32_t sh, int32_t src_stride, uint8_t* dst,
                       int32_t dw, int32_t dh, int32_t dst_stride, int32_t channels) {
  if (sw <= 0 || sh <= 0 || dw <= 0 || dh <= 0) return kOk;
  PlaneResampler resampler;
  const int32_t status = resampler.init(sw, sh, dw, dh, channels);
  if (status != kOk) return status;
  resampler.run([&](int32_t sy) { return src + static_cast<int64_t>(sy) * src_stride; },
                [&](int32_t dy) { return dst + static_cast<int64_t>(dy) * dst_stride; },
                [](int32_t) {},
                [&](int32_t sy) { return src + static_cast<int64_t>(sy) * src_stride; });
  return kOk;
}

}  // namespace zarvel::aux::resample
