// The bilinear resampler and zarvel_frame_crop, zarvel_frame_resize and zarvel_frame_scale:
// hand-checked weights and rounding, an independent per-pixel model with every kernel variant
// against it over many shapes, strides and alignments; plane handling per format, background
// fill and the family's messages through the public entry points.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
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

za::FramePtr make(uint32_t format, int w, int h, int seed = 3) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  fill_pattern(f.get(), seed);
  return f;
}

za::FramePtr resized(zarvel_frame_t* src, Size2D size) {
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_resize(src, &out, size), 0);
  return za::FramePtr(out);
}

// Each plane of `out` (at least ow x oh) holds the model's resize of the same plane of `src`:
// the interleaved UV plane as two channels, so U and V stay paired; YU12 planes on their own.
void expect_planes_resized(const zarvel_frame_t* src, const zarvel_frame_t* out, int ow, int oh) {
  const auto planes = planes_of(src->format);
  for (size_t i = 0; i < planes.size(); ++i) {
    const auto [p, d] = planes[i];
    const auto want = model_resize(src->plane[i], src->width / d, src->height / d, src->stride[i],
                                   ow / d, oh / d, p);
    for (int y = 0; y < oh / d; ++y)
      ASSERT_EQ(std::memcmp(out->plane[i] + y * out->stride[i], &want[y * ow / d * p], ow / d * p),
                0)
          << src->format << " plane " << i << " row " << y;
  }
}

// Every format plane by plane, up and down. A larger given output receives the top-left
// corner only; 101x51 scaled by 0.5 is 50x25.
TEST(Resize, EveryFormatPlaneByPlaneGivenOutputsAndScale) {
  for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                          ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
    for (auto [w, h, ow, oh] : {std::array{38, 26, 22, 30}, {40, 20, 16, 36}}) {
      auto src = make(format, w, h);
      auto out = resized(src.get(), {ow, oh});
      EXPECT_EQ(out->format, format);
      ASSERT_NO_FATAL_FAILURE(expect_planes_resized(src.get(), out.get(), ow, oh));
    }
  }
  auto src = make(ZARVEL_PIXFMT_GREY, 20, 10);
  za::FramePtr given(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 9, 8, nullptr, 0));
  fill_planes(given.get(), 0xEE);
  zarvel_frame_t* slot = given.get();
  ASSERT_EQ(zarvel_frame_resize(src.get(), &slot, {7, 5}), 0);
  expect_planes_resized(src.get(), given.get(), 7, 5);
  EXPECT_EQ(given->plane[0][7], 0xEE);
  EXPECT_EQ(given->plane[0][9 * 5], 0xEE);

  auto rgb = make(ZARVEL_PIXFMT_RGB24, 101, 51);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_scale(rgb.get(), &out, 0.5f), 0);
  za::FramePtr owned(out);
  EXPECT_EQ(std::pair(out->width, out->height), std::pair(50, 25));
  expect_planes_resized(rgb.get(), out, 50, 25);
}

TEST(Resize, DeviceFramesGiveTheHostBytes) {
  auto host = make(ZARVEL_PIXFMT_NV12, 30, 18);
  auto dev = to_device(host.get());
  LogCapture log;
  auto dev_out = resized(dev.get(), {14, 40});
  expect_device_fallback(log, "zarvel_frame_resize");
  ASSERT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(visible_bytes(to_host(dev_out.get()).get()),
            visible_bytes(resized(host.get(), {14, 40}).get()));
}

// The family's own messages: the ratio-1 copy, refused sizes and ratios (the sweep checks
// every bad one, and the output checks a mismatched output), a crop region without overlap
// (the output the call allocated is freed) and a format the host resampler does not know
// (status 0).
TEST(CropResize, Messages) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_YU12, 12, 8);
  EXPECT_EQ(visible_bytes(resized(src.get(), {12, 8}).get()), visible_bytes(src.get()));
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_resize(src.get(), &out, {0, 4}), -1);
  EXPECT_EQ(zarvel_frame_scale(src.get(), &out, 3e9f), -1);
  za::FramePtr deep(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  resized(deep.get(), {3, 2});
  log.expect({{0, "aux",
               "[zarvel_frame_resize] Scale ratio is 1, degrade to zarvel_frame_copy to speed "
               "up.\n"},
              {4, "aux", "[zarvel_frame_resize] Invalid target size Size2D{ 0, 4 }!\n"},
              {4, "aux",
               "[zarvel_frame_scale] Invalid scale ratio 3000000000.000000 for frame of "
               "Size2D{ 12, 8 }!\n"},
              {4, "aux.host", "Resizing a frame in format [GREY16] is not supported yet!\n"}});
  EXPECT_EQ(zarvel_frame_crop(src.get(), &out, {20, 20, 4, 4}), -1);
  EXPECT_EQ(out, nullptr);
  log.expect({{4, "aux",
               "[zarvel_frame_crop] Illegal RoI. Cannot get sub frame of Area2D{20, 20, 4, 4} "
               "from frame of Size2D{ 12, 8 }!\n"}},
             "aux");
}

// Crops against a per-plane model: inside the source, its bytes; outside, black luma and
// colour, neutral chroma, or (into a given output) the given bytes left as they were.
TEST(Crop, RegionsInsideAndOutsideTheFrame) {
  struct Case {
    uint32_t format;
    int w, h;
    Area2D area;
    bool given;
  } cases[] = {{ZARVEL_PIXFMT_NV12, 16, 12, {4, 2, 8, 6}, false},
               {ZARVEL_PIXFMT_NV12, 16, 8, {12, -2, 8, 6}, false},
               {ZARVEL_PIXFMT_YU12, 16, 8, {-4, 4, 8, 6}, false},
               {ZARVEL_PIXFMT_RGB24, 5, 4, {-2, 1, 4, 3}, false},
               {ZARVEL_PIXFMT_RGB24, 6, 6, {4, 4, 4, 4}, true}};
  for (const Case& c : cases) {
    auto src = make(c.format, c.w, c.h);
    za::FramePtr given(zarvel_frame_alloc(0, c.format, c.area.width, c.area.height, nullptr, 0));
    fill_planes(given.get(), 0x5A);
    zarvel_frame_t* out = c.given ? given.get() : nullptr;
    ASSERT_EQ(zarvel_frame_crop(src.get(), &out, c.area), 0);
    za::FramePtr owned(c.given ? nullptr : out);
    const auto planes = planes_of(c.format);
    for (size_t i = 0; i < planes.size(); ++i) {
      const auto [p, d] = planes[i];
      const uint8_t background = c.given ? 0x5A : i > 0 ? 128 : 0;
      for (int y = 0; y < c.area.height / d; ++y) {
        for (int x = 0; x < c.area.width / d * p; ++x) {
          const int sy = y + c.area.y / d, sx = x + c.area.x / d * p;
          const bool inside = sy >= 0 && sy < c.h / d && sx >= 0 && sx < c.w / d * p;
          ASSERT_EQ(out->plane[i][y * out->stride[i] + x],
                    inside ? src->plane[i][sy * src->stride[i] + sx] : background)
              << c.format << " " << c.area.x << "," << c.area.y << " plane " << i << " at " << x
              << "," << y;
        }
      }
    }
  }
}

}  // namespace
