// The bilinear resampler and zarvel_frame_crop, zarvel_frame_resize and zarvel_frame_scale:
// hand-checked weights and rounding, an independent per-pixel model with every kernel variant
// against it over many shapes, strides and alignments; plane handling per format, background
// fill and the family's messages through the public entry points.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "guarded_buffer.h"
#include "op_test_support.h"
#include "ops/crop_resize/resample.h"

namespace rs = zarvel::aux::resample;
namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24, kNv12 = ZARVEL_PIXFMT_NV12,
                   kYu12 = ZARVEL_PIXFMT_YU12;

// The per-pixel model: taps and weights straight from the coordinate formula, each output
// pixel computed on its own.
struct Tap {
  int i0, i1, w0, w1;
};
Tap model_tap(int d, int src, int dst) {
  const float ratio = static_cast<float>(dst) / static_cast<float>(src);
  const double f = (d + 0.5) * static_cast<float>(1.0 / static_cast<double>(ratio)) - 0.5;
  int s = static_cast<int>(std::floor(f));
  double frac = f - std::floor(f);
  if (s < 0) s = 0, frac = 0;
  if (s >= src - 1) s = src - 1, frac = 0;
  return {s, std::min(s + 1, src - 1), static_cast<int>(std::nearbyint((1 - frac) * 2048)),
          static_cast<int>(std::nearbyint(frac * 2048))};
}

// Tight rows of dw x dh pixels of c channels.
std::vector<uint8_t> model_resize(const uint8_t* src, int sw, int sh, int sstride, int dw, int dh,
                                  int c) {
  std::vector<uint8_t> out;
  for (int y = 0; y < dh; ++y)
    for (int x = 0; x < dw; ++x)
      for (int k = 0; k < c; ++k) {
        const Tap ty = model_tap(y, sh, dh), tx = model_tap(x, sw, dw);
        const auto hsum = [&](int row) {
          const uint8_t* r = src + static_cast<size_t>(row) * sstride;
          return tx.w0 * r[tx.i0 * c + k] + tx.w1 * r[tx.i1 * c + k];
        };
        const int v = (((hsum(ty.i0) >> 4) * ty.w0) >> 16) + (((hsum(ty.i1) >> 4) * ty.w1) >> 16);
        out.push_back(static_cast<uint8_t>((v + 2) >> 2));
      }
  return out;
}

// 2x2 up to 3x3: the middle taps weigh 1024/1024, the edges clamp. 3x3 down to 2x2: taps at
// 0.25 and 1.75, weights 1536/512 and 512/1536; the vertical step truncates 727.5 and 761.25
// before the final rounding. One source pixel fills any output.
TEST(Resample, HandCheckedTinyCases) {
  using Case = std::tuple<int, int, int, int, std::vector<uint8_t>, std::vector<uint8_t>>;
  for (const auto& [sw, sh, dw, dh, src, want] :  // sizes, source and expected pixels
       {Case{2, 2, 3, 3, {0, 100, 200, 255}, {0, 50, 100, 100, 139, 178, 200, 228, 255}},
        Case{3, 3, 2, 2, {0, 40, 80, 120, 160, 200, 240, 250, 255}, {40, 100, 214, 238}},
        Case{1, 1, 5, 1, {77}, {77, 77, 77, 77, 77}}}) {
    std::vector<uint8_t> out(want.size());
    EXPECT_EQ(rs::resample_plane(src.data(), sw, sh, sw, out.data(), dw, dh, dw, 1), 0);
    EXPECT_EQ(out, want) << sw << "x" << sh << " -> " << dw << "x" << dh;
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
  const auto model = model_resize(s, sw, sh, sstride, dw, dh, c);
  std::vector<uint8_t> want(static_cast<size_t>(dstride) * dh + 1, 0xA5);
  for (int y = 0; y < dh; ++y) std::copy_n(&model[y * dw * c], dw * c, &want[1 + y * dstride]);
  // The plain rows, the 256-bit rows alone, and the 512-bit rows with the 256-bit ones after.
  for (uint32_t mask : {0u, ~za::kCpuAvx512Vbmi, ~0u}) {
    FeatureMask features(mask);
    std::vector<uint8_t> out(want.size(), 0xA5);
    rs::PlaneResampler resampler;
    ASSERT_EQ(resampler.init(sw, sh, dw, dh, c, padded_reads ? sstride : 0), 0);
    resampler.run([&](int32_t sy) { return s + static_cast<size_t>(sy) * sstride; },
                  [&](int32_t dy) { return out.data() + 1 + static_cast<size_t>(dy) * dstride; },
                  [](int32_t) {}, [](int32_t) { return nullptr; });
    ASSERT_EQ(out, want) << mask << " c" << c << " " << sw << "x" << sh << "->" << dw << "x" << dh;
  }
}

// Random shapes up and down; then wide sources, whose strong reductions take the gather forms
// of the horizontal row (32-pixel blocks for three channels, then the 256-bit rows for the rest)
// and mild ones the window form.
TEST(Resample, VariantsMatchTheModelOverShapesStridesAndAlignments) {
  std::mt19937 rng(1234);
  for (int c = 1; c <= 3; ++c) {
    for (int i = 0; i < 220; ++i) {
      const int sw = 1 + rng() % 70, sh = 1 + rng() % 40, dw = 1 + rng() % 70, dh = 1 + rng() % 40;
      const int spad = static_cast<int>(rng() % 3) * 5, misalign = static_cast<int>(rng() % 4);
      ASSERT_NO_FATAL_FAILURE(expect_model(rng, c, sw, sh, dw, dh, spad, misalign, i % 2));
    }
    // 3 rows to 2 share the middle row; 7 to 2 take two rows each that no other output row
    // takes, which the pixel-gather form resamples both ways in one pass.
    for (int sw : {97, 150, 301, 1000})
      for (int dw : {16, 17, 23, 40, 64, 91})
        for (int sh : {3, 7})
          ASSERT_NO_FATAL_FAILURE(expect_model(rng, c, sw, sh, dw, 2, 0, 0, false));
  }
}

// One resampler initialised again and again, as a stream of frames does: each geometry gets
// its own tables. Rows end at a guard page, so tables kept from a call that could read past
// the row fault; a narrower output kept from a wider one overwrites the sentinel.
TEST(Resample, ReinitialisedResamplerFollowsEachGeometry) {
  std::mt19937 rng(99);
  constexpr int kSw = 301, kSh = 3, kDh = 2;
  rs::PlaneResampler resampler;
  using Geometry = std::tuple<int, int, int, int>;  // channels, dw, out_w, readable
  const Geometry geometries[] = {{3, 40, 0, 2048},  {3, 40, 0, 0},  {3, 40, 0, 0},
                                 {1, 40, 0, 0},     {3, 40, 20, 0}, {3, 40, 0, 0},
                                 {1, 200, 0, 2048}, {1, 200, 0, 0}};
  for (const auto& [c, dw, out_w, readable] : geometries) {
    const int row = kSw * c, stride = readable > 0 ? readable : row;
    GuardedBuffer src(static_cast<size_t>(stride) * (kSh - 1) + (readable > 0 ? readable : row));
    std::generate(src.data(), src.data() + src.size(), [&] { return uint8_t(rng()); });
    const int w = out_w > 0 ? out_w : dw;
    const auto full = model_resize(src.data(), kSw, kSh, stride, dw, kDh, c);
    std::vector<uint8_t> out(static_cast<size_t>(dw) * c * kDh, 0xA5), want = out;
    for (int y = 0; y < kDh; ++y) std::copy_n(&full[y * dw * c], w * c, &want[y * dw * c]);
    ASSERT_EQ(resampler.init(kSw, kSh, dw, kDh, c, readable, out_w), 0);
    resampler.run([&](int32_t sy) { return src.data() + static_cast<size_t>(sy) * stride; },
                  [&](int32_t dy) { return out.data() + static_cast<size_t>(dy) * dw * c; },
                  [](int32_t) {}, [](int32_t) { return nullptr; });
    ASSERT_EQ(out, want) << "c" << c << " dw " << dw << " out_w " << out_w << " readable "
                         << readable;
  }
}

za::FramePtr make(uint32_t format, int w, int h) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  fill_pattern(f.get(), 3);
  return f;
}

// Each plane of `out` (at least ow x oh) holds the model's resize of the same plane of `src`:
// the interleaved UV plane as two channels, so U and V stay paired; YU12 planes on their own.
void expect_planes_resized(const zarvel_frame_t* src, const zarvel_frame_t* out, int ow, int oh) {
  const auto planes = planes_of(src->format);
  for (size_t i = 0; i < planes.size(); ++i) {
    const auto [p, d] = planes[i];
    const int row = ow / d * p;
    const auto want = model_resize(src->plane[i], src->width / d, src->height / d, src->stride[i],
                                   ow / d, oh / d, p);
    for (int y = 0; y < oh / d; ++y)
      ASSERT_TRUE(std::equal(want.begin() + y * row, want.begin() + (y + 1) * row,
                             out->plane[i] + y * out->stride[i]))
          << src->format << " plane " << i << " row " << y;
  }
}

// Every format plane by plane, up and down, the second size into a larger given output, which
// receives the top-left corner only.
TEST(Resize, EveryFormatPlaneByPlaneAndIntoGivenOutputs) {
  for (uint32_t format : kAllFormats) {
    if (format == ZARVEL_PIXFMT_GREY16) continue;
    for (auto [w, h, ow, oh] : {std::array{38, 26, 22, 30}, {40, 20, 16, 36}}) {
      auto src = make(format, w, h), given = make(format, ow + 4, oh + 2);
      fill_planes(given.get(), 0xEE);
      zarvel_frame_t* out = w == 40 ? given.get() : nullptr;
      ASSERT_EQ(zarvel_frame_resize(src.get(), &out, {ow, oh}), 0);
      za::FramePtr owned(out == given.get() ? nullptr : out);
      EXPECT_EQ(out->format, format);
      ASSERT_NO_FATAL_FAILURE(expect_planes_resized(src.get(), out, ow, oh));
      const int right = ow * zarvel_frame_pixel_size(format), below = oh * out->stride[0];
      EXPECT_TRUE(out != given.get() ||
                  (out->plane[0][right] == 0xEE && out->plane[0][below] == 0xEE));
    }
  }
}

// The family's own messages: the ratio-1 copy, refused sizes and ratios (the sweep checks
// every bad one, and the output checks a mismatched output), a crop region without overlap
// (the output the call allocated is freed) and a format the host resampler does not know
// (status 0). Scaling 101x51 by 0.5 gives 50x25 (the pixels are the resize's).
TEST(CropResize, Messages) {
  LogCapture log;
  auto src = make(kYu12, 12, 8), deep = make(ZARVEL_PIXFMT_GREY16, 6, 4);
  zarvel_frame_t *out = nullptr, *same = nullptr, *half = nullptr;
  ASSERT_EQ(zarvel_frame_resize(src.get(), &same, {12, 8}), 0);
  EXPECT_EQ(visible_bytes(za::FramePtr(same).get()), visible_bytes(src.get()));
  EXPECT_EQ(zarvel_frame_resize(src.get(), &out, {0, 4}), -1);
  EXPECT_EQ(zarvel_frame_scale(src.get(), &out, 3e9f), -1);
  ASSERT_EQ(zarvel_frame_scale(make(kRgb, 101, 51).get(), &half, 0.5f), 0);
  EXPECT_EQ(std::pair(half->width, half->height), std::pair(50, 25));
  zarvel_frame_free(&half);
  EXPECT_EQ(zarvel_frame_resize(deep.get(), &out, {3, 2}), 0);
  zarvel_frame_free(&out);
  EXPECT_EQ(zarvel_frame_crop(src.get(), &out, {20, 20, 4, 4}), -1);
  EXPECT_EQ(out, nullptr);
  LogLines lines = drain(log);  // without the frame library's own notes on the failed crop
  std::erase_if(lines, [](const std::string& line) { return line.rfind("4 zarvel ", 0) == 0; });
  const LogLines want = {
      "0 aux [zarvel_frame_resize] Scale ratio is 1, degrade to zarvel_frame_copy to speed up.\n",
      "4 aux [zarvel_frame_resize] Invalid target size Size2D{ 0, 4 }!\n",
      "4 aux [zarvel_frame_scale] Invalid scale ratio 3000000000.000000 for frame of Size2D{ 12, "
      "8 }!\n",
      "4 aux.host Resizing a frame in format [GREY16] is not supported yet!\n",
      "4 aux [zarvel_frame_crop] Illegal RoI. Cannot get sub frame of Area2D{20, 20, 4, 4} from "
      "frame of Size2D{ 12, 8 }!\n"};
  EXPECT_EQ(lines, want);
}

// Crops against a per-plane model: inside the source, its bytes; outside, black luma and
// colour, neutral chroma, or (into a given output) the given bytes left as they were.
TEST(Crop, RegionsInsideAndOutsideTheFrame) {
  using Case = std::tuple<uint32_t, int, int, Area2D, bool>;  // format, w, h, area, given output
  for (const auto& [format, w, h, area, given_output] :
       {Case{kNv12, 16, 12, {4, 2, 8, 6}, false}, Case{kNv12, 16, 8, {12, -2, 8, 6}, false},
        Case{kYu12, 16, 8, {-4, 4, 8, 6}, false}, Case{kRgb, 5, 4, {-2, 1, 4, 3}, false},
        Case{kRgb, 6, 6, {4, 4, 4, 4}, true}}) {
    auto src = make(format, w, h), given = make(format, area.width, area.height);
    fill_planes(given.get(), 0x5A);
    zarvel_frame_t* out = given_output ? given.get() : nullptr;
    ASSERT_EQ(zarvel_frame_crop(src.get(), &out, area), 0);
    za::FramePtr owned(given_output ? nullptr : out);
    const auto planes = planes_of(format);
    for (size_t i = 0; i < planes.size(); ++i) {
      const auto [p, d] = planes[i];
      const uint8_t background = given_output ? 0x5A : i > 0 ? 128 : 0;
      for (int y = 0; y < area.height / d; ++y)
        for (int x = 0; x < area.width / d * p; ++x) {
          const int sy = y + area.y / d, sx = x + area.x / d * p;
          const bool inside = sy >= 0 && sy < h / d && sx >= 0 && sx < w / d * p;
          ASSERT_EQ(out->plane[i][y * out->stride[i] + x],
                    inside ? src->plane[i][sy * src->stride[i] + sx] : background)
              << format << " area " << area.x << "," << area.y << " plane " << i << " at " << x;
        }
    }
  }
}

}  // namespace
