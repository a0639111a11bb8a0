// Device memory is out of the host's reach except through the library's transfers.
#include <gtest/gtest.h>
#include <zarvel/frame.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

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
  zarvel::test::LogCapture log;
  zarvel_buffer_t* block = zarvel_buffer_alloc(256, ZARVEL_MEM_DEVICE);
  auto* base = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(block));
  zarvel::test::ReleaseCounter counter;
  zarvel_frame_t* f = zarvel_frame_make(1, ZARVEL_PIXFMT_GREY, base + 64, 8, 8, nullptr, nullptr,
                                        &zarvel::test::ReleaseCounter::release, &counter);
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
