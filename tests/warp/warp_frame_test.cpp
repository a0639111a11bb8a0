// zarvel_frame_warpaffine and zarvel_frame_warpperspective end to end: argument checks and
// their messages, every format against the per-plane models (chroma with the halved
// translation and border 128), the unsupported-format success, metadata, device frames.
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
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;
using namespace zarvel::test;
using zarvel::test::warp::Plane;

namespace {

constexpr const char* kAffine = "zarvel_frame_warpaffine";
constexpr const char* kPerspective = "zarvel_frame_warpperspective";

bool has_fma() { return (za::cpu_features() & za::kCpuAvx2Fma) != 0; }

// Forces one variant for the scope.
struct Variant : FeatureMask {
  explicit Variant(bool vector) : FeatureMask(vector ? ~0u : 0u) {}
};

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

void fill_random(zarvel_frame_t* f, uint32_t seed) {
  std::mt19937 rng(seed);
  zarvel::test::fill_random(f, rng);
}

std::string format_name(uint32_t format) { return zarvel_frame_pixfmt_to_string(format); }

TEST(WarpFrame, RefusalsAndTheirMessages) {
  LogCapture log;
  auto grey = alloc(ZARVEL_PIXFMT_GREY, 4, 4), rgb = alloc(ZARVEL_PIXFMT_RGB24, 4, 4);
  EXPECT_EQ(zarvel_frame_warpaffine(grey.get(), grey.get(), nullptr), za::kInvalidArgument);
  EXPECT_EQ(zarvel_frame_warpperspective(grey.get(), grey.get(), nullptr), za::kInvalidArgument);
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_EQ(zarvel_frame_warpaffine(grey.get(), rgb.get(), m), za::kFailed);
  log.expect({{4, "aux", std::string("[") + kAffine + "] The transform matrix is null!\n"},
              {4, "aux", std::string("[") + kPerspective + "] The transform matrix is null!\n"},
              {4, "aux",
               std::string("[") + kAffine +
                   "] Required_frame and given_frame not match:\n\treq:\tgiven:\n"
                   "mem:\t0\t0\nfmt:\tGREY\tRGB24\n"}});
}

// Every format, output larger and smaller than the input, both transforms, both paths: each
// plane equals the model run on that plane, chroma with the translation halved.
TEST(WarpFrame, EveryFormatWarpsPlaneByPlane) {
  const float affine[9] = {0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0, 0, 1};
  const float persp[9] = {0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0.004f, -0.002f, 1.1f};
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                            ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
      for (auto [ow, oh] : {std::pair{30, 22}, {12, 8}}) {
        for (bool perspective : {false, true}) {
          auto in = alloc(format, 20, 14), out = alloc(format, ow, oh);
          fill_random(in.get(), format + ow);
          zarvel_frame_reset(out.get(), 0x5a);
          const float* m = perspective ? persp : affine;
          auto fn = perspective ? zarvel_frame_warpperspective : zarvel_frame_warpaffine;
          ASSERT_EQ(fn(in.get(), out.get(), m), za::kOk);
          for (int i = 0; i < static_cast<int>(planes_of(format).size()); ++i) {
            float pm[9];
            std::memcpy(pm, m, sizeof pm);
            if (i > 0) pm[2] *= 0.5f, pm[5] *= 0.5f;
            Plane want = read_plane(out.get(), i);
            std::fill(want.bytes.begin(), want.bytes.end(), 0x5a);
            (vector ? zarvel::test::warp::vector_model : zarvel::test::warp::scalar_model)(
                read_plane(in.get(), i), want, pm, perspective, 0, i > 0 ? 128 : 0);
            EXPECT_EQ(read_plane(out.get(), i).bytes, want.bytes)
                << format_name(format) << " plane " << i << " out " << ow << "x" << oh
                << " persp=" << perspective << " vector=" << vector;
          }
        }
      }
    }
  }
}

// An unsupported format is logged, reported as success and leaves the pixels; the output
// takes the meta words and a reference to the attachment either way.
TEST(WarpFrame, UnsupportedFormatAndInheritedMetadata) {
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (uint32_t format : {ZARVEL_PIXFMT_GREY16, ZARVEL_PIXFMT_RGB24}) {
    for (bool perspective : {false, true}) {
      LogCapture log;
      auto in = alloc(format, 6, 4), out = alloc(format, 5, 4);
      zarvel_frame_reset(out.get(), 0x33);
      in->meta_word0 = 41, in->meta_word1 = 42;
      in->extra = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
      auto fn = perspective ? zarvel_frame_warpperspective : zarvel_frame_warpaffine;
      EXPECT_EQ(fn(in.get(), out.get(), m), za::kOk);
      EXPECT_EQ(out->meta_word0, 41u);
      EXPECT_EQ(out->meta_word1, 42u);
      EXPECT_EQ(out->extra, in->extra);  // both records release their own reference
      in.reset();
      EXPECT_EQ(zarvel_buffer_size(out->extra), 16);
      if (format == ZARVEL_PIXFMT_RGB24) continue;
      log.expect({{4, "aux.host",
                   std::string(perspective ? "Do warpperspective" : "Do WarpAffine") +
                       " transform for a frame in format [GREY16] is not supported yet!\n"}});
      EXPECT_EQ(visible_bytes(out.get()), std::vector<uint8_t>(5 * 2 * 4, 0x33));
    }
  }
}

// Device frames go through the host fallback with its two messages and come back equal to
// the host result.
TEST(WarpFrame, DeviceFramesFallBackToTheHost) {
  const float m[9] = {0.8f, 0.3f, 2.0f, -0.3f, 0.8f, 6.0f, 0.001f, 0.002f, 1.0f};
  for (bool perspective : {false, true}) {
    const char* name = perspective ? kPerspective : kAffine;
    auto fn = perspective ? zarvel_frame_warpperspective : zarvel_frame_warpaffine;
    auto host_in = alloc(ZARVEL_PIXFMT_NV12, 24, 16), host_out = alloc(ZARVEL_PIXFMT_NV12, 20, 12);
    fill_random(host_in.get(), 5);
    host_in->meta_word0 = 77;
    ASSERT_EQ(fn(host_in.get(), host_out.get(), m), za::kOk);

    auto dev_in = to_device(host_in.get());
    dev_in->meta_word0 = 77;
    auto dev_out = alloc(ZARVEL_PIXFMT_NV12, 20, 12, ZARVEL_MEM_DEVICE);
    ASSERT_TRUE(dev_out);
    LogCapture log;
    ASSERT_EQ(fn(dev_in.get(), dev_out.get(), m), za::kOk);
    expect_device_fallback(log, name);
    EXPECT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
    EXPECT_EQ(dev_out->meta_word0, 77u);
    EXPECT_EQ(visible_bytes(to_host(dev_out.get()).get()), visible_bytes(host_out.get()));
  }
}

#ifdef ZARVEL_TEST_OPENCV
// Different fixed-point schemes, so not bit-equal: away from the borders both paths stay
// within 2 of OpenCV's bilinear warp of a smooth image.
TEST(WarpFrame, StaysCloseToOpenCvOnSmoothImages) {
  auto in = alloc(ZARVEL_PIXFMT_RGB24, 160, 120), out = alloc(ZARVEL_PIXFMT_RGB24, 140, 100);
  cv::Mat src(120, 160, CV_8UC3, in->plane[0], in->stride[0]);
  for (int y = 0; y < 120; ++y)
    for (int x = 0; x < 160 * 3; ++x)
      src.ptr<uint8_t>(y)[x] = static_cast<uint8_t>(128 + 90 * std::sin(x * 0.03 + y * 0.05));
  const float angle = 0.2f;
  const float affine[9] = {std::cos(angle), -std::sin(angle), 20.5f,
                           std::sin(angle), std::cos(angle),  3.25f,
                           0.0002f,         -0.0003f,         1.0f};
  for (bool perspective : {false, true}) {
    cv::Mat want;
    if (perspective) {
      cv::Matx33f m(affine);
      cv::warpPerspective(src, want, m, {140, 100}, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                          cv::BORDER_CONSTANT);
    } else {
      cv::Matx23f m(affine);
      cv::warpAffine(src, want, m, {140, 100}, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                     cv::BORDER_CONSTANT);
    }
    for (bool vector : {false, true}) {
      if (vector && !has_fma()) continue;
      const Variant variant(vector);
      auto fn = perspective ? zarvel_frame_warpperspective : zarvel_frame_warpaffine;
      ASSERT_EQ(fn(in.get(), out.get(), affine), za::kOk);
      int worst = 0;
      for (int y = 0; y < 100; ++y) {
        for (int x = 0; x < 140; ++x) {
          const float w = perspective ? affine[6] * x + affine[7] * y + affine[8] : 1.0f;
          const float sx = (affine[0] * x + affine[1] * y + affine[2]) / w;
          const float sy = (affine[3] * x + affine[4] * y + affine[5]) / w;
          if (sx < 2 || sy < 2 || sx > 157 || sy > 117) continue;
          for (int c = 0; c < 3; ++c) {
            worst = std::max(worst, std::abs(out->plane[0][y * out->stride[0] + x * 3 + c] -
                                             want.ptr<uint8_t>(y)[x * 3 + c]));
          }
        }
      }
      EXPECT_LE(worst, 2) << "persp=" << perspective << " vector=" << vector;
    }
  }
}
#endif

}  // namespace
