// zarvel_tensor_to_frames: dense planar reads of one item, sample-to-byte conversion, the
// refusals and their statuses, device tensors, and round trips through zarvel_frame_to_tensor.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "log_capture.h"
#include "tensor_test_support.h"

namespace {

using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;
using zarvel::test::LogCapture;

zarvel_frame_t* const kUntouched = reinterpret_cast<zarvel_frame_t*>(0x1234);

// Item 1 of a 2x3x4x5 tensor is elements 60..119: planes R, G, B of 4 rows of 5.
TEST(TensorToFrames, ReadsItemIndexAsDensePlanes) {
  std::vector<uint8_t> want;
  for (int k = 0; k < 20; ++k)
    for (int c = 0; c < 3; ++c) want.push_back(static_cast<uint8_t>(60 + c * 20 + k));
  for (uint32_t elem : {ZARVEL_ELEM_U8, ZARVEL_ELEM_S8}) {
    TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 2, 3, 4, 5));
    auto* data = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(tensor.get()));
    for (int i = 0; i < 120; ++i) data[i] = static_cast<uint8_t>(i);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_tensor_to_frames(tensor.get(), 1, 1, &out), 0);
    FramePtr frame(out);
    EXPECT_EQ(frame->format, ZARVEL_PIXFMT_RGB24);
    EXPECT_EQ(std::pair(frame->width, frame->height), std::pair(5, 4));
    EXPECT_EQ(zarvel::test::visible_bytes(frame.get()), want);
  }
}

TEST(TensorToFrames, FloatSamplesKeepTheLowByteOfTheirTruncation) {
  const float samples[6] = {255.9f, 300.0f, -0.5f, 256.7f, -1.0f, 17.99f};
  const uint8_t want[6] = {255, 44, 0, 0, 255, 17};
  for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
    TensorPtr host(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 1, 2, 3));
    std::memcpy(static_cast<float*>(zarvel_tensor_raw_pointer(host.get())) + 6, samples,
                sizeof samples);
    TensorPtr tensor(zarvel_tensor_alloc(mem, ZARVEL_ELEM_F32, 2, 1, 2, 3));
    ASSERT_EQ(zarvel_tensor_copy(host.get(), tensor.get()), 0);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_tensor_to_frames(tensor.get(), 2, 1, &out), 0);
    FramePtr frame(out);
    ASSERT_EQ(frame->format, ZARVEL_PIXFMT_GREY);
    EXPECT_EQ(zarvel::test::visible_bytes(frame.get()), std::vector<uint8_t>(want, want + 6));
  }
}

TEST(TensorToFrames, RefusalsAndTheirStatuses) {
  TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 1, 3, 2, 2));
  zarvel_frame_t* out = kUntouched;
  LogCapture log;
  EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), 3, 0, &out), 75);
  log.expect({{4, "aux", "Not support tensor color type: 3\n"}});
  // Reads and writes that would leave the tensor's data or the frame's pixels are refused.
  // {1, 1}, {1, -1}: past the data; {2, 0}: 3 channels into 1-byte pixels.
  for (auto [ct, index] : {std::pair{1, 1}, {1, -1}, {2, 0}})
    EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), ct, index, &out), 75) << ct << " " << index;
  EXPECT_EQ(out, kUntouched);
  // An unknown element type succeeds with a null frame.
  log.clear();
  tensor->elem_type = 7;
  EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), 0, 0, &out), 0);
  EXPECT_EQ(out, nullptr);
  log.expect({{4, "aux", "Not support tensor element type: 7\n"}});
  tensor->elem_type = ZARVEL_ELEM_U8;  // freed as what it was allocated as
}

// frame -> tensor -> frame gives back the frame's bytes (channels swapped when the frame's
// byte order is not the tensor's), for 8-bit and float tensors.
TEST(TensorToFrames, RoundTripsThroughFrameToTensor) {
  struct Case {
    uint32_t ct, in, out;
    bool swapped;
  };
  const Case cases[] = {{0, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_BGR24, false},
                        {1, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_RGB24, false},
                        {1, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_RGB24, true},
                        {2, ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_GREY, false}};
  const float mean[3] = {0, 0, 0}, std[3] = {1, 1, 1}, pad[3] = {0, 0, 0};
  std::mt19937 rng(11);
  for (const Case& c : cases) {
    for (uint32_t elem : {ZARVEL_ELEM_U8, ZARVEL_ELEM_F32}) {
      const int32_t w = 1 + rng() % 40, h = 1 + rng() % 5;
      FramePtr frame(zarvel::test::random_frame(rng, c.in, w, h, 3));
      const int planes = c.ct == 2 ? 1 : 3;
      TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 2, planes, h, w));
      const auto offset = static_cast<int32_t>(zarvel_tensor_calc_offset(tensor.get(), 1, 0, 0, 0));
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, c.ct, frame.get(), mean, std, pad), 0);
      zarvel_frame_t* out = nullptr;
      ASSERT_EQ(zarvel_tensor_to_frames(tensor.get(), c.ct, 1, &out), 0);
      FramePtr back(out);
      ASSERT_EQ(back->format, c.out);
      std::vector<uint8_t> want = zarvel::test::visible_bytes(frame.get());
      for (size_t i = 0; c.swapped && i < want.size(); i += 3) std::swap(want[i], want[i + 2]);
      EXPECT_EQ(zarvel::test::visible_bytes(back.get()), want) << c.ct << " " << elem;
    }
  }
}

}  // namespace
