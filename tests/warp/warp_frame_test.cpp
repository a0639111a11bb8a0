// zarvel_frame_warpaffine and zarvel_frame_warpperspective end to end: argument checks and
// their messages, every format against the per-plane models (chroma with the halved
// translation and border 128), the unsupported-format success, metadata, device frames.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <random>
#include <string>

#include "frame_api/frame_api.h"
#include "log_capture.h"
#include "plugin/cpu_features.h"
#include "plugin/status.h"
#include "warp_models.h"

#ifdef ZARVEL_TEST_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;
using zarvel::test::LogCapture;
using zarvel::test::warp::Plane;

namespace {

constexpr const char* kAffine = "zarvel_frame_warpaffine";
constexpr const char* kPerspective = "zarvel_frame_warpperspective";

bool has_fma() { return (za::cpu_features() & za::kCpuAvx2Fma) != 0; }

class Variant {
 public:
  explicit Variant(bool vector) { za::set_cpu_feature_mask(vector ? ~0u : 0u); }
  ~Variant() { za::set_cpu_feature_mask(~0u); }
};

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

// Planes of a host frame: {plane index, channels, half size}.
struct PlaneSpec {
  int index, channels;
  bool half;
};
std::vector<PlaneSpec> planes_of(uint32_t format) {
  switch (format) {
    case ZARVEL_PIXFMT_GREY:
      return {{0, 1, false}};
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
      return {{0, 3, false}};
    case ZARVEL_PIXFMT_NV12:
    case ZARVEL_PIXFMT_NV21:
      return {{0, 1, false}, {1, 2, true}};
    case ZARVEL_PIXFMT_YU12:
      return {{0, 1, false}, {1, 1, true}, {2, 1, true}};
    default:
      return {};
  }
}

Plane read_plane(const zarvel_frame_t* f, const PlaneSpec& p) {
  const int d = p.half ? 2 : 1;
  Plane out(f->width / d, f->height / d, p.channels);
  for (int32_t y = 0; y < out.height; ++y)
    std::memcpy(out.row(y), f->plane[p.index] + static_cast<size_t>(y) * f->stride[p.index],
                static_cast<size_t>(out.width) * p.channels);
  return out;
}

void fill_random(zarvel_frame_t* f, uint32_t seed) {
  std::mt19937 rng(seed);
  for (int i = 0; i < static_cast<int>(f->plane_count); ++i)
    for (uint64_t k = 0; k < f->plane_size[i]; ++k) f->plane[i][k] = static_cast<uint8_t>(rng());
}

std::string format_name(uint32_t format) { return zarvel_frame_pixfmt_to_string(format); }

TEST(WarpFrame, NullArgumentsAreRefusedSilently) {
  LogCapture log;
  auto in = alloc(ZARVEL_PIXFMT_GREY, 4, 4), out = alloc(ZARVEL_PIXFMT_GREY, 4, 4);
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  zarvel_frame_t no_plane = *in;
  no_plane.plane[0] = nullptr;
  for (auto fn : {zarvel_frame_warpaffine, zarvel_frame_warpperspective}) {
    EXPECT_EQ(fn(nullptr, out.get(), m), za::kInvalidArgument);
    EXPECT_EQ(fn(in.get(), nullptr, m), za::kInvalidArgument);
    EXPECT_EQ(fn(&no_plane, out.get(), m), za::kInvalidArgument);
    EXPECT_EQ(fn(in.get(), &no_plane, m), za::kInvalidArgument);
  }
  EXPECT_TRUE(log.messages().empty());

  EXPECT_EQ(zarvel_frame_warpaffine(in.get(), out.get(), nullptr), za::kInvalidArgument);
  EXPECT_EQ(zarvel_frame_warpperspective(in.get(), out.get(), nullptr), za::kInvalidArgument);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].text, std::string("[") + kAffine + "] The transform matrix is null!\n");
  EXPECT_EQ(messages[1].text,
            std::string("[") + kPerspective + "] The transform matrix is null!\n");
  EXPECT_EQ(messages[0].level, 4u);
  EXPECT_EQ(messages[0].tag, "aux");
}

TEST(WarpFrame, FramesOfDifferentFormatOrMemoryAreRefused) {
  LogCapture log;
  auto grey = alloc(ZARVEL_PIXFMT_GREY, 4, 4), rgb = alloc(ZARVEL_PIXFMT_RGB24, 4, 4);
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_EQ(zarvel_frame_warpaffine(grey.get(), rgb.get(), m), za::kFailed);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].level, 4u);
  EXPECT_EQ(messages[0].text, std::string("[") + kAffine +
                                  "] Required_frame and given_frame not match:\n\treq:\tgiven:\n"
                                  "mem:\t0\t0\nfmt:\t" +
                                  format_name(ZARVEL_PIXFMT_GREY) + "\t" +
                                  format_name(ZARVEL_PIXFMT_RGB24) + "\n");
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
          for (const PlaneSpec& p : planes_of(format)) {
            float pm[9];
            std::memcpy(pm, m, sizeof pm);
            if (p.half) pm[2] *= 0.5f, pm[5] *= 0.5f;
            const Plane src = read_plane(in.get(), p);
            Plane want = read_plane(out.get(), p);
            std::fill(want.bytes.begin(), want.bytes.end(), 0x5a);
            (vector ? zarvel::test::warp::vector_model : zarvel::test::warp::scalar_model)(
                src, want, pm, perspective, 0, p.half ? 128 : 0);
            EXPECT_EQ(read_plane(out.get(), p).bytes, want.bytes)
                << format_name(format) << " plane " << p.index << " out " << ow << "x" << oh
                << " persp=" << perspective << " vector=" << vector;
          }
        }
      }
    }
  }
}

// An integer translation, checked by index mapping: luma moves by (4, 2) with 0 coming in,
// chroma by (2, 1) with 128 coming in.
TEST(WarpFrame, ChromaMovesByHalfTheTranslation) {
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    for (uint32_t format : {ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_YU12}) {
      auto in = alloc(format, 16, 8), out = alloc(format, 16, 8);
      fill_random(in.get(), 11);
      const float m[6] = {1, 0, 4, 0, 1, 2};
      ASSERT_EQ(zarvel_frame_warpaffine(in.get(), out.get(), m), za::kOk);
      for (const PlaneSpec& p : planes_of(format)) {
        const Plane src = read_plane(in.get(), p), got = read_plane(out.get(), p);
        const int tx = p.half ? 2 : 4, ty = p.half ? 1 : 2;
        for (int32_t y = 0; y < got.height; ++y) {
          for (int32_t x = 0; x < got.width; ++x) {
            const bool inside = x + tx < src.width && y + ty < src.height;
            for (int ch = 0; ch < p.channels; ++ch) {
              const int want =
                  inside ? src.row(y + ty)[(x + tx) * p.channels + ch] : (p.half ? 128 : 0);
              ASSERT_EQ(got.row(y)[x * p.channels + ch], want)
                  << format_name(format) << " plane " << p.index << " at " << x << "," << y;
            }
          }
        }
      }
    }
  }
}

TEST(WarpFrame, UnsupportedFormatIsLoggedAndReportedAsSuccess) {
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (bool perspective : {false, true}) {
    LogCapture log;
    auto in = alloc(ZARVEL_PIXFMT_GREY16, 6, 4), out = alloc(ZARVEL_PIXFMT_GREY16, 6, 4);
    zarvel_frame_reset(in.get(), 7);
    zarvel_frame_reset(out.get(), 0x33);
    in->meta_word0 = 41;
    in->meta_word1 = 42;
    auto fn = perspective ? zarvel_frame_warpperspective : zarvel_frame_warpaffine;
    EXPECT_EQ(fn(in.get(), out.get(), m), za::kOk);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].level, 4u);
    EXPECT_EQ(messages[0].tag, "aux.host");
    EXPECT_TRUE(messages[0].tag_padded);
    EXPECT_EQ(messages[0].text, std::string(perspective ? "Do warpperspective transform"
                                                        : "Do WarpAffine transform") +
                                    " for a frame in format [" + format_name(ZARVEL_PIXFMT_GREY16) +
                                    "] is not supported yet!\n");
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 12; ++x) ASSERT_EQ(out->plane[0][y * out->stride[0] + x], 0x33);
    EXPECT_EQ(out->meta_word0, 41u);
    EXPECT_EQ(out->meta_word1, 42u);
  }
}

TEST(WarpFrame, OutputInheritsMetaWordsAndAReferenceToTheAttachment) {
  auto in = alloc(ZARVEL_PIXFMT_RGB24, 8, 6), out = alloc(ZARVEL_PIXFMT_RGB24, 5, 5);
  in->meta_word0 = 0x1234;
  in->meta_word1 = 0x5678;
  in->extra = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
  const float m[6] = {1, 0, 0, 0, 1, 0};
  ASSERT_EQ(zarvel_frame_warpaffine(in.get(), out.get(), m), za::kOk);
  EXPECT_EQ(out->meta_word0, 0x1234u);
  EXPECT_EQ(out->meta_word1, 0x5678u);
  EXPECT_EQ(out->extra, in->extra);  // both records release their own reference
  in.reset();
  EXPECT_EQ(zarvel_buffer_size(out->extra), 16);
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

    zarvel_frame_t* dev = nullptr;
    ASSERT_EQ(zarvel_frame_upload(host_in.get(), &dev), za::kOk);
    za::FramePtr dev_in(dev);
    dev_in->meta_word0 = 77;
    auto dev_out = alloc(ZARVEL_PIXFMT_NV12, 20, 12, ZARVEL_MEM_DEVICE);
    ASSERT_TRUE(dev_out);
    LogCapture log;
    ASSERT_EQ(fn(dev_in.get(), dev_out.get(), m), za::kOk);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, "No device api found, pls rebuild with specific device on!\n");
    EXPECT_EQ(messages[1].text,
              std::string("Device api not support, fallback to CPU - [") + name + "]!\n");
    EXPECT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
    EXPECT_EQ(dev_out->meta_word0, 77u);
    zarvel_frame_t* back = nullptr;
    ASSERT_EQ(zarvel_frame_download(dev_out.get(), &back), za::kOk);
    za::FramePtr back_owned(back);
    for (const PlaneSpec& p : planes_of(ZARVEL_PIXFMT_NV12)) {
      EXPECT_EQ(read_plane(back, p).bytes, read_plane(host_out.get(), p).bytes) << p.index;
    }
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
