// Buffers and tensors in host and device memory.
#include <gtest/gtest.h>
#include <zarvel/frame.h>

#include <cstring>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::test::LogCapture;
using zarvel::test::ReleaseCounter;

std::vector<uint8_t> read_back(const zarvel_buffer_t* b) {
  zarvel_buffer_t* host = zarvel_buffer_alloc(zarvel_buffer_size(b), ZARVEL_MEM_HOST);
  EXPECT_EQ(zarvel_buffer_copy(b, host), ZARVEL_OK);
  const auto* data = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(host));
  std::vector<uint8_t> bytes(data, data + zarvel_buffer_size(host));
  zarvel_buffer_free(&host);
  return bytes;
}

TEST(Buffer, AllocSetCopyResizeAcrossMemoryTypes) {
  for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
    SCOPED_TRACE(mem);
    zarvel_buffer_t* b = zarvel_buffer_alloc(100, mem);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(zarvel_buffer_mem_type(b), mem);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(zarvel_buffer_raw_pointer(b)) % 64, 0u);
    EXPECT_EQ(read_back(b), std::vector<uint8_t>(100, 0));
    ASSERT_EQ(zarvel_buffer_set(b, 0x107), ZARVEL_OK);
    uint8_t pattern[60];
    for (int i = 0; i < 60; ++i) pattern[i] = static_cast<uint8_t>(i + 1);
    zarvel_buffer_t* src = zarvel_buffer_make(pattern, 60, 0, nullptr, nullptr);
    ASSERT_EQ(zarvel_buffer_copy(src, b), ZARVEL_OK);
    std::vector<uint8_t> expected(pattern, pattern + 60);
    expected.resize(100, 7);
    EXPECT_EQ(read_back(b), expected);
    // Shrinking then growing keeps the leading bytes; the grown tail reads zero.
    ASSERT_EQ(zarvel_buffer_resize(b, 30), ZARVEL_OK);
    ASSERT_EQ(zarvel_buffer_resize(b, 5000), ZARVEL_OK);
    expected.resize(30);
    expected.resize(5000, 0);
    EXPECT_EQ(read_back(b), expected);
    LogCapture log;
    EXPECT_EQ(zarvel_buffer_copy(b, src), ZARVEL_EINVAL);  // 5000 bytes do not fit in 60
    zarvel_buffer_free(&src);
    zarvel_buffer_free(&b);
    EXPECT_EQ(b, nullptr);
  }
}

TEST(Buffer, AdoptedMemoryIsReleasedOnceByTheLastReferenceOrByGrowing) {
  ReleaseCounter counter;
  uint8_t bytes[16] = {1, 2, 3, 4};
  zarvel_buffer_t* b = zarvel_buffer_make(bytes, 16, 0, &ReleaseCounter::release, &counter);
  zarvel_buffer_t* r = zarvel_buffer_ref(b);
  zarvel_buffer_free(&b);
  ASSERT_EQ(zarvel_buffer_resize(r, 8), ZARVEL_OK);  // shrinking stays in place
  EXPECT_TRUE(zarvel_buffer_raw_pointer(r) == bytes && counter.calls == 0);
  ASSERT_EQ(zarvel_buffer_resize(r, 32), ZARVEL_OK);  // growing leaves the caller's memory
  EXPECT_EQ(counter.calls, 1);
  bytes[0] = 99;
  EXPECT_TRUE(read_back(r)[0] == 1 && read_back(r)[3] == 4);
  zarvel_buffer_free(&r);
  EXPECT_EQ(counter.calls, 1);

  // (The bad-input sweep covers refused sizes and memory types.)
  LogCapture log;
  EXPECT_EQ(zarvel_buffer_make(nullptr, 8, 0, &ReleaseCounter::release, &counter), nullptr);
  EXPECT_EQ(zarvel_buffer_make(bytes, -8, 0, &ReleaseCounter::release, &counter), nullptr);
  EXPECT_EQ(counter.calls, 1);  // a refused adoption leaves the memory with the caller
  EXPECT_TRUE(zarvel_buffer_copy(nullptr, nullptr) == ZARVEL_EINVAL &&
              zarvel_buffer_resize(nullptr, 4) == ZARVEL_EINVAL &&
              zarvel_buffer_set(nullptr, 0) == ZARVEL_EINVAL &&
              zarvel_buffer_mem_type(nullptr) == UINT32_MAX);
  zarvel_buffer_free(nullptr);
  zarvel_buffer_t* empty = zarvel_buffer_alloc(0, ZARVEL_MEM_DEVICE);
  EXPECT_EQ(zarvel_buffer_set(empty, 1), ZARVEL_OK);
  zarvel_buffer_free(&empty);
}

TEST(Tensor, LayoutOffsetsAndViews) {
  zarvel_tensor_t* t = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 4, 5);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(std::vector<int64_t>(t->stride, t->stride + 4), (std::vector<int64_t>{60, 20, 5, 1}));
  EXPECT_EQ(zarvel_buffer_size(t->buffer), 120 * 4);
  auto* base = static_cast<float*>(zarvel_tensor_raw_pointer(t));
  // Offsets one past the end of each axis are allowed; further or negative ones are not.
  const int32_t at[][4] = {{1, 2, 3, 4}, {1, 0, 0, 0}, {2, 3, 4, 5}, {3, 0, 0, 0}, {0, -1, 0, 0}};
  const int64_t want[] = {60 + 40 + 15 + 4, 60, 120 + 60 + 20 + 5, -1, -1};
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(zarvel_tensor_calc_offset(t, at[i][0], at[i][1], at[i][2], at[i][3]), want[i]) << i;
  EXPECT_EQ(zarvel_tensor_data_at(t, 1, 2, 3, 4), base + 119);
  EXPECT_EQ(zarvel_tensor_data_at(t, 2, 0, 0, 0), nullptr);

  const int32_t start[4] = {1, 1, 2, 1};
  const int32_t shape[4] = {1, 2, 2, 3};
  zarvel_tensor_t* v = zarvel_tensor_roi(t, start, shape);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(zarvel_tensor_raw_pointer(v), base + 60 + 20 + 10 + 1);
  EXPECT_EQ(zarvel_tensor_calc_offset(v, 0, 1, 1, 2), 20 + 5 + 2);
  *static_cast<float*>(zarvel_tensor_data_at(v, 0, 1, 1, 2)) = 2.5f;
  EXPECT_EQ(base[91 + 27], 2.5f);
  zarvel_tensor_free(&t);  // the view keeps the data alive
  EXPECT_EQ(*static_cast<float*>(zarvel_tensor_data_at(v, 0, 1, 1, 2)), 2.5f);

  LogCapture log;
  const int32_t outside[4] = {0, 1, 0, 0};
  EXPECT_TRUE(zarvel_tensor_roi(v, outside, shape) == nullptr &&
              zarvel_tensor_roi(v, nullptr, shape) == nullptr &&
              zarvel_tensor_calc_offset(nullptr, 0, 0, 0, 0) == -1 &&
              zarvel_tensor_mem_type(nullptr) == UINT32_MAX);
  zarvel_tensor_free(&v);
  zarvel_tensor_free(nullptr);
}

// A strided view goes to a dense device tensor, into a device view, and back to the host;
// then through a hand-made transposed view, whose W is not dense.
TEST(Tensor, StridedCopyAcrossMemoryTypes) {
  zarvel_tensor_t* src = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 2, 3, 4, 5);
  auto* s = static_cast<int8_t*>(zarvel_tensor_raw_pointer(src));
  for (int i = 0; i < 120; ++i) s[i] = static_cast<int8_t>(i - 60);
  const int32_t start[4] = {1, 0, 1, 2}, corner[4] = {0, 0, 2, 2}, shape[4] = {1, 3, 2, 3};
  zarvel_tensor_t* view = zarvel_tensor_roi(src, start, shape);
  zarvel_tensor_t* dev = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_S8, 1, 3, 2, 3);
  zarvel_tensor_t* dev_big = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_S8, 1, 3, 4, 5);
  zarvel_tensor_t* dev_view = zarvel_tensor_roi(dev_big, corner, shape);
  zarvel_tensor_t* back = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 2, 3);
  zarvel_tensor_t* dense = zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_S8, 1, 3, 3, 2);
  zarvel_tensor_t* host_dense = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 3, 2);
  ASSERT_TRUE(view && dev && dev_view && back && dense && host_dense);
  ASSERT_EQ(zarvel_tensor_copy(view, dev), ZARVEL_OK);
  ASSERT_EQ(zarvel_tensor_copy(dev, dev_view), ZARVEL_OK);
  ASSERT_EQ(zarvel_tensor_copy(dev_view, back), ZARVEL_OK);
  zarvel_tensor_t transposed = *dense;
  std::swap(transposed.shape[2], transposed.shape[3]);
  std::swap(transposed.stride[2], transposed.stride[3]);
  ASSERT_EQ(zarvel_tensor_copy(back, &transposed), ZARVEL_OK);
  ASSERT_EQ(zarvel_tensor_copy(dense, host_dense), ZARVEL_OK);
  const auto* b = static_cast<const int8_t*>(zarvel_tensor_raw_pointer(back));
  const auto* d = static_cast<const int8_t*>(zarvel_tensor_raw_pointer(host_dense));
  for (int c = 0; c < 3; ++c)
    for (int h = 0; h < 2; ++h)
      for (int w = 0; w < 3; ++w)
        EXPECT_TRUE(b[c * 6 + h * 3 + w] == s[60 + c * 20 + (h + 1) * 5 + (w + 2)] &&
                    d[c * 6 + w * 2 + h] == b[c * 6 + h * 3 + w])
            << c << h << w;

  LogCapture log;
  zarvel_tensor_t* f32 = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 2, 3);
  EXPECT_TRUE(zarvel_tensor_copy(view, f32) == ZARVEL_EINVAL &&
              zarvel_tensor_copy(view, host_dense) == ZARVEL_EINVAL &&
              zarvel_tensor_copy(nullptr, back) == ZARVEL_EINVAL);
  for (zarvel_tensor_t* t : {src, view, dev, dev_big, dev_view, back, dense, host_dense, f32}) {
    zarvel_tensor_free(&t);
  }
}

}  // namespace
