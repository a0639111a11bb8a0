// zarvel_frame_warpaffine and zarvel_frame_warpperspective end to end: their messages, every
// format against the per-plane models (chroma with the halved translation and border 128),
// device frames, the unsupported-format success, metadata, and closeness to OpenCV.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <random>
#include <string>

#include "frame_test_support.h"
#include "op_test_support.h"
#include "plugin/status.h"
#include "warp_models.h"

#ifdef ZARVEL_TEST_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;
using namespace zarvel::test;
using zarvel::test::warp::Plane;

namespace {

using WarpFn = decltype(&zarvel_frame_warpaffine);
const WarpFn kWarps[2] = {zarvel_frame_warpaffine, zarvel_frame_warpperspective};
const std::string kNames[2] = {"zarvel_frame_warpaffine", "zarvel_frame_warpperspective"};

bool has_fma() { return (za::cpu_features() & za::kCpuAvx2Fma) != 0; }

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

// Plane i of a host frame, tight.
Plane read_plane(const zarvel_frame_t* f, int i) {
  const auto [channels, d] = planes_of(f->format)[i];
  Plane out(f->width / d, f->height / d, channels);
  for (int32_t y = 0; y < out.height; ++y)
    std::memcpy(out.row(y), f->plane[i] + static_cast<size_t>(y) * f->stride[i],
                static_cast<size_t>(out.width) * channels);
  return out;
}

TEST(WarpFrame, RefusalMessages) {
  LogCapture log;
  auto grey = alloc(ZARVEL_PIXFMT_GREY, 4, 4), rgb = alloc(ZARVEL_PIXFMT_RGB24, 4, 4);
  for (int p = 0; p < 2; ++p) {
    EXPECT_EQ(kWarps[p](grey.get(), grey.get(), nullptr), za::kInvalidArgument);
    log.expect({{4, "aux", "[" + kNames[p] + "] The transform matrix is null!\n"}});
  }
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_EQ(zarvel_frame_warpaffine(grey.get(), rgb.get(), m), za::kFailed);
  log.expect({{4, "aux",
               "[" + kNames[0] +
                   "] Required_frame and given_frame not match:\n\treq:\tgiven:\n"
                   "mem:\t0\t0\nfmt:\tGREY\tRGB24\n"}});
}

// Every format, output larger and smaller than the input, both transforms, both paths: each
// plane equals the model run on that plane, chroma with the translation halved. Device
// frames fall back to the host with its two messages and give the host's result.
TEST(WarpFrame, EveryFormatWarpsPlaneByPlane) {
  const float ms[2][9] = {{0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0, 0, 1},
                          {0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0.004f, -0.002f, 1.1f}};
  std::mt19937 rng(5);
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const FeatureMask variant(vector ? ~0u : 0u);
    for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                            ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
      for (auto [ow, oh] : {std::pair{30, 22}, {12, 8}}) {
        for (int p = 0; p < 2; ++p) {
          auto in = alloc(format, 20, 14), out = alloc(format, ow, oh);
          fill_random(in.get(), rng);
          zarvel_frame_reset(out.get(), 0x5a);
          ASSERT_EQ(kWarps[p](in.get(), out.get(), ms[p]), za::kOk);
          for (int i = 0; i < static_cast<int>(planes_of(format).size()); ++i) {
            float pm[9];
            std::memcpy(pm, ms[p], sizeof pm);
            if (i > 0) pm[2] *= 0.5f, pm[5] *= 0.5f;
            Plane want = read_plane(out.get(), i);
            std::fill(want.bytes.begin(), want.bytes.end(), 0x5a);
            warp::model(vector, read_plane(in.get(), i), want, pm, p == 1, 0, i > 0 ? 128 : 0);
            EXPECT_EQ(read_plane(out.get(), i).bytes, want.bytes)
                << zarvel_frame_pixfmt_to_string(format) << " plane " << i << " out " << ow << "x"
                << oh << " persp=" << p << " vector=" << vector;
          }
          if (format != ZARVEL_PIXFMT_NV12 || ow != 12) continue;
          auto dev_in = to_device(in.get()), dev_out = alloc(format, ow, oh, ZARVEL_MEM_DEVICE);
          dev_in->meta_word0 = 77;
          LogCapture log;
          ASSERT_EQ(kWarps[p](dev_in.get(), dev_out.get(), ms[p]), za::kOk);
          expect_device_fallback(log, kNames[p]);
          EXPECT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
          EXPECT_EQ(dev_out->meta_word0, 77u);
          EXPECT_EQ(visible_bytes(to_host(dev_out.get()).get()), visible_bytes(out.get()));
        }
      }
    }
  }
}

// An unsupported format is logged, reported as success and leaves the pixels; the output
// takes the meta words and a reference to the attachment either way.
TEST(WarpFrame, UnsupportedFormatAndInheritedMetadata) {
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const std::string ops[2] = {"Do WarpAffine", "Do warpperspective"};
  for (uint32_t format : {ZARVEL_PIXFMT_GREY16, ZARVEL_PIXFMT_RGB24}) {
    for (int p = 0; p < 2; ++p) {
      LogCapture log;
      auto in = alloc(format, 6, 4), out = alloc(format, 5, 4);
      zarvel_frame_reset(out.get(), 0x33);
      in->meta_word0 = 41, in->meta_word1 = 42;
      in->extra = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
      EXPECT_EQ(kWarps[p](in.get(), out.get(), m), za::kOk);
      EXPECT_EQ(std::pair(out->meta_word0, out->meta_word1), std::pair(uint64_t{41}, uint64_t{42}));
      EXPECT_EQ(out->extra, in->extra);  // both records release their own reference
      in.reset();
      EXPECT_EQ(zarvel_buffer_size(out->extra), 16);
      if (format == ZARVEL_PIXFMT_RGB24) continue;
      log.expect({{4, "aux.host",
                   ops[p] + " transform for a frame in format [GREY16] is not supported yet!\n"}});
      EXPECT_EQ(visible_bytes(out.get()), std::vector<uint8_t>(5 * 2 * 4, 0x33));
    }
  }
}

#ifdef ZARVEL_TEST_OPENCV
// Different fixed-point schemes, so not bit-equal: away from the borders both paths stay
// within 2 of OpenCV's bilinear warp of a smooth image.
TEST(WarpFrame, StaysCloseToOpenCvOnSmoothImages) {
  auto in = alloc(ZARVEL_PIXFMT_RGB24, 160, 120), out = alloc(ZARVEL_PIXFMT_RGB24, 140, 100);
  cv::Mat src(120, 160, CV_8UC3, in->plane[0], in->stride[0]), want;
  for (int y = 0; y < 120; ++y)
    for (int x = 0; x < 160 * 3; ++x)
      src.ptr<uint8_t>(y)[x] = static_cast<uint8_t>(128 + 90 * std::sin(x * 0.03 + y * 0.05));
  const float c = std::cos(0.2f), s = std::sin(0.2f);
  const float m[9] = {c, -s, 20.5f, s, c, 3.25f, 0.0002f, -0.0003f, 1.0f};
  const int flags = cv::INTER_LINEAR | cv::WARP_INVERSE_MAP;
  for (int p = 0; p < 2; ++p) {
    if (p == 1) cv::warpPerspective(src, want, cv::Matx33f(m), {140, 100}, flags);
    if (p == 0) cv::warpAffine(src, want, cv::Matx23f(m), {140, 100}, flags);
    for (bool vector : {false, true}) {
      if (vector && !has_fma()) continue;
      const FeatureMask variant(vector ? ~0u : 0u);
      ASSERT_EQ(kWarps[p](in.get(), out.get(), m), za::kOk);
      int worst = 0;
      for (int y = 0; y < 100; ++y) {
        for (int x = 0; x < 140; ++x) {
          const float w = p == 1 ? m[6] * x + m[7] * y + m[8] : 1.0f;
          const float sx = (m[0] * x + m[1] * y + m[2]) / w, sy = (m[3] * x + m[4] * y + m[5]) / w;
          if (sx < 2 || sy < 2 || sx > 157 || sy > 117) continue;
          for (int k = 0; k < 3; ++k)
            worst = std::max(worst, std::abs(out->plane[0][y * out->stride[0] + x * 3 + k] -
                                             want.ptr<uint8_t>(y)[x * 3 + k]));
        }
      }
      EXPECT_LE(worst, 2) << "persp=" << p << " vector=" << vector;
    }
  }
}
#endif

}  // namespace
