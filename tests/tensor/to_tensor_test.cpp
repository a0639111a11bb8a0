// zarvel_frame_to_tensor: samples against a per-sample formula model over random frames,
// colour types, element types, offsets and strided tensors; the pairing refusals with their
// messages; the fixed behaviours of parameters and pads; device frames and tensors.
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

constexpr float kIdentityMean[3] = {0, 0, 0};
constexpr float kIdentityStd[3] = {1, 1, 1};
constexpr float kZeroPad[3] = {0, 0, 0};

std::vector<uint8_t> buffer_bytes(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return {p, p + zarvel_buffer_size(t->buffer)};
}

template <typename T>
T at(const zarvel_tensor_t* t, int64_t element) {
  T v;
  std::memcpy(&v, static_cast<uint8_t*>(zarvel_tensor_raw_pointer(t)) + element * sizeof(T),
              sizeof v);
  return v;
}

// Random frames into random items of dense tensors and of region views of larger tensors,
// checked sample by sample against the model, with every byte outside the item unchanged.
TEST(FrameToTensor, MatchesTheSampleModelWithScalarAndVectorKernels) {
  std::mt19937 rng(7);
  for (uint32_t mask : {0u, ~0u}) {
    zarvel::test::FeatureMask features(mask);
    for (int iter = 0; iter < 400; ++iter) {
      const uint32_t ct = rng() % 3;
      const uint32_t formats[3] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
      const uint32_t format = formats[rng() % (ct == 2 ? 3 : 2)];
      const uint32_t elem = rng() % 2 ? ZARVEL_ELEM_F32 : ZARVEL_ELEM_U8;
      const int32_t W = 1 + rng() % 48, H = 1 + rng() % 6;
      // Frames narrower, equal or wider than the item, with tight or padded rows.
      const int32_t fw = rng() % 3 == 0 ? W : 1 + rng() % 56, fh = 1 + rng() % 8;
      FramePtr frame(zarvel::test::random_frame(rng, format, fw, fh, rng() % 2 ? 0 : rng() % 5));
      const int planes = ct == 2 ? 1 : 3;
      const bool view = rng() % 2;
      const int32_t dw = view ? rng() % 3 : 0, dh = view ? rng() % 2 : 0;
      TensorPtr parent(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 3, planes + 1, H + dh, W + dw));
      const int32_t item = rng() % 3;
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
      const int32_t offset =
          view ? 0 : static_cast<int32_t>(zarvel_tensor_calc_offset(tensor.get(), item, 0, 0, 0));
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, ct, frame.get(), mean, std, pad), 0);

      const int64_t size = elem == ZARVEL_ELEM_F32 ? 4 : 1;
      for (int c = 0; c < planes; ++c) {
        for (int32_t y = 0; y < H; ++y) {
          for (int32_t x = 0; x < W; ++x) {
            const int64_t e =
                tensor->offset + offset + c * tensor->stride[1] + y * tensor->stride[2] + x;
            const auto s =
                zarvel::test::expected_sample(frame.get(), ct, elem, mean, std, pad, c, y, x);
            std::memcpy(&expected[e * size], s.bytes, size);
          }
        }
      }
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
  for (uint32_t format : zarvel::test::kAllFormats) {
    FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 4, 2, nullptr, 0));
    TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 2, 4));
    const bool packed = format == ZARVEL_PIXFMT_RGB24 || format == ZARVEL_PIXFMT_BGR24;
    for (uint32_t ct : {0u, 1u, 2u, 3u, 77u}) {
      std::string want;  // empty: accepted
      if (ct <= 1 && !packed) want = message("RGB/GBR tensor needs RGB/BGR", format);
      if (ct == 2 && !packed && format != ZARVEL_PIXFMT_GREY) {
        want = message("GRAY tensor needs RGB/BGR/GRAY", format);
      }
      if (ct > 2) {
        want = "[zarvel_frame_to_tensor] Unknown tensor color type: " + std::to_string(ct) + "\n";
      }
      LogCapture log;
      EXPECT_EQ(zarvel_frame_to_tensor(tensor.get(), 0, ct, frame.get(), kIdentityMean,
                                       kIdentityStd, kZeroPad),
                want.empty() ? 0 : -1000)
          << format << " " << ct;
      if (want.empty()) log.expect({});
      if (!want.empty()) log.expect({{4, "aux", want}});
    }
  }
}

// One pixel R=10, G=20, B=30 (stored in either byte order) into a 2x2 item.
struct OnePixel {
  explicit OnePixel(uint32_t format, uint32_t elem, int planes) {
    frame.reset(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 1, 1, nullptr, 0));
    const bool bgr = format == ZARVEL_PIXFMT_BGR24;
    if (format == ZARVEL_PIXFMT_GREY) {
      frame->plane[0][0] = 100;
    } else {
      frame->plane[0][0] = bgr ? 30 : 10;
      frame->plane[0][1] = 20;
      frame->plane[0][2] = bgr ? 10 : 30;
    }
    tensor.reset(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 1, planes, 2, 2));
  }
  FramePtr frame;
  TensorPtr tensor;
};

TEST(FrameToTensor, ParameterOrderAndPadsPerColourType) {
  const float mean[3] = {1, 2, 3}, std[3] = {1, 4, 2}, pad[3] = {7, 8, 9};
  for (uint32_t format : {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24}) {
    OnePixel bgr(format, ZARVEL_ELEM_F32, 3);  // plane 0 is B and takes the third entries
    ASSERT_EQ(zarvel_frame_to_tensor(bgr.tensor.get(), 0, 0, bgr.frame.get(), mean, std, pad), 0);
    EXPECT_EQ(at<float>(bgr.tensor.get(), 0), (30 - 3) / 2.0f);
    EXPECT_EQ(at<float>(bgr.tensor.get(), 4), (20 - 2) / 4.0f);
    EXPECT_EQ(at<float>(bgr.tensor.get(), 8), 10 - 1);
    EXPECT_EQ(at<float>(bgr.tensor.get(), 1), 9);  // pads: B, G, R planes
    EXPECT_EQ(at<float>(bgr.tensor.get(), 7), 8);
    EXPECT_EQ(at<float>(bgr.tensor.get(), 11), 7);
    OnePixel rgb(format, ZARVEL_ELEM_F32, 3);
    ASSERT_EQ(zarvel_frame_to_tensor(rgb.tensor.get(), 0, 1, rgb.frame.get(), mean, std, pad), 0);
    EXPECT_EQ(at<float>(rgb.tensor.get(), 0), 10 - 1);
    EXPECT_EQ(at<float>(rgb.tensor.get(), 8), (30 - 3) / 2.0f);
    EXPECT_EQ(at<float>(rgb.tensor.get(), 3), 7);
  }
  // Grey uses the middle entries: (100 - 5) / 4 and pad 3.
  const float gmean[3] = {9, 5, 9}, gstd[3] = {2, 4, 2}, gpad[3] = {7, 3, 7};
  OnePixel grey(ZARVEL_PIXFMT_GREY, ZARVEL_ELEM_F32, 1);
  ASSERT_EQ(zarvel_frame_to_tensor(grey.tensor.get(), 0, 2, grey.frame.get(), gmean, gstd, gpad),
            0);
  EXPECT_EQ(at<float>(grey.tensor.get(), 0), 23.75f);
  EXPECT_EQ(at<float>(grey.tensor.get(), 3), 3.0f);
}

TEST(FrameToTensor, EightBitTensorsTakeRawBytesAndLowBytesOfPads) {
  const float nan = std::nanf("");
  const float means[][3] = {{127.5f, 127.5f, 127.5f}, {0, 0, 0}, {nan, 0, 0}};
  const float stds[][3] = {{128, 128, 128}, {1, 1, 1}, {1, 1, 1}};
  const float pad[3] = {256.0f, -1.0f, 300.0f};
  for (int i = 0; i < 3; ++i) {
    OnePixel rgb(ZARVEL_PIXFMT_BGR24, ZARVEL_ELEM_U8, 3);
    ASSERT_EQ(
        zarvel_frame_to_tensor(rgb.tensor.get(), 0, 1, rgb.frame.get(), means[i], stds[i], pad), 0);
    const uint8_t want[12] = {10, 0, 0, 0, 20, 255, 255, 255, 30, 44, 44, 44};
    EXPECT_EQ(std::memcmp(zarvel_tensor_raw_pointer(rgb.tensor.get()), want, 12), 0) << i;
    OnePixel grey(ZARVEL_PIXFMT_RGB24, ZARVEL_ELEM_U8, 1);
    ASSERT_EQ(
        zarvel_frame_to_tensor(grey.tensor.get(), 0, 2, grey.frame.get(), means[i], stds[i], pad),
        0);
    EXPECT_EQ(at<uint8_t>(grey.tensor.get(), 0),
              static_cast<uint8_t>(0.299 * 10 + 0.587 * 20 + 0.114 * 30));
    EXPECT_EQ(at<uint8_t>(grey.tensor.get(), 1), 255);
  }
}

// The colour float path multiplies by a reciprocal, the grey float path divides.
TEST(FrameToTensor, ColourMultipliesByReciprocalGreyDivides) {
  int p = 0;
  while (p < 256 && static_cast<float>(p) * (1.0f / 3.0f) == static_cast<float>(p) / 3.0f) ++p;
  ASSERT_LT(p, 256);
  OnePixel pixel(ZARVEL_PIXFMT_RGB24, ZARVEL_ELEM_F32, 3);
  std::memset(pixel.frame->plane[0], p, 3);
  const float std[3] = {3, 3, 3};
  ASSERT_EQ(zarvel_frame_to_tensor(pixel.tensor.get(), 0, 1, pixel.frame.get(), kIdentityMean, std,
                                   kZeroPad),
            0);
  EXPECT_EQ(at<float>(pixel.tensor.get(), 0), static_cast<float>(p) * (1.0f / 3.0f));
  FramePtr grey(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 1, 1, nullptr, 0));
  grey->plane[0][0] = static_cast<uint8_t>(p);
  ASSERT_EQ(
      zarvel_frame_to_tensor(pixel.tensor.get(), 0, 2, grey.get(), kIdentityMean, std, kZeroPad),
      0);
  EXPECT_EQ(at<float>(pixel.tensor.get(), 0), static_cast<float>(p) / 3.0f);
}

TEST(FrameToTensor, RefusalsLeaveTheTensorUntouched) {
  OnePixel ok(ZARVEL_PIXFMT_RGB24, ZARVEL_ELEM_U8, 3);
  const float *m = kIdentityMean, *s = kIdentityStd, *p = kZeroPad;
  LogCapture log;
  zarvel_frame_t no_data = *ok.frame;
  no_data.plane[0] = nullptr;
  EXPECT_EQ(zarvel_frame_to_tensor(ok.tensor.get(), 0, 1, &no_data, m, s, p), -1);
  TensorPtr device(zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 3, 2, 2));
  EXPECT_EQ(zarvel_frame_to_tensor(device.get(), 0, 1, ok.frame.get(), m, s, p), -1000);
  TensorPtr s8(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 2, 2));
  std::memset(zarvel_tensor_raw_pointer(s8.get()), 0x5A, 12);
  for (uint32_t ct : {0u, 1u, 2u})
    EXPECT_EQ(zarvel_frame_to_tensor(s8.get(), 0, ct, ok.frame.get(), m, s, p), -1000);
  EXPECT_EQ(buffer_bytes(s8.get()), std::vector<uint8_t>(12, 0x5A));
  log.expect({});

  // An item that would reach past the tensor's data.
  EXPECT_EQ(zarvel_frame_to_tensor(ok.tensor.get(), 1, 1, ok.frame.get(), m, s, p), -1);
  EXPECT_EQ(zarvel_frame_to_tensor(ok.tensor.get(), -1, 1, ok.frame.get(), m, s, p), -1);
  EXPECT_EQ(buffer_bytes(ok.tensor.get()), std::vector<uint8_t>(12, 0));
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[0].tag, "aux.host");
  log.clear();

  // The host slot itself checks the format against the writer.
  FramePtr grey(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 1, 1, nullptr, 0));
  const auto& host = zarvel::aux::host_device_api();
  EXPECT_EQ(host.to_tensor(ok.tensor.get(), 0, 1, grey.get(), m, s, p), -1000);
  EXPECT_EQ(host.to_tensor(ok.tensor.get(), 0, 9, grey.get(), m, s, p), -1000);
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
