// zarvel_frame_rotate end to end: every code and format against the index-mapping oracle,
// the output checks, the unsupported-format message and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <random>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "log_capture.h"
#include "plugin/cpu_features.h"
#include "plugin/device_api.h"
#include "rotate_test_support.h"

namespace za = zarvel::aux;
using zarvel::test::LogCapture;
using zarvel::test::planes_of;
using zarvel::test::rotate_oracle;

namespace {

constexpr uint8_t kSentinel = 0xA5;
constexpr int kAngles[] = {90, 180, 270};
constexpr uint32_t kFormats[] = {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                                 ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21,  ZARVEL_PIXFMT_YU12};

za::FramePtr alloc(uint32_t format, int w, int h, int pad = 0, uint32_t mem = ZARVEL_MEM_HOST) {
  const auto strides = zarvel::test::padded_strides(format, w, pad);
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, strides.data(), 0));
}

// Checks every plane of `out` against the oracle over the rotated size; every other byte the
// planes span (row padding, a larger output's remainder) must still hold the sentinel.
void expect_rotated(const zarvel_frame_t* src, const zarvel_frame_t* out, int angle) {
  const auto planes = planes_of(src->format);
  for (size_t i = 0; i < planes.size(); ++i) {
    const auto [p, div] = planes[i];
    const int sh = src->height / div, sw = src->width / div;
    const auto want = rotate_oracle(src->plane[i], sh, sw, src->stride[i], p, angle);
    const int oh = angle == 180 ? sh : sw, ow = angle == 180 ? sw : sh;
    int bad = 0;
    for (uint64_t k = 0; k < out->plane_size[i] && bad < 5; ++k) {
      const int r = static_cast<int>(k / out->stride[i]);
      const int x = static_cast<int>(k % out->stride[i]);
      const bool inside = r < oh && x < ow * p;
      const uint8_t expected = inside ? want[(static_cast<size_t>(r) * ow) * p + x] : kSentinel;
      if (out->plane[i][k] != expected) {
        ADD_FAILURE() << "plane " << i << " row " << r << " byte " << x << ": got "
                      << int{out->plane[i][k]} << " want " << int{expected} << " (angle " << angle
                      << ", " << src->width << "x" << src->height << ")";
        ++bad;
      }
    }
  }
}

int code_of(int angle) { return angle / 90 - 1; }

// Rotates every format over pairs of `sizes` with padded strides into sentinel-filled outputs
// through `rotate(src, out, angle)`, and checks each result against the oracle.
template <typename Rotate>
void check_all_formats(const std::vector<int>& sizes, Rotate rotate) {
  std::mt19937 rng(7);
  for (uint32_t format : kFormats) {
    const bool yuv = za::is_yuv420(format);
    for (int w : sizes) {
      for (int h : sizes) {
        if (yuv && (w % 2 != 0 || h % 2 != 0)) continue;
        if (w > 20 && h > 20 && (w + h) % 3 != 0) continue;  // thin the large pairs
        const int pad = (w + h) % 2 == 0 ? 0 : 5;
        auto src = alloc(format, w, h, pad);
        ASSERT_TRUE(src);
        zarvel::test::fill_random(src.get(), rng);
        for (int angle : kAngles) {
          const bool quarter = angle != 180;
          auto out = alloc(format, quarter ? h : w, quarter ? w : h, 7 - pad);
          ASSERT_TRUE(out);
          zarvel::test::fill_planes(out.get(), kSentinel);
          rotate(src.get(), out.get(), angle);
          expect_rotated(src.get(), out.get(), angle);
          if (::testing::Test::HasFailure()) return;
        }
      }
    }
  }
}

// The variant switch reaches the kernels linked into this test, so the host slot is called
// directly here; the export (from the shared library) is checked below with its own kernels.
class RotateVariants : public ::testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override { za::set_cpu_feature_mask(GetParam()); }
  void TearDown() override { za::set_cpu_feature_mask(~0u); }
};

// Sizes straddling the 16-byte blocks and the 64-pixel tiles.
TEST_P(RotateVariants, HostSlotMatchesTheIndexMappingForAllFormats) {
  check_all_formats({1, 2, 3, 15, 16, 17, 31, 48, 63, 64, 65, 127, 128, 129, 130},
                    [](zarvel_frame_t* src, zarvel_frame_t* out, int angle) {
                      ASSERT_EQ(za::host_device_api().rotate(src, out, static_cast<float>(angle)),
                                0);
                    });
}

INSTANTIATE_TEST_SUITE_P(Variants, RotateVariants, ::testing::Values(0u, ~0u),
                         [](const auto& info) { return info.param == 0 ? "Scalar" : "Vector"; });

TEST(Rotate, ExportMatchesTheIndexMappingForAllCodesAndFormats) {
  check_all_formats({2, 6, 16, 18, 64, 66},
                    [](zarvel_frame_t* src, zarvel_frame_t* out, int angle) {
                      zarvel_frame_t* slot = out;
                      ASSERT_EQ(zarvel_frame_rotate(src, &slot, code_of(angle)), 0);
                      ASSERT_EQ(slot, out);
                    });
}

TEST(Rotate, QuarterTurnOfFourByTwoGrey) {
  auto src = alloc(ZARVEL_PIXFMT_GREY, 4, 2);
  const uint8_t pixels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (int r = 0; r < 2; ++r) std::memcpy(src->plane[0] + r * src->stride[0], pixels + 4 * r, 4);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(src.get(), &out, 0), 0);
  za::FramePtr owned(out);
  ASSERT_EQ(out->width, 2);
  // The first output row is the first source column read from the bottom up.
  EXPECT_EQ(zarvel::test::visible_bytes(out), (std::vector<uint8_t>{5, 1, 6, 2, 7, 3, 8, 4}));
}

TEST(Rotate, HalfTurnKeepsChromaPairsAndPixelBytesInOrder) {
  auto nv12 = alloc(ZARVEL_PIXFMT_NV12, 4, 2);
  zarvel::test::fill_planes(nv12.get(), 0);
  nv12->plane[1][0] = 10, nv12->plane[1][1] = 200, nv12->plane[1][2] = 30, nv12->plane[1][3] = 40;
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(nv12.get(), &out, 1), 0);
  za::FramePtr owned(out);
  EXPECT_EQ(std::vector<uint8_t>(out->plane[1], out->plane[1] + 4),
            (std::vector<uint8_t>{30, 40, 10, 200}));

  auto rgb = alloc(ZARVEL_PIXFMT_RGB24, 2, 1);
  const uint8_t px[6] = {1, 2, 3, 4, 5, 6};
  std::memcpy(rgb->plane[0], px, 6);
  zarvel_frame_t* rgb_out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(rgb.get(), &rgb_out, 1), 0);
  za::FramePtr rgb_owned(rgb_out);
  EXPECT_EQ(std::vector<uint8_t>(rgb_out->plane[0], rgb_out->plane[0] + 6),
            (std::vector<uint8_t>{4, 5, 6, 1, 2, 3}));
}

TEST(Rotate, RefusesNullArgumentsAndUnknownCodesSilently) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_GREY, 8, 4);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_rotate(nullptr, &out, 0), -1);
  EXPECT_EQ(zarvel_frame_rotate(src.get(), nullptr, 0), -1);
  for (int code : {3, -1, 4, 90}) {
    EXPECT_EQ(zarvel_frame_rotate(src.get(), &out, code), -1) << code;
    EXPECT_EQ(out, nullptr);
  }
  auto given = alloc(ZARVEL_PIXFMT_GREY, 4, 8);
  zarvel::test::fill_planes(given.get(), kSentinel);
  zarvel_frame_t* slot = given.get();
  EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, 3), -1);
  EXPECT_EQ(slot, given.get());
  EXPECT_EQ(given->plane[0][0], kSentinel);
  EXPECT_TRUE(log.messages().empty());
}

TEST(Rotate, UnsupportedFormatIsLoggedByTheHostAndStillSucceeds) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_GREY16, 6, 4);
  auto out = alloc(ZARVEL_PIXFMT_GREY16, 4, 6);
  zarvel::test::fill_planes(out.get(), kSentinel);
  zarvel_frame_t* slot = out.get();
  EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, 2), 0);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].level, 4u);
  EXPECT_EQ(messages[0].tag, "aux.host");
  EXPECT_EQ(messages[0].text, "Rotating a frame in format [GREY16] is not supported yet!\n");
  for (uint64_t k = 0; k < out->plane_size[0]; ++k) ASSERT_EQ(out->plane[0][k], kSentinel);
}

TEST(Rotate, GivenOutputsAreCheckedAndALargerOneGetsTheTopLeftCorner) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_NV12, 6, 4);
  std::mt19937 rng(3);
  zarvel::test::fill_random(src.get(), rng);

  auto small = alloc(ZARVEL_PIXFMT_NV12, 4, 4);  // the quarter turn needs 4 x 6
  zarvel_frame_t* slot = small.get();
  EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, 0), -1);
  auto grey = alloc(ZARVEL_PIXFMT_GREY, 4, 6);
  slot = grey.get();
  EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, 0), -1);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].tag, "aux");
  EXPECT_EQ(messages[0].text,
            "[zarvel_frame_rotate] Required_frame and given_frame not match:\n\treq:\tgiven:\n"
            "mem:\t0\t0\nfmt:\tNV12\tNV12\nwidth:\t4\t4\nheight:\t6\t4\n");

  // Only the rotated 4 x 6 corner of a 10 x 8 output is written; the sentinel stays elsewhere.
  auto large = alloc(ZARVEL_PIXFMT_NV12, 10, 8);
  zarvel::test::fill_planes(large.get(), kSentinel);
  slot = large.get();
  ASSERT_EQ(zarvel_frame_rotate(src.get(), &slot, 2), 0);
  expect_rotated(src.get(), large.get(), 270);
}

TEST(Rotate, AnOutputSharingTheSourcePixelsIsRotatedFromACopy) {
  LogCapture log;
  std::mt19937 rng(8);
  for (int code : {0, 1}) {
    auto frame = alloc(ZARVEL_PIXFMT_NV12, 66, 66);
    zarvel::test::fill_random(frame.get(), rng);
    za::FramePtr original(zarvel_frame_duplicate(frame.get()));
    auto expected = alloc(ZARVEL_PIXFMT_NV12, 66, 66);
    zarvel_frame_t* slot = expected.get();
    ASSERT_EQ(zarvel_frame_rotate(original.get(), &slot, code), 0);
    log.clear();
    slot = frame.get();
    ASSERT_EQ(zarvel_frame_rotate(frame.get(), &slot, code), 0);
    EXPECT_EQ(zarvel::test::visible_bytes(frame.get()),
              zarvel::test::visible_bytes(expected.get()));
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].level, 3u);
    EXPECT_EQ(messages[0].text,
              "[zarvel_frame_rotate] The output shares pixels with the source, rotating a copy.\n");
  }
}

TEST(Rotate, DeviceFramesFallBackToTheHost) {
  LogCapture log;
  auto host = alloc(ZARVEL_PIXFMT_YU12, 66, 18);
  std::mt19937 rng(5);
  zarvel::test::fill_random(host.get(), rng);
  zarvel_frame_t* dev = nullptr;
  ASSERT_EQ(zarvel_frame_upload(host.get(), &dev), 0);
  za::FramePtr dev_owned(dev);
  dev->meta_word0 = 5;
  dev->meta_word1 = 6;

  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(dev, &out, 0), 0);
  za::FramePtr out_owned(out);
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(out->meta_word0, 5u);
  EXPECT_EQ(out->meta_word1, 6u);
  zarvel_frame_t* back = nullptr;
  ASSERT_EQ(zarvel_frame_download(out, &back), 0);
  za::FramePtr back_owned(back);
  auto expected = alloc(ZARVEL_PIXFMT_YU12, 18, 66);
  zarvel::test::fill_planes(expected.get(), kSentinel);
  zarvel_frame_t* slot = expected.get();
  ASSERT_EQ(zarvel_frame_rotate(host.get(), &slot, 0), 0);
  EXPECT_EQ(zarvel::test::visible_bytes(back), zarvel::test::visible_bytes(expected.get()));

  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].text, "No device api found, pls rebuild with specific device on!\n");
  EXPECT_EQ(messages[1].text, "Device api not support, fallback to CPU - [zarvel_frame_rotate]!\n");
}

}  // namespace
