// zarvel_frame_to_tensor: samples against a per-sample formula model over random frames,
// colour types, element types, offsets and strided tensors; the pairing refusals with their
// messages; the pinned parameter orders and pads; device frames and tensors.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "op_test_support.h"
#include "plugin/device_api.h"
#include "tensor_test_support.h"

namespace {

using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;
using zarvel::test::LogCapture;

constexpr float kMean[3] = {0, 0, 0}, kStd[3] = {1, 1, 1}, kPad[3] = {0, 0, 0};

std::vector<uint8_t> buffer_bytes(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return {p, p + zarvel_buffer_size(t->buffer)};
}

// Random frames into random items of dense tensors and of region views of larger tensors,
// checked sample by sample against the model, with every byte outside the item unchanged.
TEST(FrameToTensor, MatchesTheSampleModelWithScalarAndVectorKernels) {
  std::mt19937 rng(7);
  const uint32_t formats[3] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
  for (uint32_t mask : {0u, ~0u}) {
    zarvel::test::FeatureMask features(mask);
    for (int iter = 0; iter < 400; ++iter) {
      const uint32_t ct = rng() % 3, format = formats[rng() % (ct == 2 ? 3 : 2)];
      const uint32_t elem = rng() % 2 ? ZARVEL_ELEM_F32 : ZARVEL_ELEM_U8;
      const int32_t W = 1 + rng() % 48, H = 1 + rng() % 6, planes = ct == 2 ? 1 : 3;
      // Frames narrower, equal or wider than the item, with tight or padded rows.
      const int32_t fw = rng() % 3 == 0 ? W : 1 + rng() % 56, fh = 1 + rng() % 8;
      FramePtr frame(zarvel::test::random_frame(rng, format, fw, fh, rng() % 2 ? 0 : rng() % 5));
      const bool view = rng() % 2;
      const int32_t dw = view ? rng() % 3 : 0, dh = view ? rng() % 2 : 0, item = rng() % 3;
      TensorPtr parent(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 3, planes + 1, H + dh, W + dw));
      const int32_t start[4] = {view ? item : 0, view ? 1 : 0, dh, dw};
      const int32_t shape[4] = {view ? 1 : 3, planes, H, W};
      TensorPtr tensor(zarvel_tensor_roi(parent.get(), start, shape));
      ASSERT_TRUE(frame && tensor);
      auto* raw = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(parent->buffer));
      for (int64_t i = 0; i < zarvel_buffer_size(parent->buffer); ++i) raw[i] = rng();
      std::vector<uint8_t> expected = buffer_bytes(parent.get());
      float mean[3], std[3], pad[3];
      const bool identity = rng() % 4 == 0;
      for (int k = 0; k < 3; ++k) {
        mean[k] = identity ? 0.0f : static_cast<float>(rng() % 4000) / 16.0f - 20.0f;
        std[k] = identity ? 1.0f : 0.25f + static_cast<float>(rng() % 1000) / 10.0f;
        pad[k] = static_cast<float>(static_cast<int>(rng() % 2000) - 1000) / 3.0f;
      }
      const auto offset =
          static_cast<int32_t>(view ? 0 : zarvel_tensor_calc_offset(tensor.get(), item, 0, 0, 0));
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, ct, frame.get(), mean, std, pad), 0);
      const int64_t size = elem == ZARVEL_ELEM_F32 ? 4 : 1;
      for (int c = 0; c < planes; ++c)
        for (int32_t y = 0; y < H; ++y)
          for (int32_t x = 0; x < W; ++x)
            std::memcpy(
                &expected[size * (tensor->offset + offset + c * tensor->stride[1] +
                                  y * tensor->stride[2] + x)],
                zarvel::test::expected_sample(frame.get(), ct, elem, mean, std, pad, c, y, x).bytes,
                size);
      ASSERT_EQ(buffer_bytes(parent.get()), expected)
          << "iter " << iter << " ct " << ct << " elem " << elem << " frame " << fw << "x" << fh
          << " item " << W << "x" << H << " view " << view;
    }
  }
}

TEST(FrameToTensor, PairingOfColourTypesAndFormats) {
  auto message = [](const char* head, uint32_t format) {
    return std::string("[zarvel_frame_to_tensor] ") + head +
           " frame, given frame's format: " + zarvel_frame_pixfmt_to_string(format) + "\n";
  };
  TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 2, 4));
  for (uint32_t format : zarvel::test::kAllFormats) {
    FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 4, 2, nullptr, 0));
    const bool packed = format == ZARVEL_PIXFMT_RGB24 || format == ZARVEL_PIXFMT_BGR24;
    for (uint32_t ct : {0u, 1u, 2u, 3u, 77u}) {
      std::string want;  // empty: accepted
      if (ct <= 1 && !packed) want = message("RGB/GBR tensor needs RGB/BGR", format);
      if (ct == 2 && !packed && format != ZARVEL_PIXFMT_GREY)
        want = message("GRAY tensor needs RGB/BGR/GRAY", format);
      if (ct > 2)
        want = "[zarvel_frame_to_tensor] Unknown tensor color type: " + std::to_string(ct) + "\n";
      LogCapture log;
      EXPECT_EQ(zarvel_frame_to_tensor(tensor.get(), 0, ct, frame.get(), kMean, kStd, kPad),
                want.empty() ? 0 : -1000)
          << format << " " << ct;
      log.expect(want.empty() ? std::vector<LogCapture::Expected>{}
                              : std::vector<LogCapture::Expected>{{4, "aux", want}});
    }
  }
}

// One pixel R=10, G=20, B=30 (GREY: 100), stored in the format's byte order, written into a
// 2x2 item: the item's bytes.
std::vector<uint8_t> one_pixel(uint32_t format, uint32_t ct, uint32_t elem, const float* mean,
                               const float* std, const float* pad) {
  FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 1, 1, nullptr, 0));
  const bool bgr = format == ZARVEL_PIXFMT_BGR24;
  const uint8_t px[3] = {static_cast<uint8_t>(format == ZARVEL_PIXFMT_GREY ? 100
                                              : bgr                        ? 30
                                                                           : 10),
                         20, static_cast<uint8_t>(bgr ? 10 : 30)};
  std::memcpy(frame->plane[0], px, zarvel_frame_pixel_size(format));
  TensorPtr t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 1, ct == 2 ? 1 : 3, 2, 2));
  EXPECT_EQ(zarvel_frame_to_tensor(t.get(), 0, ct, frame.get(), mean, std, pad), 0);
  return buffer_bytes(t.get());
}
std::vector<float> floats(const std::vector<uint8_t>& bytes) {
  std::vector<float> f(bytes.size() / 4);
  std::memcpy(f.data(), bytes.data(), bytes.size());
  return f;
}

// BGR tensors: plane 0 is B and takes the third entries (mean, std and pad); RGB the first;
// grey the middle ones.
TEST(FrameToTensor, ParameterOrderAndPadsPerColourType) {
  const float mean[3] = {1, 2, 3}, std[3] = {1, 4, 2}, pad[3] = {7, 8, 9};
  for (uint32_t format : {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24}) {
    EXPECT_EQ(floats(one_pixel(format, 0, ZARVEL_ELEM_F32, mean, std, pad)),
              (std::vector<float>{13.5f, 9, 9, 9, 4.5f, 8, 8, 8, 9, 7, 7, 7}));
    EXPECT_EQ(floats(one_pixel(format, 1, ZARVEL_ELEM_F32, mean, std, pad)),
              (std::vector<float>{9, 7, 7, 7, 4.5f, 8, 8, 8, 13.5f, 9, 9, 9}));
  }
  const float gmean[3] = {9, 5, 9}, gstd[3] = {2, 4, 2}, gpad[3] = {7, 3, 7};
  EXPECT_EQ(floats(one_pixel(ZARVEL_PIXFMT_GREY, 2, ZARVEL_ELEM_F32, gmean, gstd, gpad)),
            (std::vector<float>{23.75f, 3, 3, 3}));
}

// 8-bit tensors take the raw bytes whatever mean and std say, and the low byte of each
// truncated pad: 256 -> 0, -1 -> 255, 300 -> 44.
TEST(FrameToTensor, EightBitTensorsTakeRawBytesAndLowBytesOfPads) {
  const float nan = std::nanf("");
  const float means[][3] = {{127.5f, 127.5f, 127.5f}, {0, 0, 0}, {nan, 0, 0}};
  const float stds[][3] = {{128, 128, 128}, {1, 1, 1}, {1, 1, 1}};
  const float pad[3] = {256.0f, -1.0f, 300.0f};
  const auto luma = static_cast<uint8_t>(0.299 * 10 + 0.587 * 20 + 0.114 * 30);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(one_pixel(ZARVEL_PIXFMT_BGR24, 1, ZARVEL_ELEM_U8, means[i], stds[i], pad),
              (std::vector<uint8_t>{10, 0, 0, 0, 20, 255, 255, 255, 30, 44, 44, 44}));
    EXPECT_EQ(one_pixel(ZARVEL_PIXFMT_RGB24, 2, ZARVEL_ELEM_U8, means[i], stds[i], pad),
              (std::vector<uint8_t>{luma, 255, 255, 255}));
  }
}

TEST(FrameToTensor, RefusalsLeaveTheTensorUntouched) {
  FramePtr rgb(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 1, 1, nullptr, 0));
  TensorPtr u8(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 1, 3, 2, 2));
  LogCapture log;
  zarvel_frame_t no_data = *rgb;
  no_data.plane[0] = nullptr;
  EXPECT_EQ(zarvel_frame_to_tensor(u8.get(), 0, 1, &no_data, kMean, kStd, kPad), -1);
  TensorPtr device(zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 3, 2, 2));
  EXPECT_EQ(zarvel_frame_to_tensor(device.get(), 0, 1, rgb.get(), kMean, kStd, kPad), -1000);
  TensorPtr s8(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 2, 2));
  std::memset(zarvel_tensor_raw_pointer(s8.get()), 0x5A, 12);
  for (uint32_t ct : {0u, 1u, 2u})
    EXPECT_EQ(zarvel_frame_to_tensor(s8.get(), 0, ct, rgb.get(), kMean, kStd, kPad), -1000);
  EXPECT_EQ(buffer_bytes(s8.get()), std::vector<uint8_t>(12, 0x5A));
  log.expect({});

  // An item that would reach past the tensor's data.
  for (int32_t offset : {1, -1})
    EXPECT_EQ(zarvel_frame_to_tensor(u8.get(), offset, 1, rgb.get(), kMean, kStd, kPad), -1);
  EXPECT_EQ(buffer_bytes(u8.get()), std::vector<uint8_t>(12, 0));
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[0].tag, "aux.host");
  log.clear();

  // The host slot itself checks the format against the writer.
  FramePtr grey(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 1, 1, nullptr, 0));
  for (uint32_t ct : {1u, 9u}) {
    EXPECT_EQ(
        zarvel::aux::host_device_api().to_tensor(u8.get(), 0, ct, grey.get(), kMean, kStd, kPad),
        -1000);
  }
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].text,
            "[frame_utils_cpu_to_tensor] Writing a frame in format [GREY] into a tensor is not "
            "supported!\n");
}

TEST(FrameToTensor, DeviceFramesAreDownloadedWithANote) {
  std::mt19937 rng(3);
  const float mean[3] = {1, 2, 3}, std[3] = {4, 5, 6}, pad[3] = {-1, -2, -3};
  for (uint32_t ct : {0u, 2u}) {
    FramePtr host(zarvel::test::random_frame(rng, ZARVEL_PIXFMT_RGB24, 37, 5, 2));
    auto device = zarvel::test::to_device(host.get());
    TensorPtr want(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 6, 40));
    TensorPtr got(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 6, 40));
    ASSERT_EQ(zarvel_frame_to_tensor(want.get(), 0, ct, host.get(), mean, std, pad), 0);
    LogCapture log;
    ASSERT_EQ(zarvel_frame_to_tensor(got.get(), 0, ct, device.get(), mean, std, pad), 0);
    EXPECT_EQ(buffer_bytes(got.get()), buffer_bytes(want.get()));
    log.expect({{0, "aux.host",
                 "[frame_utils_cpu_to_tensor] Memory type not match between frame and tensor, "
                 "will follow tensor memory type: host.\n"}});
  }
}

}  // namespace
