// zarvel_frame_equalize_hist: the cumulative formula on both mapping paths, hand-checked
// histograms that pin its arithmetic, and the operation's own refusals.
#include "ops/hist/hist.h"

#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
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

// (cdf(v) - cdf(m)) * (255 / (N - cdf(m))) in single precision, halves rounded away from zero;
// m is the darkest level present.
std::vector<uint8_t> oracle(const std::vector<uint8_t>& pixels) {
  std::vector<int64_t> cdf(256, 0);
  for (uint8_t v : pixels) ++cdf[v];
  for (int i = 1; i < 256; ++i) cdf[i] += cdf[i - 1];
  const auto m = std::upper_bound(cdf.begin(), cdf.end(), 0) - cdf.begin();
  const float scale = 255.0f / static_cast<float>(std::max<int64_t>(pixels.size() - cdf[m], 1));
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
  for (int r = 0; r < h; ++r) std::memcpy(src->plane[0] + r * src->stride[0], &pixels[r * w], w);
  zarvel_frame_t* slot = out.get();
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &slot), 0);
  for (uint64_t k = 0; k < out->plane_size[0]; ++k)
    EXPECT_TRUE(static_cast<int>(k % out->stride[0]) < w || out->plane[0][k] == kSentinel) << k;
  return visible_bytes(out.get());
}

// On every path of the mapping (scalar, the 256-bit byte-shuffle lookup, the 512-bit byte
// permutes where present): every width to 40 covers the row tails of counting and mapping,
// then widths around the 32- and 64-byte steps and larger shapes. Images with all levels, a narrow
// band, a few levels and a skewed spread.
TEST(EqualizeHist, MatchesTheCumulativeFormulaOnVariedImages) {
  std::mt19937 rng(11);
  std::vector<std::array<int, 2>> shapes = {{1, 9}, {63, 5}, {64, 4}, {65, 17}, {97, 3}, {200, 31}};
  for (int w = 1; w <= 40; ++w) shapes.push_back({w, 3});
  for (uint32_t mask : {0u, za::kCpuAvx | za::kCpuAvx2, ~0u}) {
    FeatureMask features(mask);
    for (const auto [w, h] : shapes)
      for (int kind = 0; kind < 4; ++kind) {
        std::vector<uint8_t> pixels(static_cast<size_t>(w) * h);
        for (auto& v : pixels) {
          const unsigned a = rng() % 256, b = rng() % 17;
          v = kind == 0 ? a : kind == 1 ? 40 + a % 30 : kind == 2 ? a % 4 * 60 + 3 : a % 16 * b;
        }
        ASSERT_EQ(equalize(pixels, w), oracle(pixels))
            << mask << " " << w << "x" << h << " " << kind;
      }
  }
}

// The counting pass on its own, scalar and vector, against a plain count: noise and every
// level in turn over more blocks than the vector counters hold between flushes, a flat plane
// whose one counter would pass 16 bits without them, and padded rows of many widths whose
// padding (a level of its own) must not be counted.
TEST(EqualizeHist, CountsEveryLevelExactly) {
  std::mt19937 rng(5);
  struct Plane {
    int w, h, stride;
    std::vector<uint8_t> bytes;
  };
  std::vector<Plane> planes;
  auto add = [&](int w, int h, int stride, auto level) {
    Plane p{w, h, stride, std::vector<uint8_t>(static_cast<size_t>(stride) * h, 7)};
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) p.bytes[static_cast<size_t>(y) * stride + x] = level(x, y);
    planes.push_back(std::move(p));
  };
  add(1920, 80, 1920, [&](int, int) { return uint8_t(rng()); });
  add(1280, 120, 1280, [](int x, int y) { return uint8_t(x + 3 * y); });
  add(1100, 140, 1100, [](int, int) { return uint8_t(200); });
  for (int w : {1, 7, 63, 64, 65, 127, 128, 129, 255, 300})
    add(w, 9, w + 13, [&](int, int) { return uint8_t(rng() % 7 == 0 ? 7 : rng()); });
  for (const auto& p : planes) {
    std::array<int32_t, 256> want{};
    for (int y = 0; y < p.h; ++y)
      for (int x = 0; x < p.w; ++x) ++want[p.bytes[static_cast<size_t>(y) * p.stride + x]];
    for (uint32_t mask : {0u, ~0u}) {
      FeatureMask features(mask);
      std::array<int32_t, 256> got{};
      za::hist::count_histogram(p.h, p.w, p.stride, p.bytes.data(), got.data());
      ASSERT_EQ(got, want) << mask << " " << p.w << "x" << p.h << " stride " << p.stride;
    }
  }
}

// Histograms as runs of (level, count, level it maps to), in one-row images. A flat image
// goes black; the darkest level maps to 0 and the brightest to 255 whatever the absent levels
// around them. N - h_min = 510 makes the scale exactly 0.5: the running sums 1, 3 and 5 give
// 0.5, 1.5 and 2.5, which round away from zero to 1, 2 and 3 (half to even: 0, 2 and 2).
TEST(EqualizeHist, HandCheckedHistograms) {
  const std::vector<int> cases[] = {{255, 35, 0},
                                    {12, 100, 0, 140, 200, 255},
                                    {100, 50, 0, 101, 150, 153, 254, 100, 255},
                                    {0, 2, 0, 1, 1, 1, 2, 2, 2, 3, 2, 3, 4, 505, 255}};
  for (const auto& runs : cases) {
    std::vector<uint8_t> pixels, want;
    for (size_t i = 0; i < runs.size(); i += 3) {
      pixels.insert(pixels.end(), runs[i + 1], static_cast<uint8_t>(runs[i]));
      want.insert(want.end(), runs[i + 1], static_cast<uint8_t>(runs[i + 2]));
    }
    EXPECT_EQ(equalize(pixels, static_cast<int>(pixels.size())), want) << "levels from " << runs[0];
  }
}

// The two refusals of the operation itself (null pointers and mismatched outputs are the
// sweep's and the output checks').
TEST(EqualizeHist, RefusesOtherFormatsAndEmptyFrames) {
  LogCapture log;
  zarvel_frame_t* out = nullptr;
  za::FramePtr nv12(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_NV12, 4, 4, nullptr, 0));
  EXPECT_EQ(zarvel_frame_equalize_hist(nv12.get(), &out), -1000);
  auto empty = grey(4, 4);
  empty->width = 0;
  EXPECT_EQ(zarvel_frame_equalize_hist(empty.get(), &out), -1);
  empty->width = 4;
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(drain(log), (LogLines{"4 aux Only support the histogram of a fmt:[gray] image. input "
                                  "fmt:[NV12]\n",
                                  "4 aux [zarvel_frame_equalize_hist] Cannot equalize the "
                                  "histogram of a frame of 0 x 4 pixels: the pixel count must be "
                                  "between 1 and 2147483647.\n"}));
}

}  // namespace
