// Frames: formats and layouts, reference counting, views, copies across memory types, and
// device memory out of the host's reach.
#include <gtest/gtest.h>
#include <zarvel/frame.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::test::kAllFormats;
using zarvel::test::LogCapture;
using zarvel::test::ReleaseCounter;
using zarvel::test::visible_bytes;

TEST(PixelFormat, SizesNamesAndInferredLayouts) {
  const char* names[] = {"GREY", "RGB24", "BGR24", "NV12", "NV21", "YU12", "GREY16"};
  const int32_t sizes[] = {1, 3, 3, 1, 1, 1, 2};
  for (int i = 0; i < 7; ++i) {
    EXPECT_STREQ(zarvel_frame_pixfmt_to_string(kAllFormats[i]), names[i]);
    EXPECT_EQ(zarvel_frame_pixel_size(kAllFormats[i]), sizes[i]);
  }
  EXPECT_STREQ(zarvel_frame_pixfmt_to_string(0x12345678u), "UNKNOWN");
  EXPECT_EQ(zarvel_frame_pixel_size(0x12345678u), 0);

  const struct {
    uint32_t format;
    int32_t w, h, in[4];
    int64_t size;
    int32_t out[4];
  } cases[] = {
      {ZARVEL_PIXFMT_GREY, 5, 3, {}, 15, {5, 0, 0, 0}},
      {ZARVEL_PIXFMT_RGB24, 3, 2, {}, 18, {9, 0, 0, 0}},
      {ZARVEL_PIXFMT_BGR24, 3, 2, {16, 0, 0, 0}, 32, {16, 0, 0, 0}},
      {ZARVEL_PIXFMT_GREY16, 3, 2, {}, 12, {6, 0, 0, 0}},
      {ZARVEL_PIXFMT_NV12, 4, 2, {}, 12, {4, 4, 0, 0}},
      {ZARVEL_PIXFMT_NV12, 4, 2, {8, 0, 0, 0}, 24, {8, 8, 0, 0}},
      {ZARVEL_PIXFMT_NV21, 6, 4, {0, 10, 0, 0}, 44, {6, 10, 0, 0}},
      {ZARVEL_PIXFMT_YU12, 4, 2, {}, 12, {4, 2, 2, 0}},
      {ZARVEL_PIXFMT_YU12, 4, 2, {8, 0, 0, 0}, 24, {8, 4, 4, 0}},
      {ZARVEL_PIXFMT_YU12, 4, 2, {0, 3, 5, 7}, 16, {4, 3, 5, 0}},
      // Bad: row wider than the stride, odd 4:2:0 sizes, empty, unknown, stride overflow.
      {ZARVEL_PIXFMT_RGB24, 3, 2, {8, 0, 0, 0}, -1, {8, 0, 0, 0}},
      {ZARVEL_PIXFMT_YU12, 4, 2, {4, 1, 0, 0}, -1, {4, 1, 0, 0}},
      {ZARVEL_PIXFMT_NV12, 3, 2, {}, -1, {}},
      {ZARVEL_PIXFMT_YU12, 4, 3, {}, -1, {}},
      {ZARVEL_PIXFMT_GREY, 0, 2, {}, -1, {}},
      {ZARVEL_PIXFMT_GREY, 2, -2, {}, -1, {}},
      {0x12345678u, 2, 2, {}, -1, {}},
      {ZARVEL_PIXFMT_RGB24, 1 << 30, 1, {}, -1, {}},
  };
  // Each valid layout allocates as inferred: plane 0 64-byte aligned, default frames tight.
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << zarvel_frame_pixfmt_to_string(c.format) << " " << c.w << "x"
                                    << c.h << " stride " << c.in[0] << "," << c.in[1]);
    int32_t strides[4] = {c.in[0], c.in[1], c.in[2], c.in[3]};
    EXPECT_EQ(zarvel_frame_inferred_size(c.format, c.w, c.h, strides), c.size);
    EXPECT_EQ(std::vector<int32_t>(strides, strides + 4), std::vector<int32_t>(c.out, c.out + 4));
    if (c.size < 0) continue;
    zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, c.format, c.w, c.h, c.in, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(f->plane[0]) % 64, 0u);
    uint64_t planes = 0;
    while (planes < 4 && zarvel::test::plane_rows(c.format, planes, c.w, c.h).first != 0) ++planes;
    EXPECT_EQ(f->plane_count, planes);
    EXPECT_EQ(std::vector<int32_t>(f->stride, f->stride + 4),
              std::vector<int32_t>(c.out, c.out + 4));
    EXPECT_EQ(zarvel_buffer_size(f->buffer), c.size);
    EXPECT_TRUE(c.in[0] != 0 || c.in[1] != 0 || zarvel_frame_is_contiguous(f));
    zarvel_frame_free(&f);
    EXPECT_EQ(f, nullptr);
  }
  EXPECT_EQ(zarvel_frame_inferred_size(ZARVEL_PIXFMT_NV12, 4, 2, nullptr), 12);
}

TEST(FrameAlloc, PaddedPlanesMetadataAndBadArguments) {
  const int32_t padded[4] = {12, 0, 7, 0};
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_YU12, 8, 4, padded, 77);
  ASSERT_NE(f, nullptr);
  EXPECT_TRUE(f->meta_word0 == 0u && f->meta_word1 == 77u && f->extra == nullptr);
  EXPECT_EQ(std::vector<int32_t>(f->stride, f->stride + 4), (std::vector<int32_t>{12, 6, 7, 0}));
  EXPECT_EQ(f->plane[2], f->plane[1] + 6 * 2);
  EXPECT_FALSE(zarvel_frame_is_contiguous(f));
  zarvel_frame_free(&f);
  // The frame library reports a refused allocation under its own tag. (The bad-input sweep
  // covers bad sizes, strides and memory types.)
  LogCapture log;
  EXPECT_EQ(zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 5, 4, nullptr, 0), nullptr);
  const auto m = log.messages();
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(m[0].level == ZARVEL_LOG_FAILURE && m[0].tag == "zarvel" && m[0].tag_padded);
  EXPECT_EQ(
      zarvel_frame_make(0, ZARVEL_PIXFMT_GREY, nullptr, 2, 2, nullptr, nullptr, nullptr, nullptr),
      nullptr);
  zarvel_frame_free(nullptr);
  zarvel_frame_free(&f);
  EXPECT_TRUE(zarvel_frame_ref(nullptr) == nullptr && zarvel_frame_duplicate(nullptr) == nullptr);
  EXPECT_EQ(zarvel_frame_reset(nullptr, 0), ZARVEL_EINVAL);
  EXPECT_FALSE(zarvel_frame_is_contiguous(nullptr));
  EXPECT_EQ(zarvel_frame_mem_type(nullptr), UINT32_MAX);
}

// Release runs exactly once, only after the frame, its references, its views and the
// duplicate's reference of the attachment are all gone; under concurrent ref/free too.
TEST(FrameRefs, ReleaseRunsOnceAfterTheLastHolder) {
  ReleaseCounter pixels, attachment;
  std::vector<uint8_t> memory(4 * 4 * 3);
  uint8_t extra_bytes[8] = {};
  zarvel_frame_t* f = zarvel_frame_make(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, memory.data(), 4, 4,
                                        nullptr, nullptr, &ReleaseCounter::release, &pixels);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->plane[0], memory.data());
  f->extra = zarvel_buffer_make(extra_bytes, 8, 0, &ReleaseCounter::release, &attachment);
  f->meta_word0 = 5;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([f] {
      for (int i = 0; i < 2000; ++i) {
        zarvel_frame_t* r = zarvel_frame_ref(f);
        zarvel_frame_free(&r);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  zarvel_frame_t* ref = zarvel_frame_ref(f);
  zarvel_frame_t* view = zarvel_frame_roi(f, Area2D{1, 1, 2, 2});
  zarvel_frame_t* dup = zarvel_frame_duplicate(f);
  ASSERT_TRUE(ref && view && dup);
  EXPECT_TRUE(ref != f && view->meta_word0 == 5u && dup->meta_word0 == 5u);
  EXPECT_TRUE(dup->extra == f->extra && dup->plane[0] != f->plane[0]);

  zarvel_frame_free(&f);
  zarvel_frame_free(&ref);
  EXPECT_EQ(pixels.calls, 0);
  zarvel_frame_free(&view);
  EXPECT_TRUE(pixels.calls == 1 && attachment.calls == 0);
  zarvel_frame_free(&dup);
  EXPECT_TRUE(pixels.calls == 1 && attachment.calls == 1);
}

TEST(FrameRoi, ViewsSharePixelsAtTheRightOffsets) {
  // NV12 8x4, view at (2,2): its chroma row 0 is parent chroma row 1 from byte 2.
  zarvel_frame_t* nv12 = zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 8, 4, nullptr, 0);
  zarvel_frame_t* v = zarvel_frame_roi(nv12, Area2D{2, 2, 4, 2});
  ASSERT_NE(v, nullptr);
  EXPECT_TRUE(v->width == 4 && v->height == 2);
  v->plane[0][1] = 11;
  v->plane[1][1] = 22;
  EXPECT_EQ(nv12->plane[0][2 * 8 + 3], 11);
  EXPECT_EQ(nv12->plane[1][1 * 8 + 3], 22);
  zarvel_frame_free(&v);
  zarvel_frame_free(&nv12);

  // YU12 8x4 with stride 10, view at (2,2): chroma planes from row 1, byte 1.
  const int32_t strides[4] = {10, 0, 0, 0};
  zarvel_frame_t* yu12 = zarvel_frame_alloc(0, ZARVEL_PIXFMT_YU12, 8, 4, strides, 0);
  v = zarvel_frame_roi(yu12, Area2D{2, 2, 4, 2});
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->plane[0], yu12->plane[0] + 2 * 10 + 2);
  EXPECT_EQ(v->plane[1], yu12->plane[1] + 1 * 5 + 1);
  EXPECT_EQ(v->plane[2], yu12->plane[2] + 1 * 5 + 1);
  zarvel_frame_free(&v);

  // A full-width band of a one-plane frame is contiguous; a narrower region is not.
  zarvel_frame_t* rgb = zarvel_frame_alloc(0, ZARVEL_PIXFMT_RGB24, 5, 5, nullptr, 0);
  zarvel_frame_t* band = zarvel_frame_roi(rgb, Area2D{0, 1, 5, 3});
  zarvel_frame_t* narrow = zarvel_frame_roi(rgb, Area2D{1, 1, 3, 3});
  zarvel_frame_t* nested = zarvel_frame_roi(narrow, Area2D{1, 1, 2, 2});
  ASSERT_TRUE(band && narrow && nested);
  EXPECT_TRUE(zarvel_frame_is_contiguous(band));
  EXPECT_FALSE(zarvel_frame_is_contiguous(narrow));
  EXPECT_EQ(nested->plane[0], rgb->plane[0] + 2 * 15 + 2 * 3);

  LogCapture log;
  const Area2D bad[] = {{-1, 0, 2, 2}, {0, 0, 6, 2},         {4, 0, 2, 1},
                        {0, 4, 1, 2},  {0, 0, 0, 2},         {0, 0, 2, -1},
                        {0, 0, 1, 6},  {INT32_MAX, 0, 2, 2}, {0, INT32_MAX, 1, 1}};
  for (const Area2D& a : bad) EXPECT_EQ(zarvel_frame_roi(rgb, a), nullptr) << a.x << "," << a.y;
  for (const Area2D& a : {Area2D{1, 0, 2, 2}, Area2D{0, 1, 2, 2}, Area2D{0, 0, 2, 3}}) {
    EXPECT_EQ(zarvel_frame_roi(yu12, a), nullptr);  // odd 4:2:0 region
  }
  EXPECT_EQ(zarvel_frame_roi(nullptr, Area2D{0, 0, 1, 1}), nullptr);
  for (zarvel_frame_t* f : {yu12, rgb, band, narrow, nested}) zarvel_frame_free(&f);
}

// Every format, padded host frames through tight, device and view frames and back: every
// visible byte arrives, and nothing around a destination view is touched.
TEST(FrameCopy, RoundTripsAcrossMemoryTypesAndViews) {
  for (uint32_t format : kAllFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    const int32_t padded[4] = {40, 36, 20, 0};
    zarvel_frame_t* src = zarvel_frame_alloc(0, format, 6, 4, padded, 9);
    ASSERT_NE(src, nullptr);
    src->meta_word0 = 3;
    zarvel::test::fill_pattern(src, 1);
    const std::vector<uint8_t> expected = visible_bytes(src);

    zarvel_frame_t *tight = nullptr, *dev = nullptr, *back = nullptr;
    ASSERT_EQ(zarvel_frame_copy(src, &tight), ZARVEL_OK);
    EXPECT_TRUE(zarvel_frame_is_contiguous(tight) && tight->meta_word0 == 3 &&
                tight->meta_word1 == 9);
    ASSERT_EQ(zarvel_frame_upload(tight, &dev), ZARVEL_OK);
    EXPECT_TRUE(zarvel_frame_mem_type(dev) == ZARVEL_MEM_DEVICE && dev->meta_word1 == 9);

    // Into views of larger frames, device and host, each around-view byte staying 0xEE.
    for (uint32_t mem : {ZARVEL_MEM_DEVICE, ZARVEL_MEM_HOST}) {
      zarvel_frame_t* big = zarvel_frame_alloc(mem, format, 10, 8, nullptr, 0);
      zarvel_frame_t* view = zarvel_frame_roi(big, Area2D{2, 4, 6, 4});
      ASSERT_NE(view, nullptr);
      ASSERT_EQ(zarvel_frame_reset(big, 0xEE), ZARVEL_OK);
      ASSERT_EQ(zarvel_frame_copy(mem == ZARVEL_MEM_HOST ? tight : dev, &view), ZARVEL_OK);
      zarvel_frame_reset(src, 0);
      ASSERT_EQ(zarvel_frame_download(view, &src), ZARVEL_OK);  // into the padded source
      EXPECT_EQ(visible_bytes(src), expected);
      ASSERT_EQ(zarvel_frame_reset(view, 0xEE), ZARVEL_OK);
      ASSERT_EQ(zarvel_frame_download(big, &back), ZARVEL_OK);
      EXPECT_EQ(visible_bytes(back), std::vector<uint8_t>(visible_bytes(back).size(), 0xEE));
      zarvel_frame_free(&back);
      zarvel_frame_free(&view);
      zarvel_frame_free(&big);
    }
    zarvel_frame_t* dup = zarvel_frame_duplicate(dev);
    ASSERT_EQ(zarvel_frame_reset(dev, 0), ZARVEL_OK);  // the duplicate has its own pixels
    ASSERT_EQ(zarvel_frame_download(dup, &back), ZARVEL_OK);
    EXPECT_EQ(visible_bytes(back), expected);
    for (zarvel_frame_t* f : {src, tight, dev, dup, back}) zarvel_frame_free(&f);
  }
}

TEST(FrameCopy, RejectsMismatchedDestinationsAndResetsVisibleBytesOnly) {
  LogCapture log;
  zarvel_frame_t* src = zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 4, 4, nullptr, 0);
  zarvel_frame_t* mismatched[] = {zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 4, 2, nullptr, 0),
                                  zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 2, 4, nullptr, 0),
                                  zarvel_frame_alloc(1, ZARVEL_PIXFMT_NV21, 4, 4, nullptr, 0)};
  for (zarvel_frame_t* dst : mismatched) {
    zarvel_frame_t* given = dst;
    EXPECT_EQ(zarvel_frame_copy(src, &given), ZARVEL_EINVAL);
    EXPECT_EQ(zarvel_frame_download(src, &given), ZARVEL_EINVAL);
    EXPECT_EQ(zarvel_frame_upload(src, &given), ZARVEL_EINVAL);
    EXPECT_EQ(given, dst);
    zarvel_frame_free(&given);
  }
  zarvel_frame_t* out = nullptr;
  EXPECT_TRUE(zarvel_frame_copy(src, nullptr) == ZARVEL_EINVAL &&
              zarvel_frame_copy(nullptr, &out) == ZARVEL_EINVAL && out == nullptr);
  zarvel_frame_free(&src);

  const int32_t padded[4] = {8, 0, 0, 0};
  std::vector<uint8_t> memory(8 * 2, 0x55);
  zarvel_frame_t* f = zarvel_frame_make(0, ZARVEL_PIXFMT_GREY16, memory.data(), 3, 2, padded,
                                        nullptr, nullptr, nullptr);
  ASSERT_EQ(zarvel_frame_reset(f, 0x1A2), ZARVEL_OK);
  const std::vector<uint8_t> expected = {0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0x55, 0x55,
                                         0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0x55, 0x55};
  EXPECT_EQ(memory, expected);
  zarvel_frame_free(&f);
}

// Device memory is out of the host's reach except through the library's transfers.
void write_byte(void* address) { *static_cast<volatile uint8_t*>(address) = 1; }
uint8_t read_byte(const void* address) { return *static_cast<const volatile uint8_t*>(address); }

TEST(DeviceMemoryDeathTest, HostAccessToDevicePointersFaults) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_DEVICE, ZARVEL_PIXFMT_NV12, 8, 8, nullptr, 0);
  zarvel_frame_t* view = zarvel_frame_roi(f, Area2D{2, 2, 4, 4});
  zarvel_tensor_t* t = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 1, 2, 2);
  ASSERT_TRUE(f && view && t);
  EXPECT_DEATH(write_byte(f->plane[0]), "");
  EXPECT_DEATH(read_byte(view->plane[1]), "");
  EXPECT_DEATH(read_byte(zarvel_tensor_raw_pointer(t)), "");
  zarvel_tensor_free(&t);
  zarvel_frame_free(&view);
  zarvel_frame_free(&f);
}

TEST(DeviceMemory, FramesOverDeviceAllocations) {
  LogCapture log;
  zarvel_buffer_t* block = zarvel_buffer_alloc(256, ZARVEL_MEM_DEVICE);
  auto* base = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(block));
  ReleaseCounter counter;
  zarvel_frame_t* f = zarvel_frame_make(1, ZARVEL_PIXFMT_GREY, base + 64, 8, 8, nullptr, nullptr,
                                        &ReleaseCounter::release, &counter);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(zarvel_frame_reset(f, 9), ZARVEL_OK);
  std::vector<uint8_t> bytes(256, 0xFF);
  zarvel_buffer_t* host = zarvel_buffer_make(bytes.data(), 256, 0, nullptr, nullptr);
  ASSERT_EQ(zarvel_buffer_copy(block, host), ZARVEL_OK);
  std::vector<uint8_t> want(256, 0);
  std::fill(want.begin() + 64, want.begin() + 128, 9);  // exactly the frame's 8 x 8 bytes
  EXPECT_EQ(bytes, want);
  zarvel_frame_free(&f);
  EXPECT_EQ(counter.calls, 1);

  // Device frames lie wholly inside a device allocation; host frames never inside one.
  for (auto [mem, pixels] :
       {std::pair{1u, base + 200}, std::pair{1u, bytes.data()}, std::pair{0u, base}}) {
    EXPECT_EQ(zarvel_frame_make(mem, ZARVEL_PIXFMT_GREY, pixels, 8, 8, nullptr, nullptr, nullptr,
                                nullptr),
              nullptr);
  }
  zarvel_buffer_free(&host);
  zarvel_buffer_free(&block);
}

}  // namespace
