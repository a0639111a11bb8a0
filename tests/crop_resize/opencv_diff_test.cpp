// Differential check against OpenCV's INTER_LINEAR, which uses the same 11-bit fixed-point
// scheme. OpenCV switches to area averaging for exact halving, so those sizes are left out.
// Its builds round some intermediate steps differently (single-precision coordinates, an
// optimised backend), so about one byte in 250 differs by one: the check bounds both.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>

#include "ops/crop_resize/resample.h"

TEST(ResampleVsOpenCV, SameBytesAsInterLinear) {
  cv::setNumThreads(1);
  std::mt19937 rng(42);
  int64_t differing = 0, total = 0;
  for (int i = 0; i < 300; ++i) {
    const int c = 1 + static_cast<int>(rng() % 3);
    const int sw = 2 + static_cast<int>(rng() % 200), sh = 2 + static_cast<int>(rng() % 120);
    const int dw = 1 + static_cast<int>(rng() % 200), dh = 1 + static_cast<int>(rng() % 120);
    if (sw == 2 * dw && sh == 2 * dh) continue;
    cv::Mat src(sh, sw, CV_8UC(c)), theirs, ours(dh, dw, CV_8UC(c)), diff;
    cv::randu(src, 0, 256);
    cv::resize(src, theirs, cv::Size(dw, dh), 0, 0, cv::INTER_LINEAR);
    ASSERT_EQ(zarvel::aux::resample::resample_plane(src.data, sw, sh,
                                                    static_cast<int32_t>(src.step), ours.data, dw,
                                                    dh, static_cast<int32_t>(ours.step), c),
              0);
    ASSERT_LE(cv::norm(ours, theirs, cv::NORM_INF), 1.0)
        << "c" << c << " " << sw << "x" << sh << " -> " << dw << "x" << dh;
    cv::compare(ours, theirs, diff, cv::CMP_NE);
    differing += cv::countNonZero(diff.reshape(1));
    total += static_cast<int64_t>(dw) * dh * c;
  }
  EXPECT_LT(static_cast<double>(differing) / static_cast<double>(total), 0.01)
      << differing << " of " << total;
}
