// zarvel_frame_equalize_hist: the cumulative mapping against a formula oracle, the cases
// that pin its arithmetic, refusals with their messages, and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "op_test_support.h"

#ifdef ZARVEL_TEST_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

constexpr uint8_t kSentinel = 0xA5;

za::FramePtr grey(int w, int h, int stride = 0, uint32_t mem = ZARVEL_MEM_HOST) {
  const int32_t strides[4] = {stride, 0, 0, 0};
  return za::FramePtr(zarvel_frame_alloc(mem, ZARVEL_PIXFMT_GREY, w, h, strides, 0));
}

// Sets the visible pixels row by row from `pixels` (width x height, tight).
void set_pixels(zarvel_frame_t* f, const std::vector<uint8_t>& pixels) {
  for (int r = 0; r < f->height; ++r)
    std::memcpy(f->plane[0] + r * f->stride[0], pixels.data() + r * f->width, f->width);
}

// (cdf(v) - cdf(m)) * (255 / (N - cdf(m))) in single precision, rounded by `round` (halves
// away from zero by default).
std::vector<uint8_t> oracle(const std::vector<uint8_t>& pixels,
                            float (*round)(float) = std::roundf) {
  std::vector<int64_t> cdf(256, 0);
  for (uint8_t v : pixels) ++cdf[v];
  for (int i = 1; i < 256; ++i) cdf[i] += cdf[i - 1];
  int m = 0;
  while (cdf[m] == 0) ++m;
  const auto n = static_cast<int64_t>(pixels.size());
  std::vector<uint8_t> out;
  for (uint8_t v : pixels) {
    if (v == m || n == cdf[m]) {
      out.push_back(0);
      continue;
    }
    const float scale = 255.0f / static_cast<float>(n - cdf[m]);
    out.push_back(static_cast<uint8_t>(round(static_cast<float>(cdf[v] - cdf[m]) * scale)));
  }
  return out;
}

// Equalises `pixels` through the export into a padded, sentinel-filled given output.
std::vector<uint8_t> equalize(const std::vector<uint8_t>& pixels, int w, int h) {
  auto src = grey(w, h, w + 3), out = grey(w, h, w + 5);
  fill_planes(src.get(), kSentinel);
  fill_planes(out.get(), kSentinel);
  set_pixels(src.get(), pixels);
  zarvel_frame_t* slot = out.get();
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &slot), 0);
  for (uint64_t k = 0; k < out->plane_size[0]; ++k)
    EXPECT_TRUE(static_cast<int>(k % out->stride[0]) < w || out->plane[0][k] == kSentinel) << k;
  return visible_bytes(out.get());
}

// Every width to 40 covers the row tails of counting and mapping; then larger shapes. The
// padded source and output rows check that padding is neither read nor written.
TEST(EqualizeHist, MatchesTheCumulativeFormulaOnVariedImages) {
  std::mt19937 rng(11);
  std::vector<std::pair<int, int>> shapes = {{1, 9}, {65, 17}, {200, 31}};
  for (int w = 1; w <= 40; ++w) shapes.push_back({w, 3});
  for (const auto& [w, h] : shapes) {
    for (int kind = 0; kind < 4; ++kind) {
      // All levels, a narrow band, a few levels, a skewed spread.
      std::vector<uint8_t> pixels(static_cast<size_t>(w) * h);
      for (auto& v : pixels) {
        v = static_cast<uint8_t>(kind == 0   ? rng()
                                 : kind == 1 ? 40 + rng() % 30
                                 : kind == 2
                                     ? (rng() % 4) * 60 + 3
                                     : std::min<unsigned>(255, (rng() % 16) * (rng() % 17)));
      }
      ASSERT_EQ(equalize(pixels, w, h), oracle(pixels)) << w << "x" << h << " kind " << kind;
    }
  }
}

TEST(EqualizeHist, FlatImagesGoBlackDarkestToZeroBrightestTo255AbsentLevelsDoNotMatter) {
  for (int v : {0, 255}) {
    EXPECT_EQ(equalize(std::vector<uint8_t>(35, static_cast<uint8_t>(v)), 7, 5),
              std::vector<uint8_t>(35, 0));
  }

  std::mt19937 rng(2);
  std::vector<uint8_t> a(300), b(300);
  for (size_t k = 0; k < a.size(); ++k) {
    const int pick = static_cast<int>(rng() % 3);
    a[k] = static_cast<uint8_t>(pick == 0 ? 12 : pick == 1 ? 50 : 140);
    b[k] = static_cast<uint8_t>(pick == 0 ? 100 : pick == 1 ? 101 : 254);  // same counts
  }
  const auto ea = equalize(a, 20, 15), eb = equalize(b, 20, 15);
  EXPECT_EQ(ea, eb);
  for (size_t k = 0; k < a.size(); ++k) {
    if (a[k] == 12) {
      EXPECT_EQ(ea[k], 0);
    } else if (a[k] == 140) {
      EXPECT_EQ(ea[k], 255);
    }
  }
}

TEST(EqualizeHist, HalvesRoundAwayFromZero) {
  // N - h_min = 510, so the scale is exactly 0.5: running sums 1, 3, 5 give 0.5, 1.5, 2.5,
  // which round to 1, 2, 3 (round-half-to-even would give 0, 2, 2).
  std::vector<uint8_t> pixels;
  const int counts[5] = {2, 1, 2, 2, 505};
  for (int level = 0; level < 5; ++level) pixels.insert(pixels.end(), counts[level], level);
  const auto out = equalize(pixels, 32, 16);
  const uint8_t want[5] = {0, 1, 2, 3, 255};
  for (size_t k = 0; k < pixels.size(); ++k) ASSERT_EQ(out[k], want[pixels[k]]) << k;
}

TEST(EqualizeHist, RefusalsAndTheirMessages) {
  LogCapture log;
  zarvel_frame_t* out = nullptr;
  for (uint32_t format : {ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_RGB24}) {
    za::FramePtr other(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 4, 4, nullptr, 0));
    EXPECT_EQ(zarvel_frame_equalize_hist(other.get(), &out), -1000);
    EXPECT_EQ(out, nullptr);
    log.expect({{4, "aux",
                 std::string("Only support the histogram of a fmt:[gray] image. input fmt:[") +
                     zarvel_frame_pixfmt_to_string(format) + "]\n"}});
  }
  // A record without pixels never reaches the kernel.
  auto src = grey(4, 4);
  src->width = 0;
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &out), -1);
  src->width = 4;
  EXPECT_EQ(out, nullptr);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].level, 4u);
  log.clear();
  // A given output that is too small.
  auto small = grey(3, 4);
  zarvel_frame_t* slot = small.get();
  EXPECT_EQ(zarvel_frame_equalize_hist(src.get(), &slot), -1);
  log.expect({{4, "aux",
               "[zarvel_frame_equalize_hist] Required_frame and given_frame not match:\n\treq:\t"
               "given:\nmem:\t0\t0\nfmt:\tGREY\tGREY\nwidth:\t4\t3\nheight:\t4\t4\n"}});
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

#ifdef ZARVEL_TEST_OPENCV
// OpenCV computes the same table but rounds halves to even (and maps a flat image to its own
// level, so images here are never flat).
TEST(EqualizeHist, OpenCvAgreesWithTheFormulaRoundingHalvesToEven) {
  std::mt19937 rng(21);
  for (int trial = 0; trial < 20; ++trial) {
    const int w = 17 + trial * 13, h = 9 + trial;
    std::vector<uint8_t> pixels(static_cast<size_t>(w) * h);
    for (auto& v : pixels) v = static_cast<uint8_t>(30 + rng() % (2 + trial * 12));
    pixels[0] = 30, pixels[1] = 31;
    cv::Mat src(h, w, CV_8UC1, pixels.data()), theirs;
    cv::equalizeHist(src, theirs);
    EXPECT_EQ(std::vector<uint8_t>(theirs.data, theirs.data + pixels.size()),
              oracle(pixels, std::nearbyintf))
        << "trial " << trial;
  }
}
#endif

}  // namespace
