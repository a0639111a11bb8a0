// Colour conversion. The plane loops: the scalar path against reference formulas over every
// input byte combination, and every vector path against the scalar one, byte for byte,
// exhaustively and over generated shapes, strides and buffers that end at a guard page. Then
// zarvel_frame_cvt_color end to end: every pair of the table against a per-pixel oracle (whole
// frames and region views with padded strides), the shortcuts, the output checks, the
// refusals with their cleanup, the 16-bit stretch and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "frame_test_support.h"
#include "guarded_buffer.h"
#include "op_test_support.h"
#include "ops/color/color_planes.h"
#include "plugin_test_support.h"

namespace za = zarvel::aux;
namespace zc = zarvel::aux::color;
using namespace zarvel::test;
using zc::Chroma;

namespace {

// ---- reference formulas, written from the definitions in 64-bit arithmetic ----

using Rgb = std::array<uint8_t, 3>;

uint8_t clamp255(int64_t v) { return static_cast<uint8_t>(std::clamp<int64_t>(v, 0, 255)); }

// BT.601 video range, Q20.
Rgb yuv_to_rgb(int y, int u, int v) {
  const int64_t luma = int64_t{std::max(y, 16) - 16} * 1220542;
  const int64_t d = u - 128, e = v - 128;
  const int64_t r = (luma + 1673527 * e + 524288) >> 20;
  const int64_t g = (luma - 852492 * e - 409993 * d + 524288) >> 20;
  const int64_t b = (luma + 2116026 * d + 524288) >> 20;
  return {clamp255(r), clamp255(g), clamp255(b)};
}

uint8_t luma_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{269484} * r + 528482 * g + 102760 * b + 17301504) >> 20);
}
uint8_t u_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{-155188} * r - 305135 * g + 460324 * b + 134742016) >> 20);
}
uint8_t v_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{460324} * r - 385875 * g - 74448 * b + 134742016) >> 20);
}

uint8_t grey_of(int r, int g, int b) {
  return clamp255((int64_t{4899} * r + 9617 * g + 1868 * b + 8192) >> 14);
}

// ---- the plane loops ----

// The feature masks that select each variant: the plain loops, the 128-bit YU12 path (AVX2
// without the FMA level), and the 256-bit paths.
constexpr uint32_t kScalar = 0u, kNarrow = za::kCpuAvx | za::kCpuAvx2, kWide = ~0u;

bool available(uint32_t variant) {
  za::set_cpu_feature_mask(~0u);
  const uint32_t needs = variant == kWide ? za::kCpuAvx2Fma : variant & za::kCpuAvx2;
  return (za::cpu_features() & needs) == needs;
}

using Op = std::function<void(uint8_t*)>;

// Runs `op(out)` on an n-byte output pre-filled with a sentinel, with only `variant` enabled.
std::vector<uint8_t> run_as(uint32_t variant, size_t n, const Op& op) {
  FeatureMask features(variant);
  std::vector<uint8_t> out(n, 0x5a);
  op(out.data());
  return out;
}

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
    const int k = i / cw * f.c_stride + (planar ? 1 : 2) * (i % cw);
    f.c1[k] = first[i];
    (planar ? f.c2[k] : f.c1[k + 1]) = second[i];
  }
  return f;
}

std::vector<uint8_t> to_rgb(const Yuv420& f, Chroma chroma, bool bgr, uint32_t variant,
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
  uint32_t variant;
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
TEST(ColorKernels, YuvToRgbForEveryTriple) {
  constexpr int kW = 128, kH = 512;
  std::vector<uint8_t> y(kW * kH), u(kW / 2 * kH / 2), v(u.size());
  for (int i = 0; i < kW * kH; ++i) y[i] = (i % kW / 2) * 4 + (i / kW % 2) * 2 + i % 2;
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(i / (kW / 2));
  for (int uu = 0; uu < 256; ++uu) {
    std::fill(u.begin(), u.end(), static_cast<uint8_t>(uu));
    const Yuv420 yu12 = make_yuv(Chroma::kYu12, kW, kH, y, u, v);
    const std::vector<uint8_t> out = to_rgb(yu12, Chroma::kYu12, false, kScalar);
    for (int i = 0; i < kW * kH; ++i) {
      const Rgb want = yuv_to_rgb(y[i], uu, i / kW / 2);
      if (std::memcmp(&out[3 * i], want.data(), 3) != 0) {
        FAIL() << "Y " << int(y[i]) << " U " << uu << " V " << i / kW / 2;
      }
    }
    for (const YuvCase& c : kYuvCases) {
      if (uu % c.u_step != 0 || !available(c.variant)) continue;
      const Yuv420 f = make_yuv(c.chroma, kW, kH, y, u, v);
      ASSERT_EQ(to_rgb(f, c.chroma, c.bgr, kScalar), to_rgb(f, c.chroma, c.bgr, c.variant))
          << "variant " << c.variant << " layout " << int(c.chroma) << " bgr " << c.bgr << " U "
          << uu;
    }
  }
}

// The plane loops from a packed source of w x h pixels with rows padded by `pad`, the first
// five with formulas: grey from RGB and from BGR; RGB -> NV12, BGR -> NV21 and RGB -> YU12,
// the chroma planes after the luma plane; then R/B swap, grey -> RGB and the chroma pair swap.
std::vector<Op> plane_ops(const uint8_t* src, int w, int h, int pad) {
  const int s3 = 3 * w + pad, ys = w + pad, cs = 2 * (w / 2) + pad, qs = w / 2 + pad;
  return {[=](uint8_t* o) { zc::rgb_to_grey(src, s3, false, o, ys, w, h); },
          [=](uint8_t* o) { zc::rgb_to_grey(src, s3, true, o, ys, w, h); },
          [=](uint8_t* o) {
            zc::rgb_to_yuv420(src, s3, false, o, ys, {o + ys * h, cs, o + ys * h + 1, cs, 2}, w, h);
          },
          [=](uint8_t* o) {
            zc::rgb_to_yuv420(src, s3, true, o, ys, {o + ys * h + 1, cs, o + ys * h, cs, 2}, w, h);
          },
          [=](uint8_t* o) {
            uint8_t* u = o + ys * h;
            zc::rgb_to_yuv420(src, s3, false, o, ys, {u, qs, u + qs * (h / 2), qs, 1}, w, h);
          },
          [=](uint8_t* o) { zc::swap_rb(src, s3, o, s3, w, h); },
          [=](uint8_t* o) { zc::grey_to_rgb(src, ys, o, s3, w, h); },
          [=](uint8_t* o) { zc::swap_pairs(src, 2 * w + pad, o, 2 * w + pad, w, h); }};
}

// For one R, a row of 65536 blocks (two equal pixels each) holds every (G, B), as pixels for
// luma and as top-left pixels for chroma; a 256 x 256 frame holds every (G, B) for grey. The
// scalar rows match the formulas (luma and chroma in NV12, grey in both orders); the vector
// planes match them, with a second equal row for the luma-only form of the vector path.
TEST(ColorKernels, RgbToYuvAndGreyForEveryTriple) {
  constexpr int kW = 2 * 65536;
  const bool vector = available(kWide);
  std::vector<uint8_t> rgb(2 * 3 * kW), grey_src(3 * 65536), ys(kW), cs(kW);
  const std::vector<Op> yuv_ops = plane_ops(rgb.data(), kW, 2, 0);
  const std::vector<Op> grey_ops = plane_ops(grey_src.data(), 256, 256, 0);
  for (int r = 0; r < 256; ++r) {
    for (int i = 0; i < kW; ++i) {
      const uint8_t px[3] = {uint8_t(r), uint8_t(i >> 9), uint8_t(i >> 1)};
      std::memcpy(&rgb[3 * i], px, 3);
      if (i % 2 == 0) std::memcpy(&grey_src[3 * i / 2], px, 3);
    }
    std::memcpy(&rgb[3 * kW], rgb.data(), 3 * kW);
    for (const bool bgr : {false, true}) {
      const std::vector<uint8_t> grey = run_as(kScalar, 65536, grey_ops[bgr]);
      for (int i = 0; i < 65536; ++i) {
        const int g = i >> 8, b = i & 255;
        if (grey[i] != (bgr ? grey_of(b, g, r) : grey_of(r, g, b))) FAIL() << r << "," << i;
      }
      if (vector) {
        ASSERT_EQ(grey, run_as(kWide, 65536, grey_ops[bgr])) << "R " << r << " bgr " << bgr;
      }
    }
    // NV12 from RGB, NV21 from BGR and YU12 from RGB: {op, bgr, U offset, V offset, step}.
    for (const auto [op, bgr, u_at, v_at, step] :
         {std::array{2, 0, 0, 1, 2}, {3, 1, 1, 0, 2}, {4, 0, 0, 65536, 1}}) {
      zc::rgb_to_luma_row_c(rgb.data(), ys.data(), 0, kW, bgr);
      zc::rgb_to_chroma_row_c(rgb.data(), cs.data() + u_at, cs.data() + v_at, step, 0, 65536, bgr);
      for (int b = 0; op == 2 && b < 65536; ++b) {
        const int g = b >> 8, bl = b & 255;
        if (ys[2 * b] != luma_of(r, g, bl) || ys[2 * b + 1] != ys[2 * b] ||
            cs[2 * b] != u_of(r, g, bl) || cs[2 * b + 1] != v_of(r, g, bl)) {
          FAIL() << "YUV of " << r << "," << g << "," << bl;
        }
      }
      if (!vector) continue;
      const std::vector<uint8_t> v = run_as(kWide, 3 * kW, yuv_ops[op]);
      ASSERT_TRUE(std::equal(ys.begin(), ys.end(), v.begin()) &&
                  std::equal(ys.begin(), ys.end(), v.begin() + kW) &&
                  std::equal(cs.begin(), cs.end(), v.begin() + 2 * kW))
          << "R " << r << " op " << op;
    }
  }
}

// The pinned values, on the formulas that the plane loops match for every input: white and
// black give Y 235 and 16 with neutral chroma, and those give white and black back. (Luma
// below 16 converting as 16 does is part of the formula.)
TEST(ColorKernels, PinnedValues) {
  EXPECT_TRUE(luma_of(255, 255, 255) == 235 && u_of(255, 255, 255) == 128 &&
              v_of(255, 255, 255) == 128);
  EXPECT_TRUE(luma_of(0, 0, 0) == 16 && u_of(0, 0, 0) == 128 && v_of(0, 0, 0) == 128);
  EXPECT_EQ(yuv_to_rgb(235, 128, 128), (Rgb{255, 255, 255}));
  EXPECT_EQ(yuv_to_rgb(16, 128, 128), (Rgb{0, 0, 0}));
}

// Every vector path against the scalar one over widths 1..70 that straddle the vector
// blocks, several heights and padded strides; padding keeps its sentinel.
TEST(ColorKernels, VectorPathsMatchScalarOverShapesAndStrides) {
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
              << "variant " << c.variant << " layout " << int(c.chroma);
        }
        if (!available(kWide)) continue;
        const std::vector<Op> ops = plane_ops(src.data(), w, h, pad);
        for (size_t i = 0; i < ops.size(); ++i) {
          const std::vector<uint8_t> s = run_as(kScalar, 2 * src.size(), ops[i]);
          ASSERT_EQ(s, run_as(kWide, 2 * src.size(), ops[i])) << "op " << i;
          EXPECT_TRUE(pad == 0 || i > 0 || s[w] == 0x5a) << "grey padding written";
        }
      }
    }
  }
}

// Every plane exactly two rows (one chroma row) long, ending at a guard page.
TEST(ColorKernels, VectorRowsStayInsideTheirRows) {
  if (!available(kWide)) GTEST_SKIP();
  for (const uint32_t variant : {kWide, kNarrow}) {
    FeatureMask features(variant);
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

// ---- zarvel_frame_cvt_color ----

constexpr uint32_t kGrey = ZARVEL_PIXFMT_GREY, kGrey16 = ZARVEL_PIXFMT_GREY16;
constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24, kBgr = ZARVEL_PIXFMT_BGR24;
constexpr uint32_t kNv12 = ZARVEL_PIXFMT_NV12, kNv21 = ZARVEL_PIXFMT_NV21;
constexpr uint32_t kYu12 = ZARVEL_PIXFMT_YU12;

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

bool yuv(uint32_t f) { return za::is_yuv420(f); }
bool packed(uint32_t f) { return f == kRgb || f == kBgr; }
std::string name(uint32_t f) { return zarvel_frame_pixfmt_to_string(f); }

// Pixel access, written from the layouts.
uint8_t* at(const zarvel_frame_t* f, int plane, int r, int c) {
  return f->plane[plane] + static_cast<int64_t>(r) * f->stride[plane] + c;
}
uint8_t* u_at(const zarvel_frame_t* f, int r, int c) {
  if (f->format == kYu12) return at(f, 1, r / 2, c / 2);
  return at(f, 1, r / 2, 2 * (c / 2) + (f->format == kNv21 ? 1 : 0));
}
uint8_t* v_at(const zarvel_frame_t* f, int r, int c) {
  if (f->format == kYu12) return at(f, 2, r / 2, c / 2);
  return at(f, 1, r / 2, 2 * (c / 2) + (f->format == kNv12 ? 1 : 0));
}
Rgb rgb_at(const zarvel_frame_t* f, int r, int c) {
  const uint8_t* p = at(f, 0, r, 3 * c);
  return f->format == kBgr ? Rgb{p[2], p[1], p[0]} : Rgb{p[0], p[1], p[2]};
}
void put_rgb(zarvel_frame_t* f, int r, int c, Rgb v) {
  uint8_t* p = at(f, 0, r, 3 * c);
  const bool bgr = f->format == kBgr;
  p[0] = bgr ? v[2] : v[0];
  p[1] = v[1];
  p[2] = bgr ? v[0] : v[2];
}

// The expected output of every pair of the table, pixel by pixel.
za::FramePtr expected(const zarvel_frame_t* s, uint32_t dst_format) {
  za::FramePtr d = alloc(dst_format, s->width, s->height);
  for (int r = 0; r < s->height; ++r) {
    for (int c = 0; c < s->width; ++c) {
      // The source pixel as RGB and as Y, U, V (grey has neutral chroma).
      const uint8_t y0 = *at(s, 0, r, c);
      Rgb rgb = {y0, y0, y0}, yuv_px = {y0, 128, 128};
      if (yuv(s->format)) {
        yuv_px = {y0, *u_at(s, r, c), *v_at(s, r, c)};
        rgb = yuv_to_rgb(y0, yuv_px[1], yuv_px[2]);
      } else if (packed(s->format)) {
        rgb = rgb_at(s, r, c);
        yuv_px = {luma_of(rgb[0], rgb[1], rgb[2]), u_of(rgb[0], rgb[1], rgb[2]),
                  v_of(rgb[0], rgb[1], rgb[2])};
      }
      if (packed(dst_format)) {
        put_rgb(d.get(), r, c, rgb);
        continue;
      }
      const bool weighted = dst_format == kGrey && packed(s->format);
      *at(d.get(), 0, r, c) = weighted ? grey_of(rgb[0], rgb[1], rgb[2]) : yuv_px[0];
      if (dst_format != kGrey && r % 2 == 0 && c % 2 == 0) {  // chroma of each block's top left
        *u_at(d.get(), r, c) = yuv_px[1];
        *v_at(d.get(), r, c) = yuv_px[2];
      }
    }
  }
  return d;
}

struct Pair {
  uint32_t src, dst;
};
constexpr Pair kPairs[] = {
    {kRgb, kNv12},  {kBgr, kNv12},  {kYu12, kNv12}, {kGrey, kNv12}, {kNv21, kNv12}, {kRgb, kNv21},
    {kBgr, kNv21},  {kYu12, kNv21}, {kGrey, kNv21}, {kNv12, kNv21}, {kNv12, kRgb},  {kNv21, kRgb},
    {kYu12, kRgb},  {kBgr, kRgb},   {kGrey, kRgb},  {kNv12, kBgr},  {kNv21, kBgr},  {kYu12, kBgr},
    {kRgb, kBgr},   {kGrey, kBgr},  {kRgb, kGrey},  {kBgr, kGrey},  {kNv12, kGrey}, {kNv21, kGrey},
    {kYu12, kGrey}, {kNv12, kYu12}, {kNv21, kYu12}, {kRgb, kYu12},  {kBgr, kYu12},  {kGrey, kYu12},
};

class CvtColor : public ::testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(CvtColor, EveryPairMatchesTheOracleOnWholeFramesAndViews) {
  for (const Pair& p : kPairs) {
    for (const int w : {2, 6, 34}) {
      const int h = 4;
      SCOPED_TRACE(name(p.src) + " -> " + name(p.dst) + " w " + std::to_string(w));
      auto src = alloc(p.src, w, h);
      fill_pattern(src.get(), w + static_cast<int>(p.dst % 97));
      const auto want = visible_bytes(expected(src.get(), p.dst).get());
      zarvel_frame_t* out = nullptr;
      ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, p.dst), 0);
      za::FramePtr owned(out);
      EXPECT_EQ(visible_bytes(out), want);
      EXPECT_EQ(drain(log_), LogLines{});

      // The same conversion between region views of larger frames: padded strides, and
      // nothing outside the destination view changes.
      auto src_parent = alloc(p.src, w + 6, h + 4), dst_parent = alloc(p.dst, w + 4, h + 6);
      fill_pattern(src_parent.get(), 3);
      fill_pattern(dst_parent.get(), 5);
      za::FramePtr src_view(zarvel_frame_roi(src_parent.get(), {2, 2, w, h}));
      za::FramePtr dst_view(zarvel_frame_roi(dst_parent.get(), {2, 4, w, h}));
      zarvel_frame_t *sv = src_view.get(), *dv = dst_view.get();
      ASSERT_EQ(zarvel_frame_copy(src.get(), &sv), 0);
      const auto parent_before = visible_bytes(dst_parent.get());
      za::FramePtr saved(zarvel_frame_duplicate(dv));
      ASSERT_EQ(zarvel_frame_cvt_color(sv, &dv, p.dst), 0);
      EXPECT_EQ(dv, dst_view.get());
      EXPECT_EQ(visible_bytes(dv), want);
      // Putting the view's old pixels back restores the whole parent.
      ASSERT_EQ(zarvel_frame_copy(saved.get(), &dv), 0);
      EXPECT_EQ(visible_bytes(dst_parent.get()), parent_before);
    }
  }
}

// Luma to grey without an output is a relabelled reference to the source's plane; the same
// format gives a reference, or a copy into a caller's frame, each with its own note.
TEST_F(CvtColor, Shortcuts) {
  for (const uint32_t f : {kNv12, kNv21, kYu12}) {
    auto src = alloc(f, 6, 4);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), 0);
    za::FramePtr owned(out);
    EXPECT_TRUE(out->format == kGrey && out->plane_count == 1u && out->plane[0] == src->plane[0]);
    EXPECT_EQ(src->format, f);  // the source keeps its label
  }
  EXPECT_EQ(drain(log_), LogLines{});
  auto src = alloc(kRgb, 5, 3), given = alloc(kRgb, 5, 3);
  fill_pattern(src.get(), 9);
  zarvel_frame_t *out = nullptr, *g = given.get();
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kRgb), 0);
  za::FramePtr ref(out);
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &g, kRgb), 0);
  EXPECT_TRUE(out->plane[0] == src->plane[0] && g == given.get());
  EXPECT_EQ(visible_bytes(given.get()), visible_bytes(src.get()));
  const std::string note =
      " aux [zarvel_frame_cvt_color] Converting a frame to the same color "
      "space, degrade to zarvel_frame_";
  EXPECT_EQ(drain(log_),
            (LogLines{"0" + note + "ref to speed up!\n", "3" + note + "copy to speed up!\n"}));
}

// A source without a format is refused silently. A caller's output must match the memory
// type, format, width and height exactly; one that does not is refused and kept.
TEST_F(CvtColor, RefusesUnknownSourcesAndMismatchedOutputs) {
  auto src = alloc(kRgb, 4, 2);
  zarvel_frame_t* out = nullptr;
  src->format = 0;
  EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), -1);
  src->format = kRgb;
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(drain(log_), LogLines{});
  for (const auto g : {std::array<uint32_t, 4>{kNv12, 4, 4, 0},
                       {kGrey, 4, 2, 1},
                       {kGrey, 6, 2, 0},
                       {kGrey, 4, 4, 0}}) {  // format, width, height, memory type
    auto given = alloc(g[0], g[1], g[2], g[3]);
    out = given.get();
    EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), -1);
    EXPECT_EQ(out, given.get());
    EXPECT_EQ(drain(log_),
              LogLines{"4 aux [zarvel_frame_cvt_color] Required_frame and given_frame "
                       "not match:\n\treq:\tgiven:\nmem:\t0\t" +
                       std::to_string(g[3]) + "\nfmt:\tGREY\t" + name(g[0]) + "\nwidth:\t4\t" +
                       std::to_string(g[1]) + "\nheight:\t2\t" + std::to_string(g[2]) + "\n"});
  }
}

TEST_F(CvtColor, EveryOtherPairIsRefusedAndTheAllocatedOutputFreed) {
  for (const uint32_t s : kAllFormats) {
    for (const uint32_t d : kAllFormats) {
      const bool listed = std::any_of(std::begin(kPairs), std::end(kPairs),
                                      [&](Pair p) { return p.src == s && p.dst == d; });
      if (s == d || listed || (yuv(s) && d == kGrey) || (s == kGrey16 && d == kGrey)) continue;
      SCOPED_TRACE(name(s) + " -> " + name(d));
      auto src = alloc(s, 4, 2), given = alloc(d, 4, 2);
      zarvel_frame_t *out = nullptr, *g = given.get();
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), -1000);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &g, d), -1000);
      EXPECT_EQ(g, given.get());  // a caller's output stays the caller's
      const std::string m =
          "4 aux.host Unsupported frame convert from " + name(s) + " to " + name(d) + "!\n";
      EXPECT_EQ(drain(log_), (LogLines{m, m}));
    }
  }
}

// GREY16 -> GREY maps the bounds [low, high] linearly onto 0..255 (truncating), samples below
// to 0 and above to 255. With threshold t = N / 10000 (truncated), low is the first non-empty
// bin with at least t samples below it and high the first bin from the top with at least t
// at or above it, counted in 16-bit sums that wrap. The source is a region view whose margin
// (7s, which must not be counted) lies within its rows.
TEST_F(CvtColor, Grey16StretchesBetweenItsBounds) {
  const struct {
    int w, h;
    std::vector<std::array<int, 3>> runs;  // sample, count, expected grey
  } cases[] = {
      // t = 0: low is the smallest sample, high the top bin.
      {4, 2, {{1000, 4, 0}, {2000, 1, 3}, {3000, 1, 7}, {40000, 1, 154}, {65535, 1, 255}}},
      // t = 10. The 65540 samples of bin 100 add 4 to the sums, so low is 300, not 200; high
      // is 400. (400 - 300) * (255.0 / 100) is 254.99999999999997: truncated to 254.
      {1000,
       100,
       {{100, 65540, 0},
        {200, 20000, 0},
        {300, 14444, 0},
        {350, 1, 127},
        {400, 10, 254},
        {500, 5, 255}}},
      // Flat images are black: the bounds coincide, or (t = 1) no bin qualifies as low.
      {4, 4, {{65535, 16, 0}}},
      {120, 120, {{65535, 14400, 0}}}};
  for (const auto& c : cases) {
    std::vector<uint16_t> samples;
    std::vector<uint8_t> want;
    for (const auto [sample, count, grey] : c.runs) {
      samples.insert(samples.end(), count, static_cast<uint16_t>(sample));
      want.insert(want.end(), count, static_cast<uint8_t>(grey));
    }
    auto parent = alloc(kGrey16, c.w + 8, c.h);
    for (int r = 0; r < c.h; ++r) {
      for (int x = 0; x < c.w + 8; ++x) {
        const uint16_t v = x < c.w ? samples[r * c.w + x] : 7;
        std::memcpy(at(parent.get(), 0, r, 2 * x), &v, 2);
      }
    }
    za::FramePtr view(zarvel_frame_roi(parent.get(), {0, 0, c.w, c.h}));
    zarvel_frame_t* grey = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(view.get(), &grey, kGrey), 0);
    EXPECT_EQ(visible_bytes(za::FramePtr(grey).get()), want) << c.w << "x" << c.h;
  }
}

TEST_F(CvtColor, DeviceFramesFallBackToTheHost) {
  auto host = alloc(kNv21, 34, 4);
  fill_pattern(host.get(), 4);
  auto dev = to_device(host.get());
  zarvel_frame_t *out = nullptr, *refused = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(dev.get(), &out, kBgr), 0);
  za::FramePtr owned(out);
  EXPECT_EQ(drain(log_), device_fallback("zarvel_frame_cvt_color"));
  ASSERT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(visible_bytes(to_host(out).get()), visible_bytes(expected(host.get(), kBgr).get()));
  // A refused pair on the device frees the output the call allocated.
  EXPECT_EQ(zarvel_frame_cvt_color(dev.get(), &refused, kGrey16), -1000);
  EXPECT_EQ(refused, nullptr);
}

}  // namespace
