// Colour conversion. The plane loops: the scalar path against reference formulas over every
// input byte combination, and every vector path against the scalar one, byte for byte,
// exhaustively and over generated shapes, strides and buffers that end at a guard page. Then
// zarvel_frame_cvt_color end to end: every pair of the table against a per-pixel oracle (whole
// frames and region views with padded strides), the shortcuts, the output checks, the
// refusals with their cleanup and the 16-bit stretch.
#include <gtest/gtest.h>
#include <pthread.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "guarded_buffer.h"
#include "op_test_support.h"
#include "ops/color/color_planes.h"

namespace za = zarvel::aux;
namespace zc = zarvel::aux::color;
using namespace zarvel::test;
using zc::Chroma;

namespace {

// ---- reference formulas, written from the definitions in 64-bit arithmetic ----

using Rgb = std::array<uint8_t, 3>;
using Bytes = std::vector<uint8_t>;

uint8_t clamp255(int64_t v) { return static_cast<uint8_t>(std::clamp<int64_t>(v, 0, 255)); }

// BT.601 video range, Q20; luma below 16 converts as 16.
Rgb yuv_to_rgb(int y, int u, int v) {
  const int64_t luma = int64_t{std::max(y, 16) - 16} * 1220542 + 524288, d = u - 128, e = v - 128;
  return {clamp255((luma + 1673527 * e) >> 20), clamp255((luma - 852492 * e - 409993 * d) >> 20),
          clamp255((luma + 2116026 * d) >> 20)};
}

// Y, U and V of one RGB pixel.
Rgb yuv_of(int r, int g, int b) {
  return {static_cast<uint8_t>((int64_t{269484} * r + 528482 * g + 102760 * b + 17301504) >> 20),
          static_cast<uint8_t>((int64_t{-155188} * r - 305135 * g + 460324 * b + 134742016) >> 20),
          static_cast<uint8_t>((int64_t{460324} * r - 385875 * g - 74448 * b + 134742016) >> 20)};
}

uint8_t grey_of(int r, int g, int b) {
  return clamp255((int64_t{4899} * r + 9617 * g + 1868 * b + 8192) >> 14);
}

// ---- the plane loops ----

// The feature masks that select each variant: the plain loops, the 128-bit YU12 path (AVX2
// without the FMA level, which also gives the 256-bit RGB -> YUV and grey rows), the 256-bit
// YUV -> RGB rows, and the widest paths (512-bit where the processor has them).
constexpr uint32_t kScalar = 0u, kNarrow = za::kCpuAvx | za::kCpuAvx2, kWide = ~0u;
constexpr uint32_t k256 = ~za::kCpuAvx512Vbmi;

// Whether the processor runs `variant` (asked outside any FeatureMask scope).
bool available(uint32_t variant) {
  const uint32_t needs =
      variant == kWide || variant == k256 ? za::kCpuAvx2Fma : variant & za::kCpuAvx2;
  return (za::cpu_features() & needs) == needs;
}

using Op = std::function<void(uint8_t*)>;

// Runs `op(out)` on an n-byte output pre-filled with a sentinel, with only `variant` enabled.
Bytes run_as(uint32_t variant, size_t n, const Op& op) {
  FeatureMask features(variant);
  Bytes out(n, 0x5a);
  op(out.data());
  return out;
}

// RGB from 4:2:0 planes in any of the three layouts, built from planar U and V with rows
// padded by `pad` (the output rows too), once with only the scalar loops and once with only
// `variant` enabled.
std::array<Bytes, 2> to_rgb(Chroma chroma, bool bgr, uint32_t variant, int w, int h, const Bytes& y,
                            const Bytes& u, const Bytes& v, int pad = 0) {
  const int cw = (w + 1) / 2, ch = (h + 1) / 2, step = chroma == Chroma::kYu12 ? 1 : 2;
  const int ys = w + pad, cs = step * cw + pad;
  Bytes yp(static_cast<size_t>(ys) * h, 0xa5), c1(cs * ch, 0xa5), c2 = c1;
  for (int r = 0; r < h; ++r) std::memcpy(&yp[r * ys], &y[r * w], w);
  // NV21 puts V first; YU12 keeps U and V in planes of their own.
  const auto [first, second] = chroma == Chroma::kNv21 ? std::tie(v, u) : std::tie(u, v);
  for (int i = 0; i < ch * cw; ++i) {
    const int k = i / cw * cs + step * (i % cw);
    c1[k] = first[i];
    (step == 1 ? c2[k] : c1[k + 1]) = second[i];
  }
  const Op op = [&](uint8_t* out) {
    zc::yuv420_to_rgb(chroma, yp.data(), ys, c1.data(), cs, step == 1 ? c2.data() : nullptr, cs,
                      out, 3 * w + pad, w, h, bgr);
  };
  const size_t n = static_cast<size_t>(3 * w + pad) * h;
  return {run_as(kScalar, n, op), variant == kScalar ? Bytes{} : run_as(variant, n, op)};
}

// The YUV -> RGB cases: every variant, layout and channel order that has its own code. A U
// step of 1 checks every (Y, U, V) triple; the others share the arithmetic and sample U.
constexpr std::tuple<uint32_t, Chroma, bool, int> kYuvCases[] = {
    {kWide, Chroma::kNv12, false, 1},
    {kWide, Chroma::kNv12, true, 15},
    {kWide, Chroma::kNv21, false, 15},
    {kWide, Chroma::kNv21, true, 1},
    {kWide, Chroma::kYu12, false, 15},
    {kWide, Chroma::kYu12, true, 1},
    {k256, Chroma::kNv12, false, 1},
    {k256, Chroma::kNv21, true, 1},
    {k256, Chroma::kYu12, false, 1},
    {kNarrow, Chroma::kYu12, false, 1},
    {kNarrow, Chroma::kYu12, true, 15},
    {kNarrow, Chroma::kNv12, false, 15},  // without the 256-bit level this stays scalar
};

// A 128 x 512 frame per U holds every (Y, V) pair: block (j, k) has V = j and the luma values
// 4k .. 4k + 3. The scalar path matches the formula for every triple; each vector case
// matches the scalar path. The formulas take white and black to Y 235 and 16 with neutral
// chroma, and those back to white and black.
TEST(ColorKernels, YuvToRgbForEveryTriple) {
  EXPECT_TRUE(
      yuv_of(255, 255, 255) == (Rgb{235, 128, 128}) && yuv_of(0, 0, 0) == (Rgb{16, 128, 128}) &&
      yuv_to_rgb(235, 128, 128) == (Rgb{255, 255, 255}) && yuv_to_rgb(16, 128, 128) == Rgb{});
  constexpr int kW = 128, kH = 512;
  Bytes y(kW * kH), u(kW / 2 * kH / 2), v(u.size());
  for (int i = 0; i < kW * kH; ++i) y[i] = (i % kW / 2) * 4 + (i / kW % 2) * 2 + i % 2;
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(i / (kW / 2));
  for (int uu = 0; uu < 256; ++uu) {
    std::fill(u.begin(), u.end(), static_cast<uint8_t>(uu));
    const Bytes out = to_rgb(Chroma::kYu12, false, kScalar, kW, kH, y, u, v)[0];
    for (int i = 0; i < kW * kH; ++i)
      if (std::memcmp(&out[3 * i], yuv_to_rgb(y[i], uu, i / kW / 2).data(), 3) != 0)
        FAIL() << "Y " << int(y[i]) << " U " << uu << " V " << i / kW / 2;
    for (const auto& [variant, chroma, bgr, u_step] : kYuvCases) {
      if (uu % u_step != 0 || !available(variant)) continue;
      const auto out = to_rgb(chroma, bgr, variant, kW, kH, y, u, v);
      ASSERT_EQ(out[0], out[1]) << variant << ": " << int(chroma) << " bgr " << bgr << " U " << uu;
    }
  }
}

// The plane loops from a packed source of w x h pixels with rows padded by `pad`, the first
// five with formulas: grey from RGB and from BGR; RGB -> NV12, BGR -> NV21 and RGB -> YU12,
// the chroma planes after the luma plane; then R/B swap, grey -> RGB, the chroma pair swap and
// the 16-bit stretch (w samples a row).
std::vector<Op> plane_ops(const uint8_t* src, int w, int h, int pad) {
  const int s3 = 3 * w + pad, ys = w + pad, cs = 2 * (w / 2) + pad, qs = w / 2 + pad;
  // U and V at these offsets after the luma plane, in rows of c_stride bytes.
  const auto yuv = [=](bool bgr, int u, int v, int c_stride, int step) -> Op {
    return [=](uint8_t* o) {
      const zc::ChromaPlanes c = {o + ys * h + u, c_stride, o + ys * h + v, c_stride, step};
      zc::rgb_to_yuv420(src, s3, bgr, o, ys, c, w, h);
    };
  };
  return {[=](uint8_t* o) { zc::rgb_to_grey(src, s3, false, o, ys, w, h); },
          [=](uint8_t* o) { zc::rgb_to_grey(src, s3, true, o, ys, w, h); },
          yuv(false, 0, 1, cs, 2),
          yuv(true, 1, 0, cs, 2),
          yuv(false, 0, qs * (h / 2), qs, 1),
          [=](uint8_t* o) { zc::swap_rb(src, s3, o, s3, w, h); },
          [=](uint8_t* o) { zc::grey_to_rgb(src, ys, o, s3, w, h); },
          [=](uint8_t* o) { zc::swap_pairs(src, 2 * w + pad, o, 2 * w + pad, w, h); },
          [=](uint8_t* o) { zc::grey16_stretch(src, s3, o, ys, w, h); }};
}

// For one R, a row of 65536 blocks (two equal pixels each) holds every (G, B), as pixels for
// luma and as top-left pixels for chroma; a 256 x 256 frame holds every (G, B) for grey. The
// scalar rows match the formulas (luma and chroma in NV12, grey in both orders); the vector
// planes match them, with a second equal row for the luma-only form of the vector path.
TEST(ColorKernels, RgbToYuvAndGreyForEveryTriple) {
  constexpr int kW = 2 * 65536;
  const bool vector = available(kWide);
  Bytes rgb(2 * 3 * kW), grey_src(3 * 65536), ys(kW), cs(kW);
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
      const Bytes grey = run_as(kScalar, 65536, grey_ops[bgr]);
      for (int i = 0; i < 65536; ++i)
        if (grey[i] != (bgr ? grey_of(i & 255, i >> 8, r) : grey_of(r, i >> 8, i & 255)))
          FAIL() << "grey of " << r << "," << i << " bgr " << bgr;
      for (const uint32_t variant : {kNarrow, kWide})
        ASSERT_TRUE(!vector || grey == run_as(variant, 65536, grey_ops[bgr]))
            << r << " bgr " << bgr << " variant " << variant;
    }
    // NV12 from RGB, NV21 from BGR and YU12 from RGB: {op, bgr, U offset, V offset, step}.
    for (const auto [op, bgr, u_at, v_at, step] :
         {std::array{2, 0, 0, 1, 2}, {3, 1, 1, 0, 2}, {4, 0, 0, 65536, 1}}) {
      zc::rgb_to_luma_row_c(rgb.data(), ys.data(), 0, kW, bgr);
      zc::rgb_to_chroma_row_c(rgb.data(), cs.data() + u_at, cs.data() + v_at, step, 0, 65536, bgr);
      for (int b = 0; op == 2 && b < 65536; ++b) {
        const Rgb want = yuv_of(r, b >> 8, b & 255);
        if (ys[2 * b] != want[0] || ys[2 * b + 1] != want[0] || cs[2 * b] != want[1] ||
            cs[2 * b + 1] != want[2])
          FAIL() << "YUV of " << r << "," << b;
      }
      for (const uint32_t variant : {kNarrow, kWide}) {
        if (!vector) continue;
        const Bytes v = run_as(variant, 3 * kW, yuv_ops[op]);
        ASSERT_TRUE(std::equal(ys.begin(), ys.end(), v.begin()) &&
                    std::equal(ys.begin(), ys.end(), v.begin() + kW) &&
                    std::equal(cs.begin(), cs.end(), v.begin() + 2 * kW))
            << "R " << r << " op " << op << " variant " << variant;
      }
    }
  }
}

// Every vector path against the scalar one over widths 1..70 that straddle the vector
// blocks, and wider rows of up to four 64-pixel steps (the YUV rows work one step ahead),
// several heights and padded strides; padding keeps its sentinel.
TEST(ColorKernels, VectorPathsMatchScalarOverShapesAndStrides) {
  std::mt19937 rng(7);
  for (int w = 1; w <= 260; w += w < 70 ? 1 : 7)
    for (int h : {1, 2, 3, 6})
      for (int pad : {0, 1, 13}) {
        SCOPED_TRACE(testing::Message() << "w " << w << " h " << h << " pad " << pad);
        Bytes src(static_cast<size_t>(3 * w + pad) * h);
        for (auto& b : src) b = static_cast<uint8_t>(rng());
        const Bytes y(src.begin(), src.begin() + w * h);
        const Bytes u(src.end() - (w + 1) / 2 * ((h + 1) / 2), src.end());
        const Bytes v(src.begin() + 1, src.begin() + 1 + u.size());
        for (const auto& [variant, chroma, bgr, u_step] : kYuvCases) {
          if (!available(variant)) continue;
          const auto out = to_rgb(chroma, bgr, variant, w, h, y, u, v, pad);
          ASSERT_EQ(out[0], out[1]) << "variant " << variant << " layout " << int(chroma);
        }
        if (!available(kWide)) continue;
        const std::vector<Op> ops = plane_ops(src.data(), w, h, pad);
        for (size_t i = 0; i < ops.size(); ++i) {
          const Bytes s = run_as(kScalar, 2 * src.size(), ops[i]);
          ASSERT_EQ(s, run_as(kWide, 2 * src.size(), ops[i])) << "op " << i;
          ASSERT_EQ(s, run_as(kNarrow, 2 * src.size(), ops[i])) << "op " << i;
          EXPECT_TRUE(pad == 0 || i > 0 || s[w] == 0x5a) << "grey padding written";
        }
      }
}

// Every plane exactly two rows (one chroma row) long, ending at a guard page; the widths
// include whole 64-pixel steps with nothing left for the scalar tail.
TEST(ColorKernels, VectorRowsStayInsideTheirRows) {
  if (!available(kWide)) GTEST_SKIP();
  for (const uint32_t variant : {kWide, k256, kNarrow}) {
    FeatureMask features(variant);
    std::vector<int> widths = {62, 64, 66, 126, 128, 130, 190, 192, 194, 254, 256, 258, 266};
    for (int w = 2; w <= 48; w += 2) widths.push_back(w);
    for (const int w : widths) {
      GuardedBuffer by(2 * w), buv(w), bu(w / 2), bv(w / 2), rgbb(6 * w), rgb2b(6 * w),
          greyb(2 * w);
      uint8_t *y = by.data(), *uv = buv.data(), *u = bu.data(), *v = bv.data(), *rgb = rgbb.data(),
              *rgb2 = rgb2b.data(), *grey = greyb.data();
      zc::yuv420_to_rgb(Chroma::kNv12, y, w, uv, w, nullptr, 0, rgb, 3 * w, w, 2, false);
      zc::yuv420_to_rgb(Chroma::kYu12, y, w, u, w / 2, v, w / 2, rgb, 3 * w, w, 2, true);
      zc::rgb_to_yuv420(rgb, 3 * w, false, y, w, {uv, w, uv + 1, w, 2}, w, 2);
      zc::rgb_to_yuv420(rgb, 3 * w, true, y, w, {u, w / 2, v, w / 2, 1}, w, 2);
      zc::rgb_to_grey(rgb, 3 * w, false, grey, w, w, 2);
      zc::swap_rb(rgb, 3 * w, rgb2, 3 * w, w, 2);
      zc::grey_to_rgb(grey, w, rgb2, 3 * w, w, 2);
      zc::swap_pairs(uv, w, uv, w, w / 2, 1);
    }
  }
}

// The GREY16 map rows over every sample value at an odd address, with tails of 0, 8, 9 and 15
// samples, for bounds with samples on both sides (high itself mapping below 255), a one-step
// range, low above high (wrapped sums can give it) and the all-black bounds: each vector row equals
// the scalar row on the samples it reports done and leaves the rest for it untouched.
TEST(ColorKernels, Grey16MapRowsMatchTheScalarRowOverEverySample) {
  using Row = int (*)(const zc::Grey16Bounds&, const uint8_t*, uint8_t*, int);
  std::vector<Row> rows;
  if ((za::cpu_features() & za::kCpuAvx2) != 0) rows.push_back(zc::grey16_map_row_avx2);
  if ((za::cpu_features() & za::kCpuAvx512Vbmi) != 0) rows.push_back(zc::grey16_map_row_avx512);
  if (rows.empty()) GTEST_SKIP();
  Bytes src(1 + 2 * (65536 + 15));
  for (int i = 0; i < 65536 + 15; ++i) {
    const uint16_t value = static_cast<uint16_t>(i * 40503);  // odd: every value once
    std::memcpy(&src[1 + 2 * i], &value, 2);
  }
  const zc::Grey16Bounds all_bounds[] = {{1000, 60000, 255.0 / 59001},
                                         {30000, 30001, 255.0},
                                         {40000, 20000, 255.0 / -20000},
                                         {65536, 65535, 0.0}};
  for (const zc::Grey16Bounds& b : all_bounds) {
    for (const int tail : {0, 8, 9, 15}) {
      const int n = 65536 + tail;
      Bytes expected(n, 0x5a);
      zc::grey16_map_row_c(b, &src[1], expected.data(), 0, n);
      for (const Row row : rows) {
        Bytes out(n, 0x5a);
        const int done = row(b, &src[1], out.data(), n);
        ASSERT_TRUE(done >= n - 15 && done <= n) << done;
        ASSERT_TRUE(std::all_of(out.begin() + done, out.end(), [](uint8_t v) { return v == 0x5a; }))
            << "written past " << done;
        zc::grey16_map_row_c(b, &src[1], out.data(), done, n);
        ASSERT_EQ(out, expected) << "low " << b.low << " high " << b.high << " tail " << tail;
      }
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
bool packed(uint32_t f) { return f == kRgb || f == kBgr; }
std::string name(uint32_t f) { return zarvel_frame_pixfmt_to_string(f); }

// Pixel access, written from the layouts: plane bytes, U (k = 1) or V (k = 2) of a 4:2:0
// pixel, and R, G or B (k = 0, 1, 2) of a packed pixel.
uint8_t* at(const zarvel_frame_t* f, int plane, int r, int c) {
  return f->plane[plane] + static_cast<int64_t>(r) * f->stride[plane] + c;
}
uint8_t* chroma_at(const zarvel_frame_t* f, int r, int c, int k) {
  if (f->format == kYu12) return at(f, k, r / 2, c / 2);
  return at(f, 1, r / 2, 2 * (c / 2) + ((f->format == kNv21) == (k == 1)));
}
uint8_t* rgb_at(const zarvel_frame_t* f, int r, int c, int k) {
  return at(f, 0, r, 3 * c + (f->format == kBgr ? 2 - k : k));
}

// The expected output of every pair of the table, pixel by pixel.
za::FramePtr expected(const zarvel_frame_t* s, uint32_t dst_format) {
  za::FramePtr d = alloc(dst_format, s->width, s->height);
  for (int r = 0; r < s->height; ++r)
    for (int c = 0; c < s->width; ++c) {
      // The source pixel as RGB and as Y, U, V (grey has neutral chroma).
      const uint8_t y0 = *at(s, 0, r, c);
      Rgb rgb = {y0, y0, y0}, yuv = {y0, 128, 128};
      if (za::is_yuv420(s->format)) {
        yuv = {y0, *chroma_at(s, r, c, 1), *chroma_at(s, r, c, 2)};
        rgb = yuv_to_rgb(y0, yuv[1], yuv[2]);
      } else if (packed(s->format)) {
        rgb = {*rgb_at(s, r, c, 0), *rgb_at(s, r, c, 1), *rgb_at(s, r, c, 2)};
        yuv = yuv_of(rgb[0], rgb[1], rgb[2]);
      }
      for (int k = 0; k < 3 && packed(dst_format); ++k) *rgb_at(d.get(), r, c, k) = rgb[k];
      if (packed(dst_format)) continue;
      const bool weighted = dst_format == kGrey && packed(s->format);
      *at(d.get(), 0, r, c) = weighted ? grey_of(rgb[0], rgb[1], rgb[2]) : yuv[0];
      // Chroma comes from each block's top-left pixel.
      for (int k = 1; k < 3 && dst_format != kGrey && r % 2 == 0 && c % 2 == 0; ++k)
        *chroma_at(d.get(), r, c, k) = yuv[k];
    }
  return d;
}

constexpr std::pair<uint32_t, uint32_t> kPairs[] = {
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

// Every pair into a new frame, and between region views of larger frames (padded strides),
// where nothing outside the destination view may change.
TEST_F(CvtColor, EveryPairMatchesTheOracleOnWholeFramesAndViews) {
  for (const auto& [s, d] : kPairs)
    for (const int w : {2, 6, 34}) {
      SCOPED_TRACE(name(s) + " -> " + name(d) + " w " + std::to_string(w));
      auto src = alloc(s, w, 4), src_parent = alloc(s, w + 6, 8), dst_parent = alloc(d, w + 4, 10);
      fill_pattern(src.get(), w + static_cast<int>(d % 97));
      fill_pattern(dst_parent.get(), 5);
      const auto want = visible_bytes(expected(src.get(), d).get());
      zarvel_frame_t* out = nullptr;
      ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), 0);
      EXPECT_EQ(visible_bytes(za::FramePtr(out).get()), want);
      za::FramePtr src_view(zarvel_frame_roi(src_parent.get(), {2, 2, w, 4}));
      za::FramePtr dst_view(zarvel_frame_roi(dst_parent.get(), {2, 4, w, 4}));
      zarvel_frame_t *sv = src_view.get(), *dv = dst_view.get();
      ASSERT_EQ(zarvel_frame_copy(src.get(), &sv), 0);
      const auto parent_before = visible_bytes(dst_parent.get());
      za::FramePtr saved(zarvel_frame_duplicate(dv));
      ASSERT_EQ(zarvel_frame_cvt_color(sv, &dv, d), 0);
      EXPECT_EQ(visible_bytes(dst_view.get()), want);
      // Putting the view's old pixels back restores the whole parent.
      ASSERT_EQ(zarvel_frame_copy(saved.get(), &dv), 0);
      EXPECT_EQ(visible_bytes(dst_parent.get()), parent_before);
    }
  EXPECT_EQ(drain(log_), LogLines{});
}

// Luma to grey without an output is a relabelled reference to the source's plane (silent);
// the same format gives a reference, or a copy into a caller's frame, each with its own note.
TEST_F(CvtColor, Shortcuts) {
  for (const uint32_t f : {kNv12, kNv21, kYu12}) {
    auto src = alloc(f, 6, 4);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), 0);
    za::FramePtr owned(out);
    EXPECT_TRUE(out->format == kGrey && out->plane_count == 1u && out->plane[0] == src->plane[0] &&
                src->format == f);  // the source keeps its label
  }
  auto src = alloc(kRgb, 5, 3), given = alloc(kRgb, 5, 3);
  fill_pattern(src.get(), 9);
  zarvel_frame_t *out = nullptr, *g = given.get();
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kRgb), 0);
  za::FramePtr ref(out);
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &g, kRgb), 0);
  EXPECT_TRUE(out->plane[0] == src->plane[0] && g == given.get());
  EXPECT_EQ(visible_bytes(given.get()), visible_bytes(src.get()));
  const std::string note =
      " aux [zarvel_frame_cvt_color] Converting a frame to the same color space, degrade to "
      "zarvel_frame_";
  EXPECT_EQ(drain(log_),
            (LogLines{"0" + note + "ref to speed up!\n", "3" + note + "copy to speed up!\n"}));
}

// An output made over the source's own memory gets the pixels a separate output would get:
// the conversion reads a copy of the source, and says so.
TEST_F(CvtColor, OutputsSharingTheSourcesMemoryConvertFromACopy) {
  const int32_t strides[4] = {0, 0, 0, 0};
  for (const auto& [s, d] : {std::pair{kYu12, kNv12}, {kNv12, kYu12}, {kRgb, kBgr}, {kNv21, kGrey}})
    for (const int w : {6, 130}) {
      SCOPED_TRACE(name(s) + " -> " + name(d) + " w " + std::to_string(w));
      auto src = alloc(s, w, 4);
      fill_pattern(src.get(), w + 3);
      const auto want = visible_bytes(expected(src.get(), d).get());
      za::FramePtr shared(zarvel_frame_make(ZARVEL_MEM_HOST, d, src->plane[0], w, 4, strides,
                                            nullptr, nullptr, nullptr));
      ASSERT_NE(shared, nullptr);
      zarvel_frame_t* out = shared.get();
      ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), 0);
      EXPECT_EQ(visible_bytes(shared.get()), want);
      EXPECT_EQ(drain(log_), LogLines{"3 aux [zarvel_frame_cvt_color] The output shares pixels "
                                      "with the source, converting a copy.\n"});
    }
}

// A caller's output must match the memory type, format, width and height exactly; one that
// does not is refused and kept.
TEST_F(CvtColor, RefusesMismatchedOutputs) {
  auto src = alloc(kRgb, 4, 2);
  // Format, width, height, memory type.
  for (const auto [f, w, h, mem] : {std::array{kNv12, 4u, 4u, 0u},
                                    {kGrey, 4u, 2u, 1u},
                                    {kGrey, 6u, 2u, 0u},
                                    {kGrey, 4u, 4u, 0u}}) {
    auto given = alloc(f, w, h, mem);
    zarvel_frame_t* out = given.get();
    EXPECT_TRUE(zarvel_frame_cvt_color(src.get(), &out, kGrey) == -1 && out == given.get());
    EXPECT_EQ(drain(log_),
              LogLines{"4 aux [zarvel_frame_cvt_color] Required_frame and given_frame "
                       "not match:\n\treq:\tgiven:\nmem:\t0\t" +
                       std::to_string(mem) + "\nfmt:\tGREY\t" + name(f) + "\nwidth:\t4\t" +
                       std::to_string(w) + "\nheight:\t2\t" + std::to_string(h) + "\n"});
  }
}

TEST_F(CvtColor, EveryOtherPairIsRefusedAndTheAllocatedOutputFreed) {
  for (const uint32_t s : kAllFormats)
    for (const uint32_t d : kAllFormats) {
      const bool listed = std::count(std::begin(kPairs), std::end(kPairs), std::pair{s, d}) > 0;
      if (s == d || listed || (d == kGrey && (za::is_yuv420(s) || s == kGrey16))) continue;
      auto src = alloc(s, 4, 2), given = alloc(d, 4, 2);
      zarvel_frame_t *out = nullptr, *g = given.get();
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), -1000);
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &g, d), -1000);
      EXPECT_TRUE(out == nullptr && g == given.get());  // a caller's output stays the caller's
      const std::string m = "Unsupported frame convert from " + name(s) + " to " + name(d) + "!\n";
      EXPECT_EQ(drain(log_), LogLines(2, "4 aux.host " + m));
    }
}

// GREY16 -> GREY maps the bounds [low, high] linearly onto 0..255 (truncating), samples below
// to 0 and above to 255. With threshold t = N / 10000 (truncated), low is the first non-empty
// bin with at least t samples below it and high the first bin from the top with at least t
// at or above it, counted in 16-bit sums that wrap. The source is a two-row region view whose
// margin lies within its rows. Each case lists runs of (sample, count, expected grey).
TEST_F(CvtColor, Grey16StretchesBetweenItsBounds) {
  const std::vector<int> cases[] = {
      // t = 0: low is the smallest sample, high the top bin.
      {1000, 4, 0, 2000, 1, 3, 3000, 1, 7, 40000, 1, 154, 65535, 1, 255},
      // t = 10. The 65540 samples of bin 100 add 4 to the sums, so low is 300, not 200; high
      // is 400. (400 - 300) * (255.0 / 100) is 254.99999999999997: truncated to 254.
      {100, 65540, 0, 200, 20000, 0, 300, 14444, 0, 350, 1, 127, 400, 10, 254, 500, 5, 255},
      // A flat image is black: no bin qualifies as low (t = 1).
      {65535, 14400, 0}};
  for (const auto& runs : cases) {
    std::vector<uint16_t> samples;
    Bytes want;
    for (size_t i = 0; i < runs.size(); i += 3) {
      samples.insert(samples.end(), runs[i + 1], static_cast<uint16_t>(runs[i]));
      want.insert(want.end(), runs[i + 1], static_cast<uint8_t>(runs[i + 2]));
    }
    const int w = static_cast<int>(samples.size()) / 2;
    auto parent = alloc(kGrey16, w + 8, 2);
    fill_planes(parent.get(), 7);  // margins of 0x0707, which must not be counted
    for (int r = 0; r < 2; ++r) std::memcpy(at(parent.get(), 0, r, 0), &samples[r * w], 2 * w);
    za::FramePtr view(zarvel_frame_roi(parent.get(), {0, 0, w, 2}));
    zarvel_frame_t* grey = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(view.get(), &grey, kGrey), 0);
    EXPECT_EQ(visible_bytes(za::FramePtr(grey).get()), want) << samples.size() << " samples";
  }
}

// Pipelines convert on worker threads whose stacks can be small (128 KiB by default on musl).
// The stretch's 256 KiB histogram must not live on the stack: here it runs on a 160 KiB one.
TEST_F(CvtColor, Grey16StretchRunsOnASmallThreadStack) {
  auto src = alloc(kGrey16, 64, 4);
  fill_planes(src.get(), 3);
  struct Job {
    zarvel_frame_t* src;
    int32_t status = 1;
  } job{src.get()};
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 160 * 1024), 0);
  pthread_t thread;
  const auto run = [](void* arg) -> void* {
    auto* j = static_cast<Job*>(arg);
    zarvel_frame_t* grey = nullptr;
    j->status = zarvel_frame_cvt_color(j->src, &grey, ZARVEL_PIXFMT_GREY);
    zarvel_frame_free(&grey);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, &job), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_EQ(job.status, 0);
}

}  // namespace
