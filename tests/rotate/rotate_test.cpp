// zarvel_frame_rotate end to end: every code and format against the index-mapping oracle,
// the output checks, the unsupported-format message and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <random>
#include <vector>

#include "op_test_support.h"
#include "plugin/device_api.h"
#include "rotate_test_support.h"

namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

constexpr uint8_t kSentinel = 0xA5;
constexpr uint32_t kFormats[] = {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                                 ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21,  ZARVEL_PIXFMT_YU12};

za::FramePtr alloc(uint32_t format, int w, int h, int pad = 0, uint8_t fill = kSentinel) {
  const auto strides = padded_strides(format, w, pad);
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, strides.data(), 0));
  if (f) fill_planes(f.get(), fill);
  return f;
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
    for (uint64_t k = 0; k < out->plane_size[i]; ++k) {
      const int r = static_cast<int>(k / out->stride[i]), x = static_cast<int>(k % out->stride[i]);
      const bool inside = r < oh && x < ow * p;
      const uint8_t want_byte = inside ? want[static_cast<size_t>(r) * ow * p + x] : kSentinel;
      if (out->plane[i][k] != want_byte)
        FAIL() << "plane " << i << " row " << r << " byte " << x << ": got " << +out->plane[i][k]
               << " want " << +want_byte << " (angle " << angle << ", " << src->width << "x"
               << src->height << ")";
    }
  }
}

// Rotates every format over pairs of `sizes` with padded strides into sentinel-filled outputs
// through `rotate(src, out, angle)`, and checks each result against the oracle.
template <typename Rotate>
void check_all_formats(const std::vector<int>& sizes, Rotate rotate) {
  std::mt19937 rng(7);
  for (uint32_t format : kFormats) {
    for (int w : sizes) {
      for (int h : sizes) {
        if (za::is_yuv420(format) && (w % 2 != 0 || h % 2 != 0)) continue;
        if (w > 20 && h > 20 && (w + h) % 3 != 0) continue;  // thin the large pairs
        const int pad = (w + h) % 2 == 0 ? 0 : 5;
        auto src = alloc(format, w, h, pad);
        ASSERT_TRUE(src);
        fill_random(src.get(), rng);
        for (int angle : {90, 180, 270}) {
          auto out = angle == 180 ? alloc(format, w, h, 7 - pad) : alloc(format, h, w, 7 - pad);
          ASSERT_TRUE(out);
          rotate(src.get(), out.get(), angle);
          ASSERT_NO_FATAL_FAILURE(expect_rotated(src.get(), out.get(), angle));
        }
      }
    }
  }
}

// The variant switch reaches the kernels linked into this test through the host slot, over
// sizes straddling the 16-byte blocks and the 64-pixel tiles; the export with fewer sizes.
TEST(Rotate, HostSlotMatchesTheIndexMappingOnBothPaths) {
  for (uint32_t mask : {0u, ~0u}) {
    FeatureMask features(mask);
    check_all_formats({1, 2, 3, 15, 16, 17, 31, 48, 63, 64, 65, 127, 128, 129, 130},
                      [](zarvel_frame_t* src, zarvel_frame_t* out, int angle) {
                        ASSERT_EQ(za::host_device_api().rotate(src, out, float(angle)), 0);
                      });
  }
}

TEST(Rotate, ExportMatchesTheIndexMappingForAllCodesAndFormats) {
  check_all_formats({2, 6, 16, 18, 64, 66}, [](zarvel_frame_t* src, zarvel_frame_t* out, int a) {
    zarvel_frame_t* slot = out;
    ASSERT_EQ(zarvel_frame_rotate(src, &slot, a / 90 - 1), 0);
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
  // The first output row is the first source column read from the bottom up.
  EXPECT_EQ(visible_bytes(out), (std::vector<uint8_t>{5, 1, 6, 2, 7, 3, 8, 4}));
}

// Unknown codes and unfit given outputs fail; unknown codes silently, leaving the output.
TEST(Rotate, RefusalsAndTheUnsupportedFormat) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_NV12, 6, 4);
  auto given = alloc(ZARVEL_PIXFMT_NV12, 4, 6);
  for (int code : {3, -1, 4, 90}) {
    zarvel_frame_t* out = nullptr;
    EXPECT_EQ(zarvel_frame_rotate(src.get(), &out, code), -1) << code;
    EXPECT_EQ(out, nullptr);
    zarvel_frame_t* slot = given.get();
    EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, code), -1);
    EXPECT_EQ(slot, given.get());
  }
  EXPECT_EQ(given->plane[0][0], kSentinel);
  log.expect({});

  auto small = alloc(ZARVEL_PIXFMT_NV12, 4, 4), grey = alloc(ZARVEL_PIXFMT_GREY, 4, 6);
  for (zarvel_frame_t* slot : {small.get(), grey.get()})
    EXPECT_EQ(zarvel_frame_rotate(src.get(), &slot, 0), -1);
  EXPECT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[0].text,
            "[zarvel_frame_rotate] Required_frame and given_frame not match:\n\treq:\tgiven:\n"
            "mem:\t0\t0\nfmt:\tNV12\tNV12\nwidth:\t4\t4\nheight:\t6\t4\n");
  log.clear();

  // A format the host does not rotate: one host message, success, the output untouched.
  auto deep = alloc(ZARVEL_PIXFMT_GREY16, 6, 4), deep_out = alloc(ZARVEL_PIXFMT_GREY16, 4, 6);
  zarvel_frame_t* slot = deep_out.get();
  EXPECT_EQ(zarvel_frame_rotate(deep.get(), &slot, 2), 0);
  log.expect({{4, "aux.host", "Rotating a frame in format [GREY16] is not supported yet!\n"}});
  for (uint64_t k = 0; k < deep_out->plane_size[0]; ++k)
    ASSERT_EQ(deep_out->plane[0][k], kSentinel);
}

// Only the rotated 4 x 6 corner of a 10 x 8 output is written; the sentinel stays elsewhere.
TEST(Rotate, ALargerGivenOutputGetsTheTopLeftCorner) {
  std::mt19937 rng(3);
  auto src = alloc(ZARVEL_PIXFMT_NV12, 6, 4), large = alloc(ZARVEL_PIXFMT_NV12, 10, 8);
  fill_random(src.get(), rng);
  zarvel_frame_t* slot = large.get();
  ASSERT_EQ(zarvel_frame_rotate(src.get(), &slot, 2), 0);
  expect_rotated(src.get(), large.get(), 270);
}

TEST(Rotate, AnOutputSharingTheSourcePixelsIsRotatedFromACopy) {
  LogCapture log;
  std::mt19937 rng(8);
  for (int code : {0, 1}) {
    auto frame = alloc(ZARVEL_PIXFMT_NV12, 66, 66), expected = alloc(ZARVEL_PIXFMT_NV12, 66, 66);
    fill_random(frame.get(), rng);
    zarvel_frame_t* slot = expected.get();
    ASSERT_EQ(zarvel_frame_rotate(frame.get(), &slot, code), 0);
    log.clear();
    slot = frame.get();
    ASSERT_EQ(zarvel_frame_rotate(frame.get(), &slot, code), 0);
    EXPECT_EQ(visible_bytes(frame.get()), visible_bytes(expected.get()));
    log.expect({{3, "aux",
                 "[zarvel_frame_rotate] The output shares pixels with the source, rotating a "
                 "copy.\n"}});
  }
}

TEST(Rotate, DeviceFramesFallBackToTheHost) {
  std::mt19937 rng(5);
  auto host = alloc(ZARVEL_PIXFMT_YU12, 66, 18), expected = alloc(ZARVEL_PIXFMT_YU12, 18, 66);
  fill_random(host.get(), rng);
  auto dev = to_device(host.get());
  dev->meta_word0 = 5, dev->meta_word1 = 6;
  LogCapture log;
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(dev.get(), &out, 0), 0);
  za::FramePtr out_owned(out);
  expect_device_fallback(log, "zarvel_frame_rotate");
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(out->meta_word0, 5u);
  EXPECT_EQ(out->meta_word1, 6u);
  zarvel_frame_t* slot = expected.get();
  ASSERT_EQ(zarvel_frame_rotate(host.get(), &slot, 0), 0);
  EXPECT_EQ(visible_bytes(to_host(out).get()), visible_bytes(expected.get()));
}

}  // namespace
