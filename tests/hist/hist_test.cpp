// zarvel_frame_equalize_hist: the cumulative formula on both mapping paths, hand-checked
// histograms that pin its arithmetic, its own refusals and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "op_test_support.h"

namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

constexpr uint8_t kSentinel = 0xA5;

za::FramePtr grey(int w, int h, int stride = 0) {
  const int32_t strides[4] = {stride, 0, 0, 0};
  return za::FramePtr(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, w, h, strides, 0));
}

// Sets the visible pixels row by row from `pixels` (width x height, tight).
void set_pixels(zarvel_frame_t* f, const std::vector<uint8_t>& pixels) {
  for (int r = 0; r < f->height; ++r)
    std::memcpy(f->plane[0] + r * f->stride[0], pixels.data() + r * f->width, f->width);
}

// (cdf(v) - cdf(m)) * (255 / (N - cdf(m))) in single precision, halves rounded away from zero.
std::vector<uint8_t> oracle(const std::vector<uint8_t>& pixels) {
  std::vector<int64_t> cdf(256, 0);
  for (uint8_t v : pixels) ++cdf[v];
  for (int i = 1; i < 256; ++i) cdf[i] += cdf[i - 1];
  int m = 0;
  while (cdf[m] == 0) ++m;
  const auto n = static_cast<int64_t>(pixels.size());
  const float scale = 255.0f / static_cast<float>(std::max<int64_t>(n - cdf[m], 1));
  std::vector<uint8_t> out;
  for (uint8_t v : pixels)
    out.push_back(v == m ? 0 : static_cast<uint8_t>(std::roundf((cdf[v] - cdf[m]) * scale)));
  return out;
}

// Equalises `pixels` through the export into a sentinel-filled given output. Odd widths pad
// the source and output rows (padding must be neither read nor written); even widths leave
// them tight, so the mapping runs over the whole plane at once.
std::vector<uint8_t> equalize(const std::vector<uint8_t>& pixels, int w) {
  const int h = static_cast<int>(pixels.size()) / w, pad = w % 2;
  auto src = grey(w, h, w + 3 * pad), out = grey(w, h, w + 5 * pad);
  fill_planes(src.get(), kSentinel);
  fill_planes(out.get(), kSentinel);
  set_pixels(src.get(), pixels);
  zarvel_frame_t* slot = out.get();
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &slot), 0);
  for (uint64_t k = 0; k < out->plane_size[0]; ++k)
    EXPECT_TRUE(static_cast<int>(k % out->stride[0]) < w || out->plane[0][k] == kSentinel) << k;
  return visible_bytes(out.get());
}

// On both paths of the mapping (scalar, and the 256-bit byte-shuffle lookup): every width to
// 40 covers the row tails of counting and mapping, then widths around the 32- and 64-byte
// steps and larger shapes. Images with all levels, a narrow band, a few levels and a skewed
// spread.
TEST(EqualizeHist, MatchesTheCumulativeFormulaOnVariedImages) {
  std::mt19937 rng(11);
  std::vector<std::pair<int, int>> shapes = {{1, 9},   {63, 5}, {64, 4},
                                             {65, 17}, {97, 3}, {200, 31}};
  for (int w = 1; w <= 40; ++w) shapes.push_back({w, 3});
  for (uint32_t mask : {0u, ~0u}) {
    FeatureMask features(mask);
    for (const auto& [w, h] : shapes) {
      for (int kind = 0; kind < 4; ++kind) {
        std::vector<uint8_t> pixels(static_cast<size_t>(w) * h);
        for (auto& v : pixels) {
          v = static_cast<uint8_t>(kind == 0   ? rng()
                                   : kind == 1 ? 40 + rng() % 30
                                   : kind == 2
                                       ? (rng() % 4) * 60 + 3
                                       : std::min<unsigned>(255, (rng() % 16) * (rng() % 17)));
        }
        ASSERT_EQ(equalize(pixels, w), oracle(pixels))
            << "mask " << mask << " " << w << "x" << h << " kind " << kind;
      }
    }
  }
}

// Histograms as {level, count} runs with the level each maps to. A flat image goes black; the
// darkest level maps to 0 and the brightest to 255 whatever the absent levels around them.
// N - h_min = 510 makes the scale exactly 0.5: the running sums 1, 3 and 5 give 0.5, 1.5 and
// 2.5, which round away from zero to 1, 2 and 3 (half to even would give 0, 2 and 2).
TEST(EqualizeHist, HandCheckedHistograms) {
  const struct {
    int width;
    std::vector<std::array<int, 3>> runs;  // level, count, mapped level
  } cases[] = {{7, {{0, 35, 0}}},
               {7, {{255, 35, 0}}},
               {20, {{12, 100, 0}, {140, 200, 255}}},
               {20, {{100, 50, 0}, {101, 150, 153}, {254, 100, 255}}},
               {32, {{0, 2, 0}, {1, 1, 1}, {2, 2, 2}, {3, 2, 3}, {4, 505, 255}}}};
  for (const auto& c : cases) {
    std::vector<uint8_t> pixels, want;
    for (const auto [level, count, mapped] : c.runs) {
      pixels.insert(pixels.end(), count, static_cast<uint8_t>(level));
      want.insert(want.end(), count, static_cast<uint8_t>(mapped));
    }
    EXPECT_EQ(equalize(pixels, c.width), want) << c.runs.size() << " levels from " << c.runs[0][0];
  }
}

// The two refusals of the operation itself (null pointers and mismatched outputs are the
// sweep's and the output checks').
TEST(EqualizeHist, RefusesOtherFormatsAndEmptyFrames) {
  LogCapture log;
  zarvel_frame_t* out = nullptr;
  za::FramePtr nv12(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_NV12, 4, 4, nullptr, 0));
  EXPECT_EQ(zarvel_frame_equalize_hist(nv12.get(), &out), -1000);
  log.expect({{4, "aux", "Only support the histogram of a fmt:[gray] image. input fmt:[NV12]\n"}});
  auto src = grey(4, 4);
  src->width = 0;
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &out), -1);
  src->width = 4;
  EXPECT_EQ(out, nullptr);
  log.expect({{4, "aux",
               "[zarvel_frame_equalize_hist] Cannot equalize the histogram of a frame of 0 x 4 "
               "pixels: the pixel count must be between 1 and 2147483647.\n"}});
}

TEST(EqualizeHist, DeviceFramesFallBackToTheHost) {
  std::vector<uint8_t> pixels(24 * 10);
  std::mt19937 rng(4);
  for (auto& v : pixels) v = static_cast<uint8_t>(rng() % 90);
  auto host = grey(24, 10);
  set_pixels(host.get(), pixels);
  auto dev = to_device(host.get());
  LogCapture log;
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_equalize_hist(dev.get(), &out), 0);
  za::FramePtr out_owned(out);
  expect_device_fallback(log, "zarvel_frame_equalize_hist");
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(visible_bytes(to_host(out).get()), oracle(pixels));
}

}  // namespace
