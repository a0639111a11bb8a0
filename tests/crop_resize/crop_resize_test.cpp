// zarvel_frame_crop, zarvel_frame_resize and zarvel_frame_scale through the public entry
// points: plane handling per format, background fill, statuses and messages.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <string>
#include <vector>

#include "frame_test_support.h"
#include "op_test_support.h"

namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

za::FramePtr make(uint32_t format, int w, int h, int seed = 3) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  fill_pattern(f.get(), seed);
  return f;
}

// A GREY frame over `bytes` x `h` of plane `i` of a host frame, to resize one plane alone.
za::FramePtr plane_as_grey(zarvel_frame_t* f, int i, int bytes, int h) {
  const int32_t strides[4] = {f->stride[i], 0, 0, 0};
  return za::FramePtr(zarvel_frame_make(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, f->plane[i], bytes, h,
                                        strides, nullptr, nullptr, nullptr));
}

za::FramePtr resized(zarvel_frame_t* src, Size2D size) {
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_resize(src, &out, size), 0);
  return za::FramePtr(out);
}

// Channels are independent: the interleaved UV plane resizes as U and V on their own, NV21
// gives the NV12 bytes, and each YU12 plane resizes as a GREY plane.
TEST(Resize, ChromaPairsMoveTogetherAndPlanesResizeAlone) {
  auto nv12 = make(ZARVEL_PIXFMT_NV12, 38, 26);
  auto out = resized(nv12.get(), {22, 30});
  EXPECT_EQ(visible_bytes(plane_as_grey(out.get(), 0, 22, 30).get()),
            visible_bytes(resized(plane_as_grey(nv12.get(), 0, 38, 26).get(), {22, 30}).get()));
  for (int k = 0; k < 2; ++k) {
    za::FramePtr uv(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 19, 13, nullptr, 0));
    for (int y = 0; y < 13; ++y)
      for (int x = 0; x < 19; ++x)
        uv->plane[0][y * uv->stride[0] + x] = nv12->plane[1][y * nv12->stride[1] + 2 * x + k];
    auto uv2 = resized(uv.get(), {11, 15});
    for (int y = 0; y < 15; ++y)
      for (int x = 0; x < 11; ++x)
        ASSERT_EQ(out->plane[1][y * out->stride[1] + 2 * x + k],
                  uv2->plane[0][y * uv2->stride[0] + x]);
  }
  nv12->format = ZARVEL_PIXFMT_NV21;
  auto nv21 = resized(nv12.get(), {22, 30});
  EXPECT_EQ(nv21->format, ZARVEL_PIXFMT_NV21);
  EXPECT_EQ(visible_bytes(nv21.get()), visible_bytes(out.get()));

  auto yu12 = make(ZARVEL_PIXFMT_YU12, 40, 20);
  auto yout = resized(yu12.get(), {16, 36});
  for (int i = 1; i <= 2; ++i) {
    EXPECT_EQ(visible_bytes(plane_as_grey(yout.get(), i, 8, 18).get()),
              visible_bytes(resized(plane_as_grey(yu12.get(), i, 20, 10).get(), {8, 18}).get()));
  }
}

TEST(Resize, DeviceFramesGiveTheHostBytes) {
  for (uint32_t format : {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_NV12}) {
    auto host = make(format, 30, 18);
    auto dev = to_device(host.get());
    dev->meta_word0 = 9;
    LogCapture log;
    auto dev_out = resized(dev.get(), {14, 40});
    expect_device_fallback(log, "zarvel_frame_resize");
    ASSERT_EQ(zarvel_frame_mem_type(dev_out.get()), ZARVEL_MEM_DEVICE);
    EXPECT_EQ(dev_out->meta_word0, 9u);
    EXPECT_EQ(visible_bytes(to_host(dev_out.get()).get()),
              visible_bytes(resized(host.get(), {14, 40}).get()));
  }
}

TEST(Resize, LargerGivenOutputReceivesTheTopLeftCorner) {
  auto src = make(ZARVEL_PIXFMT_GREY, 20, 10);
  za::FramePtr given(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 9, 8, nullptr, 0));
  fill_planes(given.get(), 0xEE);
  zarvel_frame_t* slot = given.get();
  ASSERT_EQ(zarvel_frame_resize(src.get(), &slot, {7, 5}), 0);
  EXPECT_EQ(visible_bytes(plane_as_grey(given.get(), 0, 7, 5).get()),
            visible_bytes(resized(src.get(), {7, 5}).get()));
  EXPECT_EQ(given->plane[0][7], 0xEE);
  EXPECT_EQ(given->plane[0][9 * 5], 0xEE);
}

TEST(Resize, RatioOneCopiesWithANote) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_YU12, 12, 8);
  EXPECT_EQ(visible_bytes(resized(src.get(), {12, 8}).get()), visible_bytes(src.get()));
  log.expect({{0, "aux",
               "[zarvel_frame_resize] Scale ratio is 1, degrade to zarvel_frame_copy to speed "
               "up.\n"}});
}

TEST(Resize, FailuresAndTheUnsupportedFormat) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_RGB24, 8, 8);
  zarvel_frame_t* out = nullptr;
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

  // A format the host resampler does not know: one host message, status 0.
  za::FramePtr deep(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  log.clear();
  resized(deep.get(), {3, 2});
  log.expect({{4, "aux.host", "Resizing a frame in format [GREY16] is not supported yet!\n"}});
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

// Crops against a per-plane model: inside the source, its bytes; outside, black luma and
// colour, neutral chroma, or (into a given output) the given bytes left as they were.
TEST(Crop, RegionsInsideAndOutsideTheFrame) {
  struct Case {
    uint32_t format;
    int w, h;
    Area2D area;
    bool given;
  } cases[] = {{ZARVEL_PIXFMT_NV12, 16, 12, {4, 2, 8, 6}, false},
               {ZARVEL_PIXFMT_NV12, 16, 8, {12, -2, 8, 6}, false},
               {ZARVEL_PIXFMT_YU12, 16, 8, {-4, 4, 8, 6}, false},
               {ZARVEL_PIXFMT_RGB24, 5, 4, {-2, 1, 4, 3}, false},
               {ZARVEL_PIXFMT_RGB24, 6, 6, {4, 4, 4, 4}, true}};
  for (const Case& c : cases) {
    auto src = make(c.format, c.w, c.h);
    za::FramePtr given(zarvel_frame_alloc(0, c.format, c.area.width, c.area.height, nullptr, 0));
    fill_planes(given.get(), 0x5A);
    zarvel_frame_t* out = c.given ? given.get() : nullptr;
    ASSERT_EQ(zarvel_frame_crop(src.get(), &out, c.area), 0);
    za::FramePtr owned(c.given ? nullptr : out);
    const auto planes = planes_of(c.format);
    for (size_t i = 0; i < planes.size(); ++i) {
      const auto [p, d] = planes[i];
      const uint8_t background = c.given ? 0x5A : i > 0 ? 128 : 0;
      for (int y = 0; y < c.area.height / d; ++y) {
        for (int x = 0; x < c.area.width / d * p; ++x) {
          const int sy = y + c.area.y / d, sx = x + c.area.x / d * p;
          const bool inside = sy >= 0 && sy < c.h / d && sx >= 0 && sx < c.w / d * p;
          ASSERT_EQ(out->plane[i][y * out->stride[i] + x],
                    inside ? src->plane[i][sy * src->stride[i] + sx] : background)
              << c.format << " " << c.area.x << "," << c.area.y << " plane " << i << " at " << x
              << "," << y;
        }
      }
    }
  }
}

TEST(Crop, RegionWithoutOverlapIsIllegal) {
  LogCapture log;
  auto src = make(ZARVEL_PIXFMT_GREY, 10, 10);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(zarvel_frame_crop(src.get(), &out, {20, 20, 4, 4}), -1);
  EXPECT_EQ(out, nullptr);  // the output this call allocated is freed
  log.expect({{4, "aux",
               "[zarvel_frame_crop] Illegal RoI. Cannot get sub frame of Area2D{20, 20, 4, 4} "
               "from frame of Size2D{ 10, 10 }!\n"}},
             "aux");
}

}  // namespace
