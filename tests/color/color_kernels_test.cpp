// The plane loops of the colour conversions: the scalar path against the reference formulas
// over every input byte combination, and every vector path against the scalar one, byte for
// byte, exhaustively and over generated shapes, strides and buffers that end at a guard page.
#include "ops/color/color_kernels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "color_oracle.h"
#include "guarded_buffer.h"
#include "ops/color/color_planes.h"
#include "plugin/cpu_features.h"

namespace za = zarvel::aux;
namespace zc = zarvel::aux::color;
namespace oracle = zarvel::test::color_oracle;
using zc::Chroma;

namespace {

struct Variant {
  const char* name;
  uint32_t mask;  // feature mask that selects this variant
  uint32_t needs;
};
constexpr Variant kScalar = {"scalar", 0u, 0u};
constexpr Variant kNarrow = {"sse41", za::kCpuAvx | za::kCpuAvx2, za::kCpuAvx2};
constexpr Variant kWide = {"avx2", ~0u, za::kCpuAvx2Fma};

bool available(const Variant& v) {
  za::set_cpu_feature_mask(~0u);
  return (za::cpu_features() & v.needs) == v.needs;
}

// Runs `fn(out)` on an n-byte output pre-filled with a sentinel, with only `v` enabled.
std::vector<uint8_t> run_as(const Variant& v, size_t n, const std::function<void(uint8_t*)>& fn) {
  za::set_cpu_feature_mask(v.mask);
  std::vector<uint8_t> out(n, 0x5a);
  fn(out.data());
  za::set_cpu_feature_mask(~0u);
  return out;
}

class ColorKernels : public ::testing::Test {
 protected:
  void TearDown() override { za::set_cpu_feature_mask(~0u); }
};

// 4:2:0 planes in any of the three layouts, built from planar U and V, rows padded by `pad`.
struct Yuv420 {
  int w, h, y_stride, c_stride;
  std::vector<uint8_t> y, c1, c2;
};
Yuv420 make_yuv(Chroma chroma, int w, int h, const std::vector<uint8_t>& y,
                const std::vector<uint8_t>& u, const std::vector<uint8_t>& v, int pad = 0) {
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  const bool planar = chroma == Chroma::kYu12;
  Yuv420 f{w, h, w + pad, (planar ? cw : 2 * cw) + pad, {}, {}, {}};
  f.y.assign(static_cast<size_t>(f.y_stride) * h, 0xa5);
  f.c1.assign(static_cast<size_t>(f.c_stride) * ch, 0xa5);
  if (planar) f.c2 = f.c1;
  for (int r = 0; r < h; ++r) std::memcpy(&f.y[r * f.y_stride], &y[r * w], w);
  // NV21 puts V first; YU12 keeps U and V in planes of their own.
  const std::vector<uint8_t>& first = chroma == Chroma::kNv21 ? v : u;
  const std::vector<uint8_t>& second = chroma == Chroma::kNv21 ? u : v;
  for (int i = 0; i < ch * cw; ++i) {
    const int at = i / cw * f.c_stride + (planar ? 1 : 2) * (i % cw);
    f.c1[at] = first[i];
    (planar ? f.c2[at] : f.c1[at + 1]) = second[i];
  }
  return f;
}

std::vector<uint8_t> to_rgb(const Yuv420& f, Chroma chroma, bool bgr, const Variant& variant,
                            int dst_pad = 0) {
  const int dst_stride = 3 * f.w + dst_pad;
  return run_as(variant, static_cast<size_t>(dst_stride) * f.h, [&](uint8_t* out) {
    zc::yuv420_to_rgb(chroma, f.y.data(), f.y_stride, f.c1.data(), f.c_stride,
                      f.c2.empty() ? nullptr : f.c2.data(), f.c_stride, out, dst_stride, f.w, f.h,
                      bgr);
  });
}

// The YUV -> RGB cases: every variant, layout and channel order that has its own code. u_step
// 1 checks every (Y, U, V) triple; the others share the arithmetic and sample U.
struct YuvCase {
  Variant variant;
  Chroma chroma;
  bool bgr;
  int u_step;
};
constexpr YuvCase kYuvCases[] = {
    {kWide, Chroma::kNv12, false, 1},    {kWide, Chroma::kNv12, true, 15},
    {kWide, Chroma::kNv21, false, 15},   {kWide, Chroma::kNv21, true, 1},
    {kWide, Chroma::kYu12, false, 15},   {kWide, Chroma::kYu12, true, 1},
    {kNarrow, Chroma::kYu12, false, 1},  {kNarrow, Chroma::kYu12, true, 15},
    {kNarrow, Chroma::kNv12, false, 15},  // without the 256-bit level this stays scalar
};

// A 128 x 512 frame per U holds every (Y, V) pair: block (j, k) has V = j and the luma values
// 4k .. 4k + 3. The scalar path matches the formula for every triple; each vector case
// matches the scalar path.
TEST_F(ColorKernels, YuvToRgbForEveryTriple) {
  constexpr int kW = 128, kH = 512;
  std::vector<uint8_t> y(kW * kH), u(kW / 2 * kH / 2), v(u.size());
  for (int i = 0; i < kW * kH; ++i) y[i] = (i % kW / 2) * 4 + (i / kW % 2) * 2 + i % 2;
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(i / (kW / 2));
  for (int uu = 0; uu < 256; ++uu) {
    std::fill(u.begin(), u.end(), static_cast<uint8_t>(uu));
    const Yuv420 yu12 = make_yuv(Chroma::kYu12, kW, kH, y, u, v);
    const std::vector<uint8_t> out = to_rgb(yu12, Chroma::kYu12, false, kScalar);
    for (int i = 0; i < kW * kH; ++i) {
      const oracle::Rgb want = oracle::yuv_to_rgb(y[i], uu, i / kW / 2);
      if (std::memcmp(&out[3 * i], want.data(), 3) != 0) {
        FAIL() << "Y " << int(y[i]) << " U " << uu << " V " << i / kW / 2;
      }
    }
    for (const YuvCase& c : kYuvCases) {
      if (uu % c.u_step != 0 || !available(c.variant)) continue;
      const Yuv420 f = make_yuv(c.chroma, kW, kH, y, u, v);
      ASSERT_EQ(to_rgb(f, c.chroma, c.bgr, kScalar), to_rgb(f, c.chroma, c.bgr, c.variant))
          << c.variant.name << " layout " << int(c.chroma) << " bgr " << c.bgr << " U " << uu;
    }
  }
}

// For one R, a row of 65536 blocks (two equal pixels each) holds every (G, B), as pixels for
// the luma and as top-left pixels for the chroma. The scalar rows match the formula; the
// vector rows (luma alone, and luma with chroma) match the scalar ones in every layout.
TEST_F(ColorKernels, RgbToYuvRowsForEveryTriple) {
  constexpr int kWidth = 2 * 65536;
  const bool vector = available(kWide);
  std::vector<uint8_t> rgb(3 * kWidth), ys(kWidth), yv(kWidth), yl(kWidth), cs(kWidth), cv(kWidth);
  for (int r = 0; r < 256; ++r) {
    for (int i = 0; i < kWidth; ++i) {
      const uint8_t px[3] = {uint8_t(r), uint8_t(i >> 9), uint8_t(i >> 1)};
      std::memcpy(&rgb[3 * i], px, 3);
    }
    for (const auto [chroma, bgr] :
         {std::pair{Chroma::kNv12, false}, std::pair{Chroma::kNv21, true},
          std::pair{Chroma::kYu12, false}}) {
      const int step = chroma == Chroma::kYu12 ? 1 : 2;
      const ptrdiff_t u_at = chroma == Chroma::kNv21 ? 1 : 0;
      const ptrdiff_t v_at = chroma == Chroma::kNv12 ? 1 : (step == 1 ? 65536 : 0);
      zc::rgb_to_luma_row_c(rgb.data(), ys.data(), 0, kWidth, bgr);
      zc::rgb_to_chroma_row_c(rgb.data(), cs.data() + u_at, cs.data() + v_at, step, 0, 65536, bgr);
      for (int b = 0; chroma == Chroma::kNv12 && b < 65536; ++b) {
        const int g = b >> 8, bl = b & 255;
        if (ys[2 * b] != oracle::luma_of(r, g, bl) || ys[2 * b + 1] != ys[2 * b] ||
            cs[2 * b] != oracle::u_of(r, g, bl) || cs[2 * b + 1] != oracle::v_of(r, g, bl)) {
          FAIL() << "YUV of " << r << "," << g << "," << bl;
        }
      }
      if (!vector) continue;
      int done = zc::rgb_to_luma_chroma_row_avx2(rgb.data(), yv.data(), cv.data() + u_at,
                                                 cv.data() + v_at, step, kWidth, bgr);
      zc::rgb_to_luma_row_c(rgb.data(), yv.data(), done, kWidth, bgr);
      zc::rgb_to_chroma_row_c(rgb.data(), cv.data() + u_at, cv.data() + v_at, step, done / 2, 65536,
                              bgr);
      done = zc::rgb_to_luma_row_avx2(rgb.data(), yl.data(), kWidth, bgr);
      zc::rgb_to_luma_row_c(rgb.data(), yl.data(), done, kWidth, bgr);
      ASSERT_TRUE(ys == yv && cs == cv && ys == yl) << "R " << r << " layout " << int(chroma);
    }
  }
}

std::vector<uint8_t> rgb_to_grey(const std::vector<uint8_t>& rgb, int w, int h, int pad, bool bgr,
                                 const Variant& variant) {
  return run_as(variant, static_cast<size_t>(w + pad) * h, [&](uint8_t* out) {
    zc::rgb_to_grey(rgb.data(), 3 * w + pad, bgr, out, w + pad, w, h);
  });
}

TEST_F(ColorKernels, GreyMatchesTheFormulaAndTheVectorPathForEveryTriple) {
  const bool vector = available(kWide);
  std::vector<uint8_t> rgb(256 * 256 * 3);
  for (int r = 0; r < 256; ++r) {
    for (int i = 0; i < 256 * 256; ++i) {
      const uint8_t px[3] = {uint8_t(r), uint8_t(i / 256), uint8_t(i % 256)};
      std::memcpy(&rgb[3 * i], px, 3);
    }
    for (const bool bgr : {false, true}) {
      const std::vector<uint8_t> s = rgb_to_grey(rgb, 256, 256, 0, bgr, kScalar);
      for (int i = 0; i < 256 * 256; ++i) {
        const int a = r, b = i / 256, c = i % 256;
        ASSERT_EQ(s[i], bgr ? oracle::grey_of(c, b, a) : oracle::grey_of(a, b, c));
      }
      if (vector) ASSERT_EQ(s, rgb_to_grey(rgb, 256, 256, 0, bgr, kWide)) << "R " << r;
    }
  }
}

// Every vector kernel against the scalar one over widths 1..70 that straddle the vector
// blocks, several heights and padded strides; padding keeps its sentinel.
TEST_F(ColorKernels, VectorPathsMatchScalarOverShapesAndStrides) {
  std::mt19937 rng(7);
  for (int w = 1; w <= 70; ++w) {
    for (int h : {1, 2, 3, 6}) {
      for (int pad : {0, 1, 13}) {
        SCOPED_TRACE(testing::Message() << "w " << w << " h " << h << " pad " << pad);
        std::vector<uint8_t> src(static_cast<size_t>(3 * w + pad) * h);
        for (auto& b : src) b = static_cast<uint8_t>(rng());
        const std::vector<uint8_t> y(src.begin(), src.begin() + w * h);
        const std::vector<uint8_t> u(src.end() - (w + 1) / 2 * ((h + 1) / 2), src.end());
        const std::vector<uint8_t> v(src.begin() + 1, src.begin() + 1 + u.size());
        for (const YuvCase& c : kYuvCases) {
          if (!available(c.variant)) continue;
          const Yuv420 f = make_yuv(c.chroma, w, h, y, u, v, pad);
          ASSERT_EQ(to_rgb(f, c.chroma, c.bgr, kScalar, pad),
                    to_rgb(f, c.chroma, c.bgr, c.variant, pad))
              << c.variant.name << " layout " << int(c.chroma);
        }
        if (!available(kWide)) continue;
        const int s3 = 3 * w + pad, ys = w + pad;
        const int cs = 2 * (w / 2) + pad, half = h / 2;
        const std::vector<std::function<void(uint8_t*)>> ops = {
            [&](uint8_t* o) { zc::rgb_to_grey(src.data(), s3, h % 2, o, ys, w, h); },
            [&](uint8_t* o) { zc::swap_rb(src.data(), s3, o, s3, w, h); },
            [&](uint8_t* o) { zc::grey_to_rgb(src.data(), ys, o, s3, w, h); },
            [&](uint8_t* o) { zc::swap_pairs(src.data(), 2 * w + pad, o, 2 * w + pad, w, h); },
            // RGB -> NV12, NV21 (from BGR) and YU12, the chroma planes after the luma plane.
            [&](uint8_t* o) {
              zc::rgb_to_yuv420(src.data(), s3, false, o, ys,
                                {o + ys * h, cs, o + ys * h + 1, cs, 2}, w, h);
            },
            [&](uint8_t* o) {
              zc::rgb_to_yuv420(src.data(), s3, true, o, ys,
                                {o + ys * h + 1, cs, o + ys * h, cs, 2}, w, h);
            },
            [&](uint8_t* o) {
              uint8_t* u_plane = o + ys * h;
              uint8_t* v_plane = u_plane + (w / 2 + pad) * half;
              zc::rgb_to_yuv420(src.data(), s3, false, o, ys,
                                {u_plane, w / 2 + pad, v_plane, w / 2 + pad, 1}, w, h);
            }};
        for (size_t i = 0; i < ops.size(); ++i) {
          const std::vector<uint8_t> s = run_as(kScalar, 2 * src.size(), ops[i]);
          ASSERT_EQ(s, run_as(kWide, 2 * src.size(), ops[i])) << "op " << i;
          if (pad && i == 0) ASSERT_EQ(s[w], 0x5a);
        }
      }
    }
  }
}

TEST_F(ColorKernels, GreyStretchBoundsUseWrappingSixteenBitSums) {
  // 1000 x 100 samples: threshold 10. Bin 100 holds 65540 samples, whose low 16 bits (4) are
  // all the running sums see; bin 200 holds the rest. Below bin 200 the sum is 4 (< 10), so
  // no bin qualifies as the low bound and everything maps to 0.
  std::vector<uint32_t> hist(65536, 0);
  std::vector<uint8_t> table(65536);
  hist[100] = 65540;
  hist[200] = 100000 - 65540;
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  EXPECT_EQ(table[200], 0);
  // Without the wrap-around: L = 200 (20 samples below), H = 200 (the top bins are empty until
  // 200): all black.
  hist[100] = 20;
  hist[200] = 100000 - 20;
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  EXPECT_EQ(table[200], 0);
  hist[300] = 50;  // H moves up to 300, the range is 100 bins
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  EXPECT_EQ(table[250], 0);  // empty bin inside the range
  // (300 - 200) * (255.0 / 100) is 254.99999999999997 in double precision: truncated to 254.
  EXPECT_EQ(table[300], 254);
  EXPECT_EQ(table[301], 255);
  hist[250] = 1;
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  EXPECT_EQ(table[250], 127);  // 50 * 2.55 = 127.5, truncated
}

// Every plane exactly two rows (one chroma row) long, ending at a guard page.
TEST_F(ColorKernels, VectorRowsStayInsideTheirRows) {
  using zarvel::test::GuardedBuffer;
  if (!available(kWide)) GTEST_SKIP();
  for (const Variant& variant : {kWide, kNarrow}) {
    za::set_cpu_feature_mask(variant.mask);
    for (int w = 2; w <= 48; w += 2) {
      GuardedBuffer y(2 * w), uv(w), u(w / 2), v(w / 2), rgb(6 * w), rgb2(6 * w), grey(2 * w);
      zc::yuv420_to_rgb(Chroma::kNv12, y.data(), w, uv.data(), w, nullptr, 0, rgb.data(), 3 * w, w,
                        2, false);
      zc::yuv420_to_rgb(Chroma::kYu12, y.data(), w, u.data(), w / 2, v.data(), w / 2, rgb.data(),
                        3 * w, w, 2, true);
      zc::rgb_to_yuv420(rgb.data(), 3 * w, false, y.data(), w, {uv.data(), w, uv.data() + 1, w, 2},
                        w, 2);
      zc::rgb_to_yuv420(rgb.data(), 3 * w, true, y.data(), w, {u.data(), w / 2, v.data(), w / 2, 1},
                        w, 2);
      zc::rgb_to_grey(rgb.data(), 3 * w, false, grey.data(), w, w, 2);
      zc::swap_rb(rgb.data(), 3 * w, rgb2.data(), 3 * w, w, 2);
      zc::grey_to_rgb(grey.data(), w, rgb2.data(), 3 * w, w, 2);
      zc::swap_pairs(uv.data(), w, uv.data(), w, w / 2, 1);
    }
  }
}

}  // namespace
