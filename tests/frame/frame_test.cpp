// The frame library: formats and layouts, reference counting, views, copies across memory
// types, buffers and tensors, and device memory out of the host's reach. (Null and size
// refusals are in the bad-input sweep.)
#include <gtest/gtest.h>
#include <zarvel/frame.h>

#include <array>
#include <thread>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::test::kAllFormats;
using zarvel::test::LogCapture;
using zarvel::test::ReleaseCounter;
using zarvel::test::visible_bytes;

TEST(PixelFormat, SizesNamesAndInferredLayouts) {
  std::string names;  // each format's name and pixel size, then an unknown one's
  for (uint32_t f : {kAllFormats[0], kAllFormats[1], kAllFormats[2], kAllFormats[3], kAllFormats[4],
                     kAllFormats[5], kAllFormats[6], 0x12345678u})
    names += std::string(zarvel_frame_pixfmt_to_string(f)) +
             std::to_string(zarvel_frame_pixel_size(f)) + " ";
  EXPECT_EQ(names, "GREY1 RGB243 BGR243 NV121 NV211 YU121 GREY162 UNKNOWN0 ");
  const struct {
    uint32_t format;
    int32_t w, h;
    std::array<int32_t, 4> in;
    int64_t size;
    std::array<int32_t, 4> out;
  } cases[] = {
      {ZARVEL_PIXFMT_RGB24, 3, 2, {}, 18, {9, 0, 0, 0}},
      {ZARVEL_PIXFMT_NV12, 4, 2, {8, 0, 0, 0}, 24, {8, 8, 0, 0}},
      {ZARVEL_PIXFMT_YU12, 4, 2, {0, 3, 5, 7}, 16, {4, 3, 5, 0}},
      {ZARVEL_PIXFMT_YU12, 8, 4, {12, 0, 7, 0}, 74, {12, 6, 7, 0}},
      // Bad: a row wider than its stride, odd 4:2:0 sizes, a row too wide for int32.
      {ZARVEL_PIXFMT_RGB24, 3, 2, {8, 0, 0, 0}, -1, {8, 0, 0, 0}},
      {ZARVEL_PIXFMT_NV12, 3, 2, {}, -1, {}},
      {ZARVEL_PIXFMT_RGB24, 1 << 30, 1, {}, -1, {}},
  };
  // Each valid layout allocates as inferred: plane 0 64-byte aligned, planes back to back,
  // default frames tight, the meta word kept.
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    std::array<int32_t, 4> strides = c.in;
    EXPECT_EQ(zarvel_frame_inferred_size(c.format, c.w, c.h, strides.data()), c.size);
    EXPECT_EQ(strides, c.out);
    if (c.size < 0) continue;
    zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, c.format, c.w, c.h, c.in.data(), 77);
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(f->meta_word0 == 0u && f->meta_word1 == 77u && f->extra == nullptr &&
                reinterpret_cast<uintptr_t>(f->plane[0]) % 64 == 0 &&
                zarvel_buffer_size(f->buffer) == c.size &&
                std::equal(f->stride, f->stride + 4, c.out.begin()) &&
                zarvel_frame_is_contiguous(f) == (c.in[0] + c.in[1] + c.in[2] == 0));
    uint64_t n = 1;
    for (; zarvel::test::plane_rows(c.format, n, c.w, c.h).first != 0; ++n) {
      const int64_t rows = zarvel::test::plane_rows(c.format, n - 1, c.w, c.h).second;
      EXPECT_EQ(f->plane[n], f->plane[n - 1] + f->stride[n - 1] * rows);
    }
    EXPECT_EQ(f->plane_count, n);
    zarvel_frame_free(&f);
  }
}

// Release runs exactly once, only after the frame, its references, its views and the
// duplicate's reference of the attachment are all gone; under concurrent ref/free too.
TEST(FrameRefs, ReleaseRunsOnceAfterTheLastHolder) {
  ReleaseCounter pixels, attachment;
  std::vector<uint8_t> memory(4 * 4 * 3);
  uint8_t extra_bytes[8] = {};
  zarvel_frame_t* f = zarvel_frame_make(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, memory.data(), 4, 4,
                                        nullptr, nullptr, &ReleaseCounter::release, &pixels);
  ASSERT_TRUE(f && f->plane[0] == memory.data());
  f->extra = zarvel_buffer_make(extra_bytes, 8, 0, &ReleaseCounter::release, &attachment);
  f->meta_word0 = 5;
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([f] {
      for (int i = 0; i < 2000; ++i) {
        zarvel_frame_t* r = zarvel_frame_ref(f);
        zarvel_frame_free(&r);
      }
    });
  threads.clear();  // joins them
  zarvel_frame_t* ref = zarvel_frame_ref(f);
  zarvel_frame_t* view = zarvel_frame_roi(f, Area2D{1, 1, 2, 2});
  zarvel_frame_t* dup = zarvel_frame_duplicate(f);
  ASSERT_TRUE(ref && view && dup);
  EXPECT_TRUE(ref != f && view->meta_word0 == 5u && dup->meta_word0 == 5u);
  EXPECT_TRUE(dup->extra == f->extra && dup->plane[0] != f->plane[0]);
  zarvel_frame_free(&f), zarvel_frame_free(&ref);
  EXPECT_EQ(pixels.calls, 0);
  zarvel_frame_free(&view);
  EXPECT_TRUE(pixels.calls == 1 && attachment.calls == 0);
  zarvel_frame_free(&dup);
  EXPECT_TRUE(pixels.calls == 1 && attachment.calls == 1);
}

TEST(FrameRoi, ViewsSharePixelsAtTheRightOffsets) {
  // A view at (2,2) of padded 4:2:0 frames: chroma from row 1, at byte 2 of NV12's U,V pairs
  // and byte 1 of YU12's half-width planes.
  const int32_t padded[4] = {10, 0, 0, 0};
  for (uint32_t format : {ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_YU12}) {
    zarvel_frame_t* f = zarvel_frame_alloc(0, format, 8, 4, padded, 0);
    zarvel_frame_t* v = zarvel_frame_roi(f, Area2D{2, 2, 4, 2});
    ASSERT_TRUE(v && v->width == 4 && v->height == 2 && v->plane_count == f->plane_count &&
                v->plane[0] == f->plane[0] + 2 * 10 + 2);
    for (uint64_t i = 1; i < f->plane_count; ++i)
      EXPECT_EQ(v->plane[i], f->plane[i] + f->stride[i] + (format == ZARVEL_PIXFMT_NV12 ? 2 : 1));
    for (const Area2D a : {Area2D{1, 0, 2, 2}, Area2D{0, 1, 2, 2}, Area2D{0, 0, 2, 3}})
      EXPECT_EQ(zarvel_frame_roi(f, a), nullptr);  // odd 4:2:0 region
    for (zarvel_frame_t* frame : {v, f}) zarvel_frame_free(&frame);
  }
  // A full-width band of a one-plane frame is contiguous; a narrower region is not.
  zarvel_frame_t* rgb = zarvel_frame_alloc(0, ZARVEL_PIXFMT_RGB24, 5, 5, nullptr, 0);
  zarvel_frame_t* band = zarvel_frame_roi(rgb, Area2D{0, 1, 5, 3});
  zarvel_frame_t* narrow = zarvel_frame_roi(rgb, Area2D{1, 1, 3, 3});
  zarvel_frame_t* nested = zarvel_frame_roi(narrow, Area2D{1, 1, 2, 2});
  ASSERT_TRUE(band && narrow && nested);
  EXPECT_TRUE(zarvel_frame_is_contiguous(band) && !zarvel_frame_is_contiguous(narrow));
  EXPECT_EQ(nested->plane[0], rgb->plane[0] + 2 * 15 + 2 * 3);
  LogCapture log;
  for (const Area2D a :
       {Area2D{-1, 0, 2, 2}, Area2D{4, 0, 2, 1}, Area2D{0, 4, 1, 2}, Area2D{0, 0, 0, 2},
        Area2D{0, 0, 2, -1}, Area2D{INT32_MAX, 0, 2, 2}, Area2D{0, INT32_MAX, 1, 1}})
    EXPECT_EQ(zarvel_frame_roi(rgb, a), nullptr) << a.x << "," << a.y;
  for (zarvel_frame_t* f : {rgb, band, narrow, nested}) zarvel_frame_free(&f);
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

    zarvel_frame_t *tight = nullptr, *dev = nullptr;
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
      ASSERT_EQ(zarvel_frame_reset(big, 0x1EE), ZARVEL_OK);  // a reset writes the low byte
      ASSERT_EQ(zarvel_frame_copy(mem == ZARVEL_MEM_HOST ? tight : dev, &view), ZARVEL_OK);
      zarvel_frame_reset(src, 0);
      ASSERT_EQ(zarvel_frame_download(view, &src), ZARVEL_OK);  // into the padded source
      EXPECT_EQ(visible_bytes(src), expected);
      ASSERT_EQ(zarvel_frame_reset(view, 0xEE), ZARVEL_OK);
      zarvel_frame_t* back = nullptr;
      ASSERT_EQ(zarvel_frame_download(big, &back), ZARVEL_OK);
      EXPECT_EQ(visible_bytes(back), std::vector<uint8_t>(visible_bytes(back).size(), 0xEE));
      for (zarvel_frame_t* f : {back, view, big}) zarvel_frame_free(&f);
    }
    for (zarvel_frame_t* f : {src, tight, dev}) zarvel_frame_free(&f);
  }
}

// A destination smaller or of another format is refused and kept.
TEST(FrameCopy, RejectsMismatchedDestinations) {
  LogCapture log;
  zarvel_frame_t* src = zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 4, 4, nullptr, 0);
  for (zarvel_frame_t* dst : {zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 4, 2, nullptr, 0),
                              zarvel_frame_alloc(0, ZARVEL_PIXFMT_NV12, 2, 4, nullptr, 0),
                              zarvel_frame_alloc(1, ZARVEL_PIXFMT_NV21, 4, 4, nullptr, 0)}) {
    zarvel_frame_t* given = dst;
    for (const auto& transfer : {zarvel_frame_copy, zarvel_frame_download, zarvel_frame_upload})
      EXPECT_TRUE(transfer(src, &given) == ZARVEL_EINVAL && given == dst);
    zarvel_frame_free(&given);
  }
  zarvel_frame_free(&src);
}

// The bytes of a buffer in either memory type, read through a copy into host memory.
std::vector<uint8_t> read_back(const zarvel_buffer_t* b) {
  std::vector<uint8_t> bytes(zarvel_buffer_size(b));
  zarvel_buffer_t* host = zarvel_buffer_make(bytes.data(), bytes.size(), 0, nullptr, nullptr);
  EXPECT_EQ(zarvel_buffer_copy(b, host), ZARVEL_OK);
  zarvel_buffer_free(&host);
  return bytes;
}
void write_byte(void* address) { *static_cast<volatile uint8_t*>(address) = 1; }
uint8_t read_byte(const void* address) { return *static_cast<const volatile uint8_t*>(address); }

// Device memory is out of the host's reach except through the library's transfers. A frame
// made over a device allocation writes exactly its own bytes there; device frames lie wholly
// inside a device allocation, host frames never inside one.
TEST(DeviceMemoryDeathTest, DevicePixelsAreReachedOnlyThroughTransfers) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  LogCapture log;
  zarvel_buffer_t* block = zarvel_buffer_alloc(256, ZARVEL_MEM_DEVICE);
  auto* base = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(block));
  ReleaseCounter counter;
  zarvel_frame_t* f = zarvel_frame_make(1, ZARVEL_PIXFMT_NV12, base + 64, 8, 8, nullptr, nullptr,
                                        &ReleaseCounter::release, &counter);
  zarvel_frame_t* view = zarvel_frame_roi(f, Area2D{2, 2, 4, 4});
  zarvel_tensor_t* t = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 1, 2, 2);
  ASSERT_TRUE(f && view && t);
  EXPECT_DEATH(write_byte(f->plane[0]), "");
  EXPECT_DEATH(read_byte(view->plane[1]), "");
  EXPECT_DEATH(read_byte(zarvel_tensor_raw_pointer(t)), "");
  ASSERT_EQ(zarvel_frame_reset(f, 9), ZARVEL_OK);
  std::vector<uint8_t> want(256, 0);
  std::fill(want.begin() + 64, want.begin() + 64 + 96, 9);  // exactly the frame's 8 x 12 bytes
  EXPECT_EQ(read_back(block), want);
  for (zarvel_frame_t* frame : {f, view}) zarvel_frame_free(&frame);
  zarvel_tensor_free(&t);
  EXPECT_EQ(counter.calls, 1);
  for (auto [mem, pixels] :
       {std::pair{1u, base + 200}, std::pair{1u, want.data()}, std::pair{0u, base}})
    EXPECT_FALSE(zarvel_frame_make(mem, 0, pixels, 8, 8, nullptr, nullptr, nullptr, nullptr));
  zarvel_buffer_free(&block);
}

// Set, copy and resize in both memory types; adopted memory is released once, by the last
// reference or by growing.
TEST(Buffer, SetCopyResizeAndAdoptedMemory) {
  LogCapture log;
  uint8_t pattern[60];
  for (int i = 0; i < 60; ++i) pattern[i] = static_cast<uint8_t>(i + 1);
  for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
    SCOPED_TRACE(mem);
    zarvel_buffer_t* b = zarvel_buffer_alloc(100, mem);
    ASSERT_TRUE(b && zarvel_buffer_mem_type(b) == mem &&
                reinterpret_cast<uintptr_t>(zarvel_buffer_raw_pointer(b)) % 64 == 0);
    EXPECT_EQ(read_back(b), std::vector<uint8_t>(100, 0));
    ASSERT_EQ(zarvel_buffer_set(b, 0x107), ZARVEL_OK);
    zarvel_buffer_t* src = zarvel_buffer_make(pattern, 60, 0, nullptr, nullptr);
    ASSERT_EQ(zarvel_buffer_copy(src, b), ZARVEL_OK);
    std::vector<uint8_t> expected(pattern, pattern + 60);
    expected.resize(100, 7);
    EXPECT_EQ(read_back(b), expected);
    // Shrinking then growing keeps the leading bytes; the grown tail reads zero.
    ASSERT_TRUE(zarvel_buffer_resize(b, 30) == ZARVEL_OK && zarvel_buffer_resize(b, 5000) == 0);
    expected.resize(30), expected.resize(5000, 0);
    EXPECT_EQ(read_back(b), expected);
    EXPECT_EQ(zarvel_buffer_copy(b, src), ZARVEL_EINVAL);  // 5000 bytes do not fit in 60
    for (zarvel_buffer_t* buffer : {src, b}) zarvel_buffer_free(&buffer);
  }
  ReleaseCounter counter;
  zarvel_buffer_t* b = zarvel_buffer_make(pattern, 16, 0, &ReleaseCounter::release, &counter);
  zarvel_buffer_t* r = zarvel_buffer_ref(b);
  zarvel_buffer_free(&b);
  EXPECT_EQ(b, nullptr);
  ASSERT_EQ(zarvel_buffer_resize(r, 8), ZARVEL_OK);  // shrinking stays in place
  EXPECT_TRUE(zarvel_buffer_raw_pointer(r) == pattern && counter.calls == 0);
  ASSERT_EQ(zarvel_buffer_resize(r, 32), ZARVEL_OK);  // growing leaves the caller's memory
  EXPECT_EQ(counter.calls, 1);
  pattern[0] = 99;
  EXPECT_TRUE(read_back(r)[0] == 1 && read_back(r)[3] == 4);
  zarvel_buffer_free(&r);
}

// Offsets one past the end of an axis are allowed, further ones not. A host view (which keeps
// the data alive) goes into a device view (offsets on both sides), then through a hand-made
// transposed device view, whose W is not dense, and back to the host.
TEST(Tensor, ViewsAndStridedCopiesAcrossMemoryTypes) {
  zarvel_tensor_t* src = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 2, 3, 4, 5);
  ASSERT_NE(src, nullptr);
  auto* s = static_cast<int8_t*>(zarvel_tensor_raw_pointer(src));
  std::vector<int8_t> values(120);
  for (int i = 0; i < 120; ++i) s[i] = values[i] = static_cast<int8_t>(i - 60);
  EXPECT_TRUE(zarvel_tensor_calc_offset(src, 2, 3, 4, 5) == 205 &&
              zarvel_tensor_calc_offset(src, 3, 0, 0, 0) == -1 &&
              zarvel_tensor_data_at(src, 1, 2, 3, 4) == s + 119);
  const int32_t start[4] = {1, 0, 1, 2}, corner[4] = {0, 0, 2, 2}, shape[4] = {1, 3, 2, 3};
  zarvel_tensor_t* view = zarvel_tensor_roi(src, start, shape);
  ASSERT_NE(view, nullptr);
  zarvel_tensor_free(&src);
  zarvel_tensor_t* dev_big = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_S8, 1, 3, 4, 5);
  zarvel_tensor_t* dev_view = zarvel_tensor_roi(dev_big, corner, shape);
  zarvel_tensor_t* dense = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_S8, 1, 3, 3, 2);
  zarvel_tensor_t* back = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 3, 2);
  ASSERT_TRUE(dev_view && dense && back);
  ASSERT_EQ(zarvel_tensor_copy(view, dev_view), ZARVEL_OK);
  zarvel_tensor_t transposed = *dense;
  std::swap(transposed.shape[2], transposed.shape[3]);
  std::swap(transposed.stride[2], transposed.stride[3]);
  ASSERT_EQ(zarvel_tensor_copy(dev_view, &transposed), ZARVEL_OK);
  ASSERT_EQ(zarvel_tensor_copy(dense, back), ZARVEL_OK);
  const auto* b = static_cast<const int8_t*>(zarvel_tensor_raw_pointer(back));
  for (int c = 0; c < 3; ++c)
    for (int h = 0; h < 2; ++h)
      for (int w = 0; w < 3; ++w)
        EXPECT_EQ(b[c * 6 + w * 2 + h], values[60 + c * 20 + (h + 1) * 5 + (w + 2)]) << c << h << w;
  // A view outside the tensor, and a copy to another shape, are refused.
  LogCapture log;
  const int32_t outside[4] = {0, 1, 0, 0};
  EXPECT_TRUE(zarvel_tensor_roi(view, outside, shape) == nullptr &&
              zarvel_tensor_copy(view, back) == ZARVEL_EINVAL);
  for (zarvel_tensor_t* t : {view, dev_big, dev_view, dense, back}) zarvel_tensor_free(&t);
}

}  // namespace
