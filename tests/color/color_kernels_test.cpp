// The plane loops of the colour conversions: the scalar path against the reference formulas
// over every input byte combination, and every vector path against the scalar one, byte for
// byte, exhaustively and over generated shapes, strides and buffers that end at a guard page.
#include "ops/color/color_kernels.h"

#include <gtest/gtest.h>

#include <cstring>
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
template <class Fn>
std::vector<uint8_t> run_as(const Variant& v, size_t n, Fn fn) {
  za::set_cpu_feature_mask(v.mask);
  std::vector<uint8_t> out(n, 0x5a);
  fn(out.data());
  za::set_cpu_feature_mask(~0u);
  return out;
}

void fill_random(std::vector<uint8_t>* bytes, std::mt19937* rng) {
  for (auto& b : *bytes) b = static_cast<uint8_t>((*rng)());
}

class ColorKernels : public ::testing::Test {
 protected:
  void TearDown() override { za::set_cpu_feature_mask(~0u); }
};

// ---- YUV -> RGB ----

// 4:2:0 planes in any of the three layouts, built from planar U and V.
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
  for (int r = 0; r < ch; ++r) {
    for (int c = 0; c < cw; ++c) {
      const int at = r * f.c_stride + (planar ? c : 2 * c);
      f.c1[at] = first[r * cw + c];
      (planar ? f.c2[at] : f.c1[at + 1]) = second[r * cw + c];
    }
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

// A 128 x 512 frame that holds every (Y, V) pair with one U: block (j, k) has V = j and the
// luma values 4k .. 4k + 3. 256 such frames hold every (Y, U, V) triple.
constexpr int kChunkW = 128, kChunkH = 512;
void yuv_chunk(int u_value, std::vector<uint8_t>* y, std::vector<uint8_t>* u,
               std::vector<uint8_t>* v) {
  y->resize(kChunkW * kChunkH);
  u->assign(kChunkW / 2 * kChunkH / 2, static_cast<uint8_t>(u_value));
  v->resize(u->size());
  for (int r = 0; r < kChunkH; ++r) {
    for (int c = 0; c < kChunkW; ++c) (*y)[r * kChunkW + c] = (c / 2) * 4 + (r % 2) * 2 + c % 2;
  }
  for (int j = 0; j < kChunkH / 2; ++j) {
    for (int k = 0; k < kChunkW / 2; ++k) (*v)[j * kChunkW / 2 + k] = static_cast<uint8_t>(j);
  }
}

TEST_F(ColorKernels, ScalarYuvToRgbMatchesTheFormulaForEveryTriple) {
  std::vector<uint8_t> y, u, v;
  for (int uu = 0; uu < 256; ++uu) {
    yuv_chunk(uu, &y, &u, &v);
    const Yuv420 f = make_yuv(Chroma::kYu12, kChunkW, kChunkH, y, u, v);
    const std::vector<uint8_t> out = to_rgb(f, Chroma::kYu12, false, kScalar);
    for (int r = 0; r < kChunkH; ++r) {
      for (int c = 0; c < kChunkW; ++c) {
        const oracle::Rgb want = oracle::yuv_to_rgb(y[r * kChunkW + c], uu, r / 2);
        const uint8_t* got = &out[(r * kChunkW + c) * 3];
        if (got[0] != want[0] || got[1] != want[1] || got[2] != want[2]) {
          FAIL() << "Y " << int(y[r * kChunkW + c]) << " U " << uu << " V " << r / 2;
        }
      }
    }
  }
}

struct YuvCase {
  Variant variant;
  Chroma chroma;
  bool bgr;
  int u_step;  // 1: every triple; the other layouts share the arithmetic and sample U
};

class YuvVector : public ColorKernels, public ::testing::WithParamInterface<YuvCase> {};

TEST_P(YuvVector, MatchesScalarForEveryTriple) {
  const YuvCase p = GetParam();
  if (!available(p.variant)) GTEST_SKIP() << p.variant.name << " not available";
  std::vector<uint8_t> y, u, v;
  for (int uu = 0; uu < 256; uu += p.u_step) {
    yuv_chunk(uu, &y, &u, &v);
    const Yuv420 f = make_yuv(p.chroma, kChunkW, kChunkH, y, u, v);
    ASSERT_EQ(to_rgb(f, p.chroma, p.bgr, kScalar), to_rgb(f, p.chroma, p.bgr, p.variant))
        << "U " << uu;
  }
}

TEST_P(YuvVector, MatchesScalarOverShapesAndStrides) {
  const YuvCase p = GetParam();
  if (!available(p.variant)) GTEST_SKIP() << p.variant.name << " not available";
  std::mt19937 rng(7);
  for (int w = 1; w <= 70; ++w) {
    for (int h : {1, 2, 3, 6}) {
      for (int pad : {0, 1, 13}) {
        std::vector<uint8_t> y(w * h), u((w + 1) / 2 * ((h + 1) / 2)), v(u.size());
        for (auto* plane : {&y, &u, &v}) fill_random(plane, &rng);
        const Yuv420 f = make_yuv(p.chroma, w, h, y, u, v, pad);
        ASSERT_EQ(to_rgb(f, p.chroma, p.bgr, kScalar, pad),
                  to_rgb(f, p.chroma, p.bgr, p.variant, pad))
            << "w " << w << " h " << h << " pad " << pad;
      }
    }
  }
}

std::string yuv_case_name(const ::testing::TestParamInfo<YuvCase>& info) {
  const char* layouts[] = {"Nv12", "Nv21", "Yu12"};
  return std::string(info.param.variant.name) + layouts[static_cast<int>(info.param.chroma)] +
         (info.param.bgr ? "Bgr" : "Rgb");
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, YuvVector,
    ::testing::Values(
        YuvCase{kWide, Chroma::kNv12, false, 1}, YuvCase{kWide, Chroma::kNv12, true, 15},
        YuvCase{kWide, Chroma::kNv21, false, 15}, YuvCase{kWide, Chroma::kNv21, true, 1},
        YuvCase{kWide, Chroma::kYu12, false, 15}, YuvCase{kWide, Chroma::kYu12, true, 1},
        YuvCase{kNarrow, Chroma::kYu12, false, 1}, YuvCase{kNarrow, Chroma::kYu12, true, 15},
        // Without the 256-bit level, the interleaved layouts stay scalar.
        YuvCase{kNarrow, Chroma::kNv12, false, 15}),
    yuv_case_name);

// ---- RGB -> YUV ----

struct YuvOut {
  std::vector<uint8_t> y, c1, c2;
};

// rgb is w x h packed with stride 3w + pad; outputs tight plus `pad` bytes a row.
YuvOut from_rgb(const std::vector<uint8_t>& rgb, int w, int h, int pad, bool bgr, Chroma chroma,
                const Variant& variant) {
  za::set_cpu_feature_mask(variant.mask);
  YuvOut o;
  const int ys = w + pad, cs = (chroma == Chroma::kYu12 ? w / 2 : 2 * (w / 2)) + pad;
  o.y.assign(static_cast<size_t>(ys) * h, 0x5a);
  o.c1.assign(static_cast<size_t>(cs) * (h / 2), 0x5a);
  o.c2 = o.c1;
  const int v_first = chroma == Chroma::kNv21 ? 1 : 0;
  const zc::ChromaPlanes planes =
      chroma == Chroma::kYu12
          ? zc::ChromaPlanes{o.c1.data(), cs, o.c2.data(), cs, 1}
          : zc::ChromaPlanes{o.c1.data() + v_first, cs, o.c1.data() + 1 - v_first, cs, 2};
  zc::rgb_to_yuv420(rgb.data(), 3 * w + pad, bgr, o.y.data(), ys, planes, w, h);
  za::set_cpu_feature_mask(~0u);
  return o;
}

TEST_F(ColorKernels, ScalarRgbToYuvRowsMatchTheFormulaForEveryTriple) {
  // For one R, a row of 65536 pixels holds every (G, B); the chroma row reads every second one.
  std::vector<uint8_t> rgb(65536 * 3), y(65536), u(32768), v(32768);
  for (int r = 0; r < 256; ++r) {
    for (int i = 0; i < 65536; ++i) {
      rgb[3 * i] = static_cast<uint8_t>(r);
      rgb[3 * i + 1] = static_cast<uint8_t>(i >> 8);
      rgb[3 * i + 2] = static_cast<uint8_t>(i);
    }
    zc::rgb_to_luma_row_c(rgb.data(), y.data(), 0, 65536, false);
    for (int i = 0; i < 65536; ++i) {
      if (y[i] != oracle::luma_of(r, i >> 8, i & 255)) FAIL() << "Y of " << r << "," << i;
    }
    for (const int phase : {0, 1}) {  // top-left pixels at even, then at odd indices
      zc::rgb_to_chroma_row_c(rgb.data() + 3 * phase, u.data(), v.data(), 1, 0, 32768 - phase,
                              false);
      for (int b = 0; b < 32768 - phase; ++b) {
        const int i = 2 * b + phase, g = i >> 8, bl = i & 255;
        if (u[b] != oracle::u_of(r, g, bl) || v[b] != oracle::v_of(r, g, bl)) {
          FAIL() << "UV of " << r << "," << g << "," << bl;
        }
      }
    }
  }
}

struct RgbCase {
  Chroma chroma;
  bool bgr;
};
class RgbToYuvVector : public ColorKernels, public ::testing::WithParamInterface<RgbCase> {};

TEST_P(RgbToYuvVector, RowsMatchScalarForEveryTriple) {
  if (!available(kWide)) GTEST_SKIP();
  const RgbCase p = GetParam();
  // For one R, a row of 65536 blocks (two equal pixels each) holds every (G, B), as pixels
  // for the luma and as top-left pixels for the chroma.
  constexpr int kWidth = 2 * 65536;
  std::vector<uint8_t> rgb(3 * kWidth), ys(kWidth), yv(kWidth), yl(kWidth);
  std::vector<uint8_t> cs(kWidth), cv(kWidth);
  const int step = p.chroma == Chroma::kYu12 ? 1 : 2;
  const ptrdiff_t u_at = p.chroma == Chroma::kNv21 ? 1 : 0;
  const ptrdiff_t v_at = p.chroma == Chroma::kNv12 ? 1 : (step == 1 ? 65536 : 0);
  for (int r = 0; r < 256; ++r) {
    for (int i = 0; i < kWidth; ++i) {
      const uint8_t px[3] = {static_cast<uint8_t>(r), static_cast<uint8_t>(i >> 9),
                             static_cast<uint8_t>(i >> 1)};
      std::memcpy(&rgb[3 * i], px, 3);
    }
    zc::rgb_to_luma_row_c(rgb.data(), ys.data(), 0, kWidth, p.bgr);
    zc::rgb_to_chroma_row_c(rgb.data(), cs.data() + u_at, cs.data() + v_at, step, 0, 65536, p.bgr);

    int done = zc::rgb_to_luma_chroma_row_avx2(rgb.data(), yv.data(), cv.data() + u_at,
                                               cv.data() + v_at, step, kWidth, p.bgr);
    zc::rgb_to_luma_row_c(rgb.data(), yv.data(), done, kWidth, p.bgr);
    zc::rgb_to_chroma_row_c(rgb.data(), cv.data() + u_at, cv.data() + v_at, step, done / 2, 65536,
                            p.bgr);
    ASSERT_EQ(ys, yv) << "R " << r;
    ASSERT_EQ(cs, cv) << "R " << r;

    done = zc::rgb_to_luma_row_avx2(rgb.data(), yl.data(), kWidth, p.bgr);
    zc::rgb_to_luma_row_c(rgb.data(), yl.data(), done, kWidth, p.bgr);
    ASSERT_EQ(ys, yl) << "R " << r;
  }
}

TEST_P(RgbToYuvVector, MatchesScalarOverShapesAndStrides) {
  if (!available(kWide)) GTEST_SKIP();
  const RgbCase p = GetParam();
  std::mt19937 rng(11);
  for (int w = 1; w <= 70; ++w) {
    for (int h : {1, 2, 3, 4}) {
      for (int pad : {0, 5}) {
        std::vector<uint8_t> rgb(static_cast<size_t>(3 * w + pad) * h);
        fill_random(&rgb, &rng);
        const YuvOut s = from_rgb(rgb, w, h, pad, p.bgr, p.chroma, kScalar);
        const YuvOut v = from_rgb(rgb, w, h, pad, p.bgr, p.chroma, kWide);
        ASSERT_TRUE(s.y == v.y && s.c1 == v.c1 && s.c2 == v.c2) << "w " << w << " h " << h;
        if (pad) {
          ASSERT_EQ(v.y[w], 0x5a);  // padding keeps its sentinel
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, RgbToYuvVector,
                         ::testing::Values(RgbCase{Chroma::kNv12, false},
                                           RgbCase{Chroma::kNv21, true},
                                           RgbCase{Chroma::kYu12, false}));

// ---- packed and grey rows ----

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
      rgb[3 * i] = static_cast<uint8_t>(r);
      rgb[3 * i + 1] = static_cast<uint8_t>(i / 256);
      rgb[3 * i + 2] = static_cast<uint8_t>(i % 256);
    }
    for (const bool bgr : {false, true}) {
      const std::vector<uint8_t> s = rgb_to_grey(rgb, 256, 256, 0, bgr, kScalar);
      for (int i = 0; i < 256 * 256; ++i) {
        const int a = r, b = i / 256, c = i % 256;
        ASSERT_EQ(s[i], bgr ? oracle::grey_of(c, b, a) : oracle::grey_of(a, b, c));
      }
      if (vector) {
        ASSERT_EQ(s, rgb_to_grey(rgb, 256, 256, 0, bgr, kWide)) << "R " << r;
      }
    }
  }
}

TEST_F(ColorKernels, PackedRowsMatchScalarOverShapesAndStrides) {
  if (!available(kWide)) GTEST_SKIP();
  std::mt19937 rng(3);
  for (int w = 1; w <= 70; ++w) {
    for (int pad : {0, 1, 7}) {
      const int h = 3;
      std::vector<uint8_t> rgb(static_cast<size_t>(3 * w + pad) * h);
      fill_random(&rgb, &rng);
      for (const bool bgr : {false, true}) {
        ASSERT_EQ(rgb_to_grey(rgb, w, h, pad, bgr, kScalar),
                  rgb_to_grey(rgb, w, h, pad, bgr, kWide));
      }

      // Each packed op: scalar == vector, then one spot check of the scalar bytes.
      auto both = [&](auto fn) {
        std::vector<uint8_t> s = run_as(kScalar, rgb.size(), fn);
        EXPECT_EQ(s, run_as(kWide, rgb.size(), fn)) << "w " << w << " pad " << pad;
        return s;
      };
      const std::vector<uint8_t> swapped =
          both([&](uint8_t* o) { zc::swap_rb(rgb.data(), 3 * w + pad, o, 3 * w + pad, w, h); });
      for (int r = 0; r < h; ++r) {
        for (int x = 0; x < w; ++x) {
          const size_t i = r * (3 * w + pad) + 3 * x;
          ASSERT_TRUE(swapped[i] == rgb[i + 2] && swapped[i + 1] == rgb[i + 1] &&
                      swapped[i + 2] == rgb[i]);
        }
      }

      const std::vector<uint8_t> grey3 =
          both([&](uint8_t* o) { zc::grey_to_rgb(rgb.data(), w + pad, o, 3 * w + pad, w, h); });
      for (int x = 0; x < w; ++x) ASSERT_EQ(grey3[(3 * w + pad) + 3 * x + 1], rgb[(w + pad) + x]);

      const std::vector<uint8_t> swapped_pairs =
          both([&](uint8_t* o) { zc::swap_pairs(rgb.data(), 2 * w + pad, o, 2 * w + pad, w, h); });
      ASSERT_EQ(swapped_pairs[2 * w - 1], rgb[2 * w - 2]);
      if (pad) {
        ASSERT_EQ(swapped_pairs[2 * w], 0x5a);  // padding untouched
      }
    }
  }
}

TEST_F(ColorKernels, GreyStretchBoundsUseWrappingSixteenBitSums) {
  // 1000 x 100 samples: threshold 10. Bin 100 holds 65540 samples, whose low 16 bits (4) are
  // all the running sums see; bin 200 holds the rest.
  std::vector<uint32_t> hist(65536, 0);
  hist[100] = 65540;
  hist[200] = 100000 - 65540;
  std::vector<uint8_t> table(65536);
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  // Low bound: sum below bin 200 is 4 (< 10), so no bin qualifies and everything maps to 0.
  EXPECT_EQ(table[200], 0);

  // Without the wrap-around: bin 100 with 20 samples, bin 200 with the rest.
  hist[100] = 20;
  hist[200] = 100000 - 20;
  zc::grey16_stretch_table(hist.data(), 1000, 100, table.data());
  // L = 200 (20 samples below), H = 200 (the top bins are empty until 200): all black.
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

// ---- buffers that end at a guard page ----

using zarvel::test::GuardedBuffer;

TEST_F(ColorKernels, VectorRowsStayInsideTheirRows) {
  if (!available(kWide)) GTEST_SKIP();
  for (const Variant& variant : {kWide, kNarrow}) {
    za::set_cpu_feature_mask(variant.mask);
    for (int w = 2; w <= 48; w += 2) {
      // Every plane is exactly two rows (one chroma row) and ends at a guard page.
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
