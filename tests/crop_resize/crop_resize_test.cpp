// zarvel_frame_crop, zarvel_frame_resize and zarvel_frame_scale through the public entry
// points: plane handling per format, background fill, statuses and messages.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstring>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "log_capture.h"

namespace za = zarvel::aux;
using zarvel::test::fill_pattern;
using zarvel::test::LogCapture;
using zarvel::test::visible_bytes;

namespace {

za::FramePtr make(uint32_t format, int w, int h, int seed = 3, uint32_t mem = ZARVEL_MEM_HOST) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  fill_pattern(f.get(), seed);
  if (mem == ZARVEL_MEM_HOST) return f;
  zarvel_frame_t* dev = nullptr;
  EXPECT_EQ(zarvel_frame_upload(f.get(), &dev), 0);
  return za::FramePtr(dev);
}

// A GREY frame over plane `i` of a host frame, for resizing one plane alone.
za::FramePtr plane_as_grey(zarvel_frame_t* f, int i, int w, int h) {
  const int32_t strides[4] = {f->stride[i], 0, 0, 0};
  return za::FramePtr(zarvel_frame_make(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, f->plane[i], w, h,
                                        strides, nullptr, nullptr, nullptr));
}

za::FramePtr resized(zarvel_frame_t* src, Size2D size) {
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_resize(src, &out, size), 0);
  return za::FramePtr(out);
}

std::vector<uint8_t> plane_bytes(const zarvel_frame_t* f, int i, int row_bytes, int rows) {
  std::vector<uint8_t> v;
  for (int y = 0; y < rows; ++y)
    v.insert(v.end(), f->plane[i] + y * f->stride[i], f->plane[i] + y * f->stride[i] + row_bytes);
  return v;
}

TEST(Resize, ChromaPairsMoveTogetherAndPlanesResizeAlone) {
  // Channels are independent: resizing the interleaved UV plane equals resizing U and V on
  // their own; NV21 gives the same bytes as NV12; YU12 planes resize as GREY planes.
  auto nv12 = make(ZARVEL_PIXFMT_NV12, 38, 26);
  auto out = resized(nv12.get(), {22, 30});
  auto luma = resized(plane_as_grey(nv12.get(), 0, 38, 26).get(), {22, 30});
  EXPECT_EQ(plane_bytes(out.get(), 0, 22, 30), plane_bytes(luma.get(), 0, 22, 30));

  za::FramePtr u(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 19, 13, nullptr, 0));
  za::FramePtr v(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 19, 13, nullptr, 0));
  for (int y = 0; y < 13; ++y)
    for (int x = 0; x < 19; ++x) {
      u->plane[0][y * u->stride[0] + x] = nv12->plane[1][y * nv12->stride[1] + 2 * x];
      v->plane[0][y * v->stride[0] + x] = nv12->plane[1][y * nv12->stride[1] + 2 * x + 1];
    }
  auto u2 = resized(u.get(), {11, 15}), v2 = resized(v.get(), {11, 15});
  for (int y = 0; y < 15; ++y)
    for (int x = 0; x < 11; ++x) {
      ASSERT_EQ(out->plane[1][y * out->stride[1] + 2 * x], u2->plane[0][y * u2->stride[0] + x]);
      ASSERT_EQ(out->plane[1][y * out->stride[1] + 2 * x + 1], v2->plane[0][y * v2->stride[0] + x]);
    }

  nv12->format = ZARVEL_PIXFMT_NV21;
  auto nv21 = resized(nv12.get(), {22, 30});
  nv12->format = ZARVEL_PIXFMT_NV12;
  EXPECT_EQ(nv21->format, ZARVEL_PIXFMT_NV21);
  EXPECT_EQ(visible_bytes(nv21.get()), visible_bytes(out.get()));

  auto yu12 = make(ZARVEL_PIXFMT_YU12, 40, 20);
  auto yout = resized(yu12.get(), {16, 36});
  for (int i = 1; i <= 2; ++i) {
    auto g = resized(plane_as_grey(yu12.get(), i, 20, 10).get(), {8, 18});
    EXPECT_EQ(plane_bytes(yout.get(), i, 8, 18), plane_bytes(g.get(), 0, 8, 18)) << i;
  }
}

TEST(Resize, DeviceFramesGiveTheHostBytes) {
  for (uint32_t format : {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_NV12}) {
    auto host = make(format, 30, 18);
    auto dev = make(format, 30, 18, 3, ZARVEL_MEM_DEVICE);
    dev->meta_word0 = 9;
    auto host_out = resized(host.get(), {14, 40});
    LogCapture log;
    auto dev_out = resized(dev.get(), {14, 40});
    ASSERT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
    EXPECT_EQ(dev_out->meta_word0, 9u);
    zarvel_frame_t* back = nullptr;
    ASSERT_EQ(zarvel_frame_download(dev_out.get(), &back), 0);
    za::FramePtr owned(back);
    EXPECT_EQ(visible_bytes(back), visible_bytes(host_out.get()));
    ASSERT_EQ(log.messages().size(), 2u);
    EXPECT_EQ(log.messages()[1].text,
              "Device api not support, fallback to CPU - [zarvel_frame_resize]!\n");
  }
}

TEST(Resize, LargerGivenOutputReceivesTheTopLeftCorner) {
  auto src = make(ZARVEL_PIXFMT_GREY, 20, 10);
  auto expected = resized(src.get(), {7, 5});
  za::FramePtr given(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 9, 8, nullptr, 0));
  std::memset(given->plane[0], 0xEE, 72);
  zarvel_frame_t* slot = given.get();
  ASSERT_EQ(zarvel_frame_resize(src.get(), &slot, {7, 5}), 0);
  EXPECT_EQ(plane_bytes(given.get(), 0, 7, 5), plane_bytes(expected.get(), 0, 7, 5));
  EXPECT_EQ(given->plane[0][7], 0xEE);
  EXPECT_EQ(given->plane[0][9 * 5], 0xEE);
}

TEST(Resize, RatioOneCopiesWithANote) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_YU12, 12, 8);
  auto out = resized(src.get(), {12, 8});
  EXPECT_EQ(visible_bytes(out.get()), visible_bytes(src.get()));
  auto messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].level, 0u);
  EXPECT_EQ(messages[0].tag, "aux");
  EXPECT_EQ(messages[0].text,
            "[zarvel_frame_resize] Scale ratio is 1, degrade to zarvel_frame_copy to speed up.\n");
}

TEST(Resize, FailuresAndTheUnsupportedFormat) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_RGB24, 8, 8);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_resize(nullptr, &out, {4, 4}), -1);
  EXPECT_EQ(zarvel_frame_resize(src.get(), nullptr, {4, 4}), -1);
  EXPECT_EQ(zarvel_frame_crop(nullptr, &out, {0, 0, 1, 1}), -1);
  EXPECT_EQ(zarvel_frame_scale(nullptr, &out, 0.0f), -1);
  EXPECT_EQ(zarvel_frame_scale(nullptr, &out, 2.0f), -1);
  EXPECT_TRUE(log.messages().empty());

  EXPECT_EQ(zarvel_frame_resize(src.get(), &out, {0, 4}), -1);
  EXPECT_EQ(zarvel_frame_scale(src.get(), &out, -1.0f), -1);
  EXPECT_EQ(zarvel_frame_scale(src.get(), &out, 1e30f), -1);
  EXPECT_EQ(out, nullptr);

  auto grey = make(ZARVEL_PIXFMT_GREY, 8, 8);
  zarvel_frame_t* wrong = grey.get();
  log.clear();
  EXPECT_EQ(zarvel_frame_resize(src.get(), &wrong, {4, 4}), -1);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].text.rfind("[zarvel_frame_resize] Required_frame and given_frame", 0),
            0u);

  // A format the host resampler does not know: one level-4 host message, status 0, the
  // output untouched.
  za::FramePtr deep(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  log.clear();
  auto kept = resized(deep.get(), {3, 2});
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].level, 4u);
  EXPECT_EQ(log.messages()[0].tag, "aux.host");
  EXPECT_EQ(log.messages()[0].text, std::string("Resizing a frame in format [") +
                                        zarvel_frame_pixfmt_to_string(ZARVEL_PIXFMT_GREY16) +
                                        "] is not supported yet!\n");
}

TEST(Scale, TargetIsTheTruncatedProduct) {
  auto src = make(ZARVEL_PIXFMT_RGB24, 101, 51);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_scale(src.get(), &out, 0.5f), 0);
  za::FramePtr owned(out);
  EXPECT_EQ(out->width, 50);
  EXPECT_EQ(out->height, 25);
  EXPECT_EQ(visible_bytes(out), visible_bytes(resized(src.get(), {50, 25}).get()));
}

TEST(Crop, InsideRegionIsAnExactCopy) {
  auto src = make(ZARVEL_PIXFMT_NV12, 16, 12);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_crop(src.get(), &out, {4, 2, 8, 6}), 0);
  za::FramePtr owned(out);
  za::FramePtr view(zarvel_frame_roi(src.get(), {4, 2, 8, 6}));
  EXPECT_EQ(visible_bytes(out), visible_bytes(view.get()));
}

TEST(Crop, OutsideTheFrameGivesBlackAndNeutralChroma) {
  // NV12: the region reaches 4 columns past the right edge and 2 rows above the top.
  auto src = make(ZARVEL_PIXFMT_NV12, 16, 8);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_crop(src.get(), &out, {12, -2, 8, 6}), 0);
  za::FramePtr owned(out);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) {
      const bool inside = y >= 2 && x < 4;
      EXPECT_EQ(out->plane[0][y * out->stride[0] + x],
                inside ? src->plane[0][(y - 2) * src->stride[0] + 12 + x] : 0);
    }
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 8; ++x) {
      const bool inside = y >= 1 && x < 4;
      EXPECT_EQ(out->plane[1][y * out->stride[1] + x],
                inside ? src->plane[1][(y - 1) * src->stride[1] + 12 + x] : 128);
    }

  // RGB24 left of the frame: zeros.
  auto rgb = make(ZARVEL_PIXFMT_RGB24, 5, 4);
  zarvel_frame_t* rgb_out = nullptr;
  ASSERT_EQ(zarvel_frame_crop(rgb.get(), &rgb_out, {-2, 1, 4, 3}), 0);
  za::FramePtr rgb_owned(rgb_out);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 12; ++x)
      EXPECT_EQ(rgb_out->plane[0][y * rgb_out->stride[0] + x],
                x < 6 ? 0 : rgb->plane[0][(y + 1) * rgb->stride[0] + x - 6]);
}

TEST(Crop, CallerOutputKeepsItsPixelsOutsideTheCopy) {
  auto src = make(ZARVEL_PIXFMT_RGB24, 6, 6);
  za::FramePtr given(zarvel_frame_alloc(0, ZARVEL_PIXFMT_RGB24, 4, 4, nullptr, 0));
  std::memset(given->plane[0], 0x5A, static_cast<size_t>(given->stride[0]) * 4);
  zarvel_frame_t* slot = given.get();
  ASSERT_EQ(zarvel_frame_crop(src.get(), &slot, {4, 4, 4, 4}), 0);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 12; ++x)
      EXPECT_EQ(given->plane[0][y * given->stride[0] + x],
                y < 2 && x < 6 ? src->plane[0][(y + 4) * src->stride[0] + 12 + x] : 0x5A);
}

TEST(Crop, RegionWithoutOverlapIsIllegal) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_GREY, 10, 10);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_crop(src.get(), &out, {20, 20, 4, 4}), -1);
  EXPECT_EQ(out, nullptr);  // the output this call allocated is freed
  bool seen = false;
  for (const auto& m : log.messages()) {
    if (m.tag != "aux") continue;
    seen = true;
    EXPECT_EQ(m.level, 4u);
    EXPECT_EQ(m.text,
              "[zarvel_frame_crop] Illegal RoI. Cannot get sub frame of Area2D{20, 20, 4, 4} "
              "from frame of Size2D{ 10, 10 }!\n");
  }
  EXPECT_TRUE(seen);
}

}  // namespace
