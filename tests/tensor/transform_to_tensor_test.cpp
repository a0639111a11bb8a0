// One-call preprocessing: the fused region-resize path against crop, resize and to-tensor
// composed, and the statuses, messages and scale outputs of both exports.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "op_test_support.h"
#include "tensor_test_support.h"

namespace za = zarvel::aux;
using zarvel::test::LogCapture;

namespace {

za::FramePtr random_frame(uint32_t format, int w, int h, std::mt19937& rng,
                          uint32_t mem = ZARVEL_MEM_HOST) {
  za::FramePtr f(zarvel::test::random_frame(rng, format, w, h));
  return mem == ZARVEL_MEM_HOST ? std::move(f) : zarvel::test::to_device(f.get());
}

// An option with mean 0, deviation 1 and zero pads.
TransformToTensorOption option(zarvel_tensor_t* t, uint32_t ct, uint32_t flags, uint64_t n,
                               zarvel_frame_t** frames, Area2D* rois, Size2D* sizes,
                               zarvel_buffer_t** scratch, float* matrices = nullptr) {
  return {t, ct, flags, n, frames, rois, sizes, matrices, {0, 0, 0}, {1, 1, 1}, nullptr, scratch};
}

std::vector<uint8_t> tensor_bytes(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return std::vector<uint8_t>(p, p + zarvel_buffer_size(t->buffer));
}

// Item i written the composed way: crop the region, resize it, write it.
void compose(zarvel_tensor_t* t, int item, uint32_t color_type, zarvel_frame_t* frame, Area2D roi,
             Size2D size, const float* mean, const float* std, const float* pad) {
  zarvel_frame_t* cut = nullptr;
  ASSERT_EQ(zarvel_frame_crop(frame, &cut, roi), 0);
  za::FramePtr cut_owned(cut);
  zarvel_frame_t* resized = nullptr;
  ASSERT_EQ(zarvel_frame_resize(cut, &resized, size), 0);
  za::FramePtr resized_owned(resized);
  const auto offset = static_cast<int32_t>(zarvel_tensor_calc_offset(t, item, 0, 0, 0));
  ASSERT_EQ(zarvel_frame_to_tensor(t, offset, color_type, resized, mean, std, pad), 0);
}

TEST(TransformToTensor, FusedEqualsComposed) {
  std::mt19937 rng(2024);
  const float mean[3] = {10.0f, 120.5f, 200.0f}, std[3] = {50.0f, 60.0f, 0.5f};
  int cases = 0;
  for (uint32_t mask : {0u, ~0u}) {
    zarvel::test::FeatureMask features(mask);
    for (uint32_t color_type : {0u, 1u, 2u}) {
      for (uint32_t elem : {ZARVEL_ELEM_U8, ZARVEL_ELEM_F32}) {
        for (int round = 0; round < 6; ++round) {
          const uint32_t formats[] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
          const uint32_t format = formats[rng() % (color_type == 2 ? 3 : 2)];
          const int fw = 20 + static_cast<int>(rng() % 60), fh = 10 + static_cast<int>(rng() % 50);
          auto frame = random_frame(format, fw, fh, rng);
          const int n = 3, H = 8 + static_cast<int>(rng() % 30),
                    W = 8 + static_cast<int>(rng() % 30);
          za::TensorPtr fused(zarvel_tensor_alloc(0, elem, n, color_type == 2 ? 1 : 3, H, W));
          za::TensorPtr composed(zarvel_tensor_alloc(0, elem, n, color_type == 2 ? 1 : 3, H, W));
          std::vector<zarvel_frame_t*> frames(n, frame.get());
          // Inside, partly outside, and a 1-pixel region; up and down.
          std::vector<Area2D> rois = {
              {static_cast<int>(rng() % 10), static_cast<int>(rng() % 5),
               1 + static_cast<int>(rng() % 10), 1 + static_cast<int>(rng() % 5)},
              {-5 + static_cast<int>(rng() % 10), fh - 6, 8 + static_cast<int>(rng() % 50), 12},
              {static_cast<int>(rng() % fw), static_cast<int>(rng() % fh), 1, 1}};
          std::vector<float> pads = {1, 2, 3, 300, -1, 7, 0.5f, 0.25f, 9};
          std::vector<float> sy(n), sx(n);
          zarvel_buffer_t* scratch = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
          const int mode = static_cast<int>(rng() % 2);
          ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(
                        fused.get(), color_type, n, frames.data(), rois.data(), mode, mean, std,
                        pads.data(), &scratch, sy.data(), sx.data()),
                    0);
          zarvel_buffer_free(&scratch);
          for (int i = 0; i < n; ++i) {
            auto item = [](int extent, float scale) {
              return std::max(1, static_cast<int>(std::lround(double(extent) / double(scale))));
            };
            const Size2D size = {item(rois[i].width, sx[i]), item(rois[i].height, sy[i])};
            compose(composed.get(), i, color_type, frame.get(), rois[i], size, mean, std,
                    &pads[3 * i]);
          }
          ASSERT_EQ(tensor_bytes(fused.get()), tensor_bytes(composed.get()))
              << "colour " << color_type << " elem " << elem << " mode " << mode << " round "
              << round;
          ++cases;
        }
      }
    }
  }
  EXPECT_EQ(cases, 72);
}

TEST(TransformToTensor, PlainResizeModeMatchesBatchAndHandlesPads) {
  std::mt19937 rng(7);
  auto a = random_frame(ZARVEL_PIXFMT_RGB24, 40, 30, rng);
  auto b = random_frame(ZARVEL_PIXFMT_BGR24, 25, 35, rng);
  zarvel_frame_t* frames[2] = {a.get(), b.get()};
  Area2D rois[2] = {{3, 4, 30, 20}, {-4, 10, 20, 30}};
  // The second item is wider and taller than the tensor: it is clipped, as to-tensor clips.
  Size2D sizes[2] = {{16, 12}, {40, 30}};
  za::TensorPtr t(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 2, 3, 16, 16));
  za::TensorPtr expected(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 2, 3, 16, 16));
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(8, ZARVEL_MEM_HOST);
  auto o = option(t.get(), 1, ZARVEL_TRANSFORM_RESIZE, 2, frames, rois, sizes, &scratch);
  ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  const float zero[3] = {0, 0, 0};
  for (int i = 0; i < 2; ++i)
    compose(expected.get(), i, 1, frames[i], rois[i], sizes[i], o.mean, o.std, zero);
  EXPECT_EQ(tensor_bytes(t.get()), tensor_bytes(expected.get()));

  // frame_count 0 writes nothing.
  o.frame_count = 0;
  o.flags = ZARVEL_TRANSFORM_NONE;
  za::TensorPtr untouched(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 2, 3, 16, 16));
  o.tensor = untouched.get();
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  for (uint8_t byte : tensor_bytes(untouched.get())) ASSERT_EQ(byte, 0);
  zarvel_buffer_free(&scratch);
}

TEST(TransformToTensor, RefusalsAndTheirMessages) {
  std::mt19937 rng(3);
  LogCapture log;
  auto host = random_frame(ZARVEL_PIXFMT_RGB24, 16, 16, rng);
  auto dev = random_frame(ZARVEL_PIXFMT_RGB24, 16, 16, rng, ZARVEL_MEM_DEVICE);
  za::TensorPtr t(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 2, 3, 8, 8));
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(8, ZARVEL_MEM_HOST);
  zarvel_frame_t* mixed[2] = {host.get(), dev.get()};
  Area2D rois[2] = {{0, 0, 8, 8}, {0, 0, 8, 8}};
  Size2D sizes[2] = {{8, 8}, {8, 8}};
  auto o = option(t.get(), 1, ZARVEL_TRANSFORM_RESIZE, 2, mixed, rois, sizes, &scratch);
  EXPECT_EQ(zarvel_frame_transform_to_tensor(nullptr), -1);
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), -1);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(log.messages().back().text,
            "[zarvel_frame_transform_to_tensor] frames' mem type not the same\n");

  zarvel_frame_t* same[2] = {host.get(), host.get()};
  o.frames = same;
  o.flags = ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_HISTOGRAM;
  log.clear();
  EXPECT_NE(zarvel_frame_transform_to_tensor(&o), 0);
  EXPECT_EQ(log.messages().back().text, "histogram only available in [gray] tensor.\n");

  o.flags = ZARVEL_TRANSFORM_AFFINE;  // no matrices
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), -1);
  o.flags = 7;
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), -1);

  // A host scratch buffer with device frames is replaced by a 1024-byte device buffer.
  zarvel_frame_t* devices[2] = {dev.get(), dev.get()};
  o.frames = devices;
  o.flags = ZARVEL_TRANSFORM_NONE;
  log.clear();
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  EXPECT_EQ(zarvel_buffer_mem_type(scratch), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(zarvel_buffer_size(scratch), 1024);
  const std::string note = std::string("[zarvel_frame_transform_to_tensor] frame mem type: ") +
                           zarvel_device_get_name() +
                           ", buffer mem type: host, reallocate buffer memory.\n";
  EXPECT_EQ(log.messages().front().text, note);
  EXPECT_EQ(log.messages().front().level, 0u);
  zarvel_buffer_free(&scratch);
}

TEST(TransformToTensorBatch, ScalesRegionsAndBatchSize) {
  std::mt19937 rng(11);
  LogCapture log;
  auto frame = random_frame(ZARVEL_PIXFMT_RGB24, 300, 200, rng);
  za::TensorPtr t(zarvel_tensor_alloc(0, ZARVEL_ELEM_U8, 1, 3, 100, 100));
  zarvel_frame_t* frames[1] = {frame.get()};
  const float mean[3] = {0, 0, 0}, std[3] = {1, 1, 1};
  zarvel_buffer_t* scratch = nullptr;
  float sy = 0, sx = 0;
  Area2D roi = {0, 0, 200, 100};
  ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(t.get(), 1, 1, frames, &roi, 0, mean, std,
                                                   nullptr, &scratch, &sy, &sx),
            0);
  EXPECT_EQ(sy, 2.0f);
  EXPECT_EQ(sx, 2.0f);
  ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(t.get(), 1, 1, frames, &roi, 1, mean, std,
                                                   nullptr, &scratch, &sy, &sx),
            0);
  EXPECT_EQ(sy, 1.0f);
  EXPECT_EQ(sx, 2.0f);

  Area2D outside = {-10, -10, 5, 5}, partly = {-10, -10, 20, 20};
  log.clear();
  EXPECT_EQ(zarvel_frame_transform_to_tensor_batch(t.get(), 1, 1, frames, &outside, 0, mean, std,
                                                   nullptr, &scratch, nullptr, nullptr),
            -1);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].text,
            "[zarvel_frame_transform_to_tensor_batch] invalid roi: {-10, -10, 5, 5}\n");
  EXPECT_EQ(zarvel_frame_transform_to_tensor_batch(t.get(), 1, 1, frames, &partly, 0, mean, std,
                                                   nullptr, &scratch, nullptr, nullptr),
            0);
  log.clear();
  EXPECT_EQ(zarvel_frame_transform_to_tensor_batch(t.get(), 1, 2, frames, &roi, 0, mean, std,
                                                   nullptr, &scratch, nullptr, nullptr),
            -1);
  EXPECT_TRUE(log.messages().empty());
  zarvel_buffer_free(&scratch);
}

TEST(TransformToTensorBatch, DeviceFramesAreDownloadedWithANote) {
  std::mt19937 rng(12);
  auto host = random_frame(ZARVEL_PIXFMT_BGR24, 50, 40, rng);
  auto dev = zarvel::test::to_device(host.get());
  za::TensorPtr a(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 1, 3, 20, 20));
  za::TensorPtr b(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 1, 3, 20, 20));
  const float mean[3] = {1, 2, 3}, std[3] = {4, 5, 6};
  Area2D roi = {-5, 7, 40, 50};
  zarvel_buffer_t* scratch = nullptr;
  zarvel_frame_t* frames[2] = {host.get(), dev.get()};
  LogCapture log;
  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(
        zarvel_frame_transform_to_tensor_batch(i ? b.get() : a.get(), 0, 1, &frames[i], &roi, 0,
                                               mean, std, nullptr, &scratch, nullptr, nullptr),
        0);
  EXPECT_EQ(tensor_bytes(a.get()), tensor_bytes(b.get()));
  EXPECT_EQ(zarvel_buffer_mem_type(scratch), ZARVEL_MEM_DEVICE);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_NE(log.messages()[0].text.find("time\xEF\xBC\x8Cspace and bandwidth"), std::string::npos);
  zarvel_buffer_free(&scratch);
}

// Mean and population deviation of one plane of item 0 of an f32 tensor.
std::pair<double, double> plane_stats(const zarvel_tensor_t* t, int c) {
  const auto* p = static_cast<const float*>(zarvel_tensor_data_at(t, 0, c, 0, 0));
  const int n = t->shape[2] * t->shape[3];
  double sum = 0, sq = 0;
  for (int i = 0; i < n; ++i) sum += p[i], sq += double(p[i]) * p[i];
  return {sum / n, std::sqrt(sq / n - (sum / n) * (sum / n))};
}

TEST(TransformToTensor, ChannelNormAndHistogram) {
  std::mt19937 rng(21);
  auto rgb = random_frame(ZARVEL_PIXFMT_RGB24, 64, 48, rng);
  zarvel_frame_t* frames[1] = {rgb.get()};
  Area2D roi = {4, 4, 40, 30};
  Size2D size = {20, 15};
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(8, ZARVEL_MEM_HOST);

  // Colour tensor: every plane is normalised by the item's own statistics.
  za::TensorPtr colour(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 1, 3, 15, 20));
  auto o = option(colour.get(), 1, ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM, 1,
                  frames, &roi, &size, &scratch);
  ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  for (int c = 0; c < 3; ++c) {
    const auto [m, d] = plane_stats(colour.get(), c);
    EXPECT_NEAR(m, 0.0, 1e-4);
    EXPECT_NEAR(d, 1.0, 1e-4);
  }

  // Grey tensor from a colour frame, equalised, then normalised: two adaptations logged.
  LogCapture log;
  za::TensorPtr grey(zarvel_tensor_alloc(0, ZARVEL_ELEM_F32, 1, 1, 15, 20));
  o.tensor = grey.get();
  o.color_type = 2;
  o.flags = ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM | ZARVEL_TRANSFORM_HISTOGRAM;
  ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  const auto [m, d] = plane_stats(grey.get(), 0);
  EXPECT_NEAR(m, 0.0, 1e-4);
  EXPECT_NEAR(d, 1.0, 1e-4);
  int adaptations = 0;
  for (const auto& msg : log.messages()) {
    if (msg.level != 2) continue;
    ++adaptations;
    EXPECT_EQ(msg.text, std::string("[HISTOGRAM] requires gray frame, but got [") +
                            zarvel_frame_pixfmt_to_string(ZARVEL_PIXFMT_RGB24) +
                            "]. Convert color first.\n");
  }
  EXPECT_EQ(adaptations, 1);

  // On a device, channel norm needs a device of the supported families.
  auto dev = random_frame(ZARVEL_PIXFMT_RGB24, 64, 48, rng, ZARVEL_MEM_DEVICE);
  zarvel_frame_t* devices[1] = {dev.get()};
  o.frames = devices;
  o.tensor = colour.get();
  o.color_type = 1;
  o.flags = ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM;
  log.clear();
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), -1000);
  EXPECT_EQ(log.messages().back().text,
            std::string("No support channel norm. on device:[") + zarvel_device_get_name() + "]\n");
  zarvel_device_set_name("hidevice-test");
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  zarvel_device_set_name(nullptr);
  zarvel_buffer_free(&scratch);
}

TEST(TransformToTensor, WarpModesWriteTheWarpedFrame) {
  std::mt19937 rng(8);
  auto frame = random_frame(ZARVEL_PIXFMT_RGB24, 16, 12, rng);
  zarvel_frame_t* frames[2] = {frame.get(), frame.get()};
  float matrices[18] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  za::TensorPtr t(zarvel_tensor_alloc(0, ZARVEL_ELEM_U8, 2, 3, 12, 16));
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(8, ZARVEL_MEM_HOST);
  for (uint32_t mode : {ZARVEL_TRANSFORM_AFFINE, ZARVEL_TRANSFORM_PERSPECTIVE}) {
    auto o = option(t.get(), 1, mode, 2, frames, nullptr, nullptr, &scratch, matrices);
    ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
    // The identity warp gives the frame itself in both items; the vector perspective path
    // divides through a reciprocal estimate, so there a byte may be off by one.
    const int tolerance = mode == ZARVEL_TRANSFORM_PERSPECTIVE ? 1 : 0;
    for (int i = 0; i < 2; ++i)
      for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 16; ++x)
          for (int c = 0; c < 3; ++c)
            ASSERT_NEAR(*static_cast<uint8_t*>(zarvel_tensor_data_at(t.get(), i, c, y, x)),
                        frame->plane[0][y * frame->stride[0] + 3 * x + c], tolerance)
                << mode << " " << i << " " << x << "," << y;
  }
  zarvel_buffer_free(&scratch);
}

}  // namespace
