// The bilinear resampler: hand-checked weights and rounding, an independent per-pixel model,
// and every kernel variant against it over many shapes, strides and alignments.
#include "ops/crop_resize/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "guarded_buffer.h"
#include "op_test_support.h"
#include "ops/crop_resize/resample_kernels.h"

namespace rs = zarvel::aux::resample;
namespace za = zarvel::aux;
using zarvel::test::FeatureMask;
using zarvel::test::GuardedBuffer;

namespace {

// The per-pixel model: taps and weights straight from the coordinate formula, each output
// pixel computed on its own.
struct Tap {
  int i0, i1, w0, w1;
};
Tap model_tap(int d, int src, int dst) {
  const float ratio = static_cast<float>(dst) / static_cast<float>(src);
  const double factor = static_cast<float>(1.0 / static_cast<double>(ratio));
  const double f = (d + 0.5) * factor - 0.5;
  int s = static_cast<int>(std::floor(f));
  double frac = f - std::floor(f);
  if (s < 0) s = 0, frac = 0;
  if (s >= src - 1) s = src - 1, frac = 0;
  return {s, std::min(s + 1, src - 1), static_cast<int>(std::nearbyint((1 - frac) * 2048)),
          static_cast<int>(std::nearbyint(frac * 2048))};
}

std::vector<uint8_t> model_resize(const uint8_t* src, int sw, int sh, int sstride, int dw, int dh,
                                  int c) {
  std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * c);
  for (int y = 0; y < dh; ++y) {
    const Tap ty = model_tap(y, sh, dh);
    for (int x = 0; x < dw; ++x) {
      const Tap tx = model_tap(x, sw, dw);
      for (int k = 0; k < c; ++k) {
        auto hsum = [&](int row) {
          const uint8_t* r = src + static_cast<size_t>(row) * sstride;
          return tx.w0 * r[tx.i0 * c + k] + tx.w1 * r[tx.i1 * c + k];
        };
        const int v = (((hsum(ty.i0) >> 4) * ty.w0) >> 16) + (((hsum(ty.i1) >> 4) * ty.w1) >> 16);
        out[(static_cast<size_t>(y) * dw + x) * c + k] = static_cast<uint8_t>((v + 2) >> 2);
      }
    }
  }
  return out;
}

// 2x2 up to 3x3: the middle taps weigh 1024/1024, the edges clamp. 3x3 down to 2x2: taps at
// 0.25 and 1.75, weights 1536/512 and 512/1536; the vertical step truncates 727.5 and 761.25
// before the final rounding. One source pixel fills any output.
TEST(Resample, HandCheckedTinyCases) {
  FeatureMask scalar(0);
  struct Case {
    int sw, sh, dw, dh;
    std::vector<uint8_t> src, want;
  } cases[] = {{2, 2, 3, 3, {0, 100, 200, 255}, {0, 50, 100, 100, 139, 178, 200, 228, 255}},
               {3, 3, 2, 2, {0, 40, 80, 120, 160, 200, 240, 250, 255}, {40, 100, 214, 238}},
               {1, 1, 5, 1, {77}, {77, 77, 77, 77, 77}}};
  for (const Case& c : cases) {
    std::vector<uint8_t> out(c.want.size());
    ASSERT_EQ(rs::resample_plane(c.src.data(), c.sw, c.sh, c.sw, out.data(), c.dw, c.dh, c.dw, 1),
              0);
    EXPECT_EQ(out, c.want) << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh;
  }
}

// Every variant equals the model byte for byte; sources end at a guard page (after the
// misaligned start), output rows are padded with a sentinel that must survive. With
// `padded_reads` the vector rows may read the source rows' padding too.
void expect_model(std::mt19937& rng, int c, int sw, int sh, int dw, int dh, int spad, int misalign,
                  bool padded_reads) {
  const int sstride = sw * c + spad, dstride = dw * c + 7;
  GuardedBuffer src(static_cast<size_t>(sstride) * (sh - 1) + (padded_reads ? sstride : sw * c) +
                    misalign);
  uint8_t* s = src.data() + misalign;
  std::generate(src.data(), src.data() + src.size(), [&] { return uint8_t(rng()); });
  const auto expected = model_resize(s, sw, sh, sstride, dw, dh, c);
  for (uint32_t mask : {0u, ~0u}) {
    FeatureMask features(mask);
    std::vector<uint8_t> out(static_cast<size_t>(dstride) * dh + 1, 0xA5);
    rs::PlaneResampler resampler;
    ASSERT_EQ(resampler.init(sw, sh, dw, dh, c, padded_reads ? sstride : 0), 0);
    resampler.run([&](int32_t sy) { return s + static_cast<size_t>(sy) * sstride; },
                  [&](int32_t dy) { return out.data() + 1 + static_cast<size_t>(dy) * dstride; },
                  [](int32_t) {}, [](int32_t) { return nullptr; });
    ASSERT_EQ(out[0], 0xA5);
    for (int y = 0; y < dh; ++y) {
      const uint8_t* row = out.data() + 1 + static_cast<size_t>(y) * dstride;
      ASSERT_EQ(std::memcmp(row, &expected[static_cast<size_t>(y) * dw * c], dw * c), 0)
          << "mask " << mask << " c" << c << " " << sw << "x" << sh << " -> " << dw << "x" << dh
          << " row " << y;
      for (int p = dw * c; p < dstride && y + 1 < dh; ++p) ASSERT_EQ(row[p], 0xA5);
    }
  }
}

// Random shapes up and down; then wide sources, whose strong reductions take the gather form
// of the horizontal row and mild ones the window form.
TEST(Resample, VariantsMatchTheModelOverShapesStridesAndAlignments) {
  std::mt19937 rng(1234);
  for (int c = 1; c <= 3; ++c) {
    for (int i = 0; i < 220; ++i) {
      const int sw = 1 + rng() % 70, sh = 1 + rng() % 40, dw = 1 + rng() % 70, dh = 1 + rng() % 40;
      const int spad = static_cast<int>(rng() % 3) * 5, misalign = static_cast<int>(rng() % 4);
      ASSERT_NO_FATAL_FAILURE(expect_model(rng, c, sw, sh, dw, dh, spad, misalign, i % 2));
    }
    for (int sw : {97, 150, 301})
      for (int dw : {16, 17, 23, 40, 64, 91})
        ASSERT_NO_FATAL_FAILURE(expect_model(rng, c, sw, 3, dw, 2, 0, 0, false));
  }
}

// The vector rows alone, on lengths around their block sizes and on extreme sums.
TEST(Resample, VerticalVectorRowEqualsScalarRow) {
  if (!(za::cpu_features() & za::kCpuAvx2)) GTEST_SKIP() << "no AVX2 on this processor";
  std::mt19937 rng(99);
  for (int n = 1; n <= 100; ++n) {
    std::vector<int16_t> s0(n), s1(n);
    for (int j = 0; j < n; ++j) {
      s0[j] = static_cast<int16_t>(rng() % 32641);
      s1[j] = j % 3 == 0 ? 32640 : static_cast<int16_t>(rng() % 32641);
    }
    for (int b1 : {0, 1, 1023, 1024, 2047, 2048}) {
      std::vector<uint8_t> a(n, 1), b(n, 2);
      const int done = rs::vresample_row_avx2(s0.data(), s1.data(), 2048 - b1, b1, a.data(), n);
      EXPECT_EQ(done, n >= 32 ? n : 0);
      rs::vresample_row_c(s0.data() + done, s1.data() + done, 2048 - b1, b1, a.data() + done,
                          n - done);
      rs::vresample_row_c(s0.data(), s1.data(), 2048 - b1, b1, b.data(), n);
      ASSERT_EQ(a, b) << n << " " << b1;
    }
  }
}

}  // namespace
