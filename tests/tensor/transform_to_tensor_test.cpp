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
#include "frame_test_support.h"
#include "op_test_support.h"

namespace za = zarvel::aux;
using zarvel::test::LogCapture;

namespace {

constexpr float kMean[3] = {0, 0, 0}, kStd[3] = {1, 1, 1};
const std::string kExport = "[zarvel_frame_transform_to_tensor] ";

za::FramePtr random_frame(uint32_t format, int w, int h, std::mt19937& rng,
                          uint32_t mem = ZARVEL_MEM_HOST) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  zarvel::test::fill_random(f.get(), rng);
  return mem == ZARVEL_MEM_HOST ? std::move(f) : zarvel::test::to_device(f.get());
}
za::TensorPtr tensor(uint32_t elem, int n, int c, int h, int w) {
  return za::TensorPtr(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, n, c, h, w));
}
std::vector<uint8_t> tensor_bytes(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return std::vector<uint8_t>(p, p + zarvel_buffer_size(t->buffer));
}

// A scratch-buffer slot, freed at the end of the scope.
struct Scratch {
  zarvel_buffer_t* slot = nullptr;
  explicit Scratch(int64_t size = 0) {
    if (size > 0) slot = zarvel_buffer_alloc(size, ZARVEL_MEM_HOST);
  }
  ~Scratch() { zarvel_buffer_free(&slot); }
};

// An option with mean 0, deviation 1 and zero pads.
TransformToTensorOption option(zarvel_tensor_t* t, uint32_t ct, uint32_t flags, uint64_t n,
                               zarvel_frame_t** frames, Area2D* rois, Size2D* sizes,
                               Scratch& scratch, float* matrices = nullptr) {
  return {t,     ct,       flags,     n,         frames,  rois,
          sizes, matrices, {0, 0, 0}, {1, 1, 1}, nullptr, &scratch.slot};
}

// Item i written the composed way: crop the region, resize it, write it.
void compose(zarvel_tensor_t* t, int item, uint32_t color_type, zarvel_frame_t* frame, Area2D roi,
             Size2D size, const float* mean, const float* std, const float* pad) {
  zarvel_frame_t *cut = nullptr, *resized = nullptr;
  ASSERT_EQ(zarvel_frame_crop(frame, &cut, roi), 0);
  za::FramePtr cut_owned(cut);
  ASSERT_EQ(zarvel_frame_resize(cut, &resized, size), 0);
  za::FramePtr resized_owned(resized);
  const auto offset = static_cast<int32_t>(zarvel_tensor_calc_offset(t, item, 0, 0, 0));
  ASSERT_EQ(zarvel_frame_to_tensor(t, offset, color_type, resized, mean, std, pad), 0);
}

// Regions inside, partly outside and of one pixel, scaled up and down, with per-item pads,
// over every colour and element type and both kernel variants, into dense tensors and into
// strided views of larger ones (rows and items follow the parent's strides, and nothing
// outside the view changes).
TEST(TransformToTensor, FusedEqualsComposed) {
  std::mt19937 rng(2024);
  const float mean[3] = {10.0f, 120.5f, 200.0f}, std[3] = {50.0f, 60.0f, 0.5f};
  const float pads[9] = {1, 2, 3, 300, -1, 7, 0.5f, 0.25f, 9};
  const uint32_t formats[] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
  for (uint32_t mask : {0u, ~0u}) {
    zarvel::test::FeatureMask features(mask);
    for (uint32_t ct : {0u, 1u, 2u}) {
      for (uint32_t elem : {ZARVEL_ELEM_U8, ZARVEL_ELEM_F32}) {
        for (int round = 0; round < 6; ++round) {
          const int fw = 20 + int(rng() % 60), fh = 10 + int(rng() % 50);
          auto frame = random_frame(formats[rng() % (ct == 2 ? 3 : 2)], fw, fh, rng);
          const int n = 3, H = 8 + int(rng() % 30), W = 8 + int(rng() % 30), v = round % 2;
          const int32_t start[4] = {v, 0, 3 * v, 5 * v}, shape[4] = {n, ct == 2 ? 1 : 3, H, W};
          za::TensorPtr parents[2], views[2];
          for (int k = 0; k < 2; ++k) {
            parents[k] = tensor(elem, n + v, shape[1], H + 3 * v, W + 5 * v);
            std::memset(zarvel_buffer_raw_pointer(parents[k]->buffer), 0x5A,
                        zarvel_buffer_size(parents[k]->buffer));
            views[k].reset(zarvel_tensor_roi(parents[k].get(), start, shape));
          }
          std::vector<zarvel_frame_t*> frames(n, frame.get());
          const Area2D rois[3] = {
              {int(rng() % 10), int(rng() % 5), 1 + int(rng() % 10), 1 + int(rng() % 5)},
              {-5 + int(rng() % 10), fh - 6, 8 + int(rng() % 50), 12},
              {int(rng() % fw), int(rng() % fh), 1, 1}};
          float sy[3], sx[3];
          Scratch scratch(16);
          const int mode = int(rng() % 2);
          ASSERT_EQ(
              zarvel_frame_transform_to_tensor_batch(views[0].get(), ct, n, frames.data(), rois,
                                                     mode, mean, std, pads, &scratch.slot, sy, sx),
              0);
          auto item = [](int extent, float scale) {
            return std::max(1, static_cast<int>(std::lround(double(extent) / double(scale))));
          };
          for (int i = 0; i < n; ++i) {
            compose(views[1].get(), i, ct, frame.get(), rois[i],
                    {item(rois[i].width, sx[i]), item(rois[i].height, sy[i])}, mean, std,
                    &pads[3 * i]);
          }
          ASSERT_EQ(tensor_bytes(parents[0].get()), tensor_bytes(parents[1].get()))
              << "colour " << ct << " elem " << elem << " mode " << mode << " round " << round;
        }
      }
    }
  }
}

// Resize mode through the option record; the second item is larger than the tensor and is
// clipped as to-tensor clips. frame_count 0 writes nothing.
TEST(TransformToTensor, PlainResizeModeMatchesComposedAndCountZeroWritesNothing) {
  std::mt19937 rng(7);
  auto a = random_frame(ZARVEL_PIXFMT_RGB24, 40, 30, rng);
  auto b = random_frame(ZARVEL_PIXFMT_BGR24, 25, 35, rng);
  zarvel_frame_t* frames[2] = {a.get(), b.get()};
  Area2D rois[2] = {{3, 4, 30, 20}, {-4, 10, 20, 30}};
  Size2D sizes[2] = {{16, 12}, {40, 30}};
  auto t = tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16), expected = tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16);
  Scratch scratch(8);
  auto o = option(t.get(), 1, ZARVEL_TRANSFORM_RESIZE, 2, frames, rois, sizes, scratch);
  ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  for (int i = 0; i < 2; ++i)
    compose(expected.get(), i, 1, frames[i], rois[i], sizes[i], kMean, kStd, kMean);
  EXPECT_EQ(tensor_bytes(t.get()), tensor_bytes(expected.get()));

  auto untouched = tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16);
  o = option(untouched.get(), 1, ZARVEL_TRANSFORM_NONE, 0, frames, rois, sizes, scratch);
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  EXPECT_EQ(tensor_bytes(untouched.get()), std::vector<uint8_t>(16 * 16 * 3 * 2 * 4, 0));
}

TEST(TransformToTensor, RefusalsAndTheirMessages) {
  std::mt19937 rng(3);
  LogCapture log;
  auto host = random_frame(ZARVEL_PIXFMT_RGB24, 16, 16, rng);
  auto dev = random_frame(ZARVEL_PIXFMT_RGB24, 16, 16, rng, ZARVEL_MEM_DEVICE);
  auto t = tensor(ZARVEL_ELEM_F32, 2, 3, 8, 8);
  Scratch scratch(8);
  zarvel_frame_t *mixed[2] = {host.get(), dev.get()}, *same[2] = {host.get(), host.get()};
  zarvel_frame_t* devices[2] = {dev.get(), dev.get()};
  Area2D rois[2] = {{0, 0, 8, 8}, {0, 0, 8, 8}};
  Size2D sizes[2] = {{8, 8}, {8, 8}};
  auto run = [&](zarvel_frame_t** frames, uint32_t flags) {
    log.clear();
    auto o = option(t.get(), 1, flags, 2, frames, rois, sizes, scratch);
    return zarvel_frame_transform_to_tensor(&o);
  };
  auto last_text = [&] { return log.messages().empty() ? "" : log.messages().back().text; };
  EXPECT_EQ(run(mixed, ZARVEL_TRANSFORM_RESIZE), -1);
  EXPECT_EQ(last_text(), kExport + "frames' mem type not the same\n");
  EXPECT_NE(run(same, ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_HISTOGRAM), 0);
  EXPECT_EQ(last_text(), "histogram only available in [gray] tensor.\n");
  EXPECT_EQ(run(same, ZARVEL_TRANSFORM_AFFINE), -1);  // a warp mode without matrices
  // A host scratch buffer with device frames is replaced by a 1024-byte device buffer.
  EXPECT_EQ(run(devices, ZARVEL_TRANSFORM_NONE), 0);
  EXPECT_EQ(zarvel_buffer_mem_type(scratch.slot), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(zarvel_buffer_size(scratch.slot), 1024);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(log.messages().front().text,
            kExport + "frame mem type: " + zarvel_device_get_name() +
                ", buffer mem type: host, reallocate buffer memory.\n");
  EXPECT_EQ(log.messages().front().level, 0u);
}

// 200x100 into 100x100: scales 2, 2 keeping the aspect, 1, 2 stretched. A region wholly
// outside is refused, one partly outside accepted; more frames than items fail silently.
// Device frames are downloaded with a note and give the host frames' items.
TEST(TransformToTensorBatch, ScalesRegionsBatchSizeAndDeviceFrames) {
  std::mt19937 rng(11);
  LogCapture log;
  auto frame = random_frame(ZARVEL_PIXFMT_RGB24, 300, 200, rng);
  auto t = tensor(ZARVEL_ELEM_U8, 1, 3, 100, 100);
  zarvel_frame_t* frames[1] = {frame.get()};
  Scratch scratch;
  float sy[2], sx[2];
  auto run = [&](Area2D roi, int mode, uint64_t count = 1) {
    log.clear();
    return zarvel_frame_transform_to_tensor_batch(t.get(), 1, count, frames, &roi, mode, kMean,
                                                  kStd, nullptr, &scratch.slot, sy, sx);
  };
  ASSERT_EQ(run({0, 0, 200, 100}, 0), 0);
  EXPECT_EQ(std::pair(sy[0], sx[0]), std::pair(2.0f, 2.0f));
  ASSERT_EQ(run({0, 0, 200, 100}, 1), 0);
  EXPECT_EQ(std::pair(sy[0], sx[0]), std::pair(1.0f, 2.0f));
  EXPECT_EQ(run({-10, -10, 20, 20}, 0), 0);
  EXPECT_EQ(run({-10, -10, 5, 5}, 0), -1);
  log.expect(
      {{4, "aux", "[zarvel_frame_transform_to_tensor_batch] invalid roi: {-10, -10, 5, 5}\n"}});
  EXPECT_EQ(run({0, 0, 200, 100}, 0, 2), -1);
  EXPECT_TRUE(log.messages().empty());

  ASSERT_EQ(run({-5, 7, 40, 50}, 0), 0);
  const std::vector<uint8_t> host_item = tensor_bytes(t.get());
  auto dev = zarvel::test::to_device(frame.get());
  frames[0] = dev.get();
  ASSERT_EQ(run({-5, 7, 40, 50}, 0), 0);
  EXPECT_EQ(tensor_bytes(t.get()), host_item);
  EXPECT_EQ(zarvel_buffer_mem_type(scratch.slot), ZARVEL_MEM_DEVICE);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_NE(log.messages()[0].text.find("time\xEF\xBC\x8Cspace and bandwidth"), std::string::npos);
}

// Each plane of item 0 of an f32 tensor has mean 0 and population deviation 1.
void expect_normalised(const zarvel_tensor_t* t) {
  for (int c = 0; c < t->shape[1]; ++c) {
    const auto* p = static_cast<const float*>(zarvel_tensor_data_at(t, 0, c, 0, 0));
    const int n = t->shape[2] * t->shape[3];
    double sum = 0, sq = 0;
    for (int i = 0; i < n; ++i) sum += p[i], sq += double(p[i]) * p[i];
    EXPECT_NEAR(sum / n, 0.0, 1e-4) << c;
    EXPECT_NEAR(std::sqrt(sq / n - (sum / n) * (sum / n)), 1.0, 1e-4) << c;
  }
}

TEST(TransformToTensor, ChannelNormAndHistogram) {
  std::mt19937 rng(21);
  auto rgb = random_frame(ZARVEL_PIXFMT_RGB24, 64, 48, rng);
  zarvel_frame_t* frames[1] = {rgb.get()};
  Area2D roi = {4, 4, 40, 30};
  Size2D size = {20, 15};
  Scratch scratch(8);
  const uint32_t norm = ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM;
  auto colour = tensor(ZARVEL_ELEM_F32, 1, 3, 15, 20), grey = tensor(ZARVEL_ELEM_F32, 1, 1, 15, 20);
  // The statistics follow the frame's byte order.
  auto bgr = random_frame(ZARVEL_PIXFMT_BGR24, 64, 48, rng);
  zarvel_frame_t* bgr_frames[1] = {bgr.get()};
  auto o = option(colour.get(), 1, norm, 1, bgr_frames, &roi, &size, scratch);
  for (zarvel_frame_t** f : {frames, bgr_frames}) {
    o.frames = f;
    ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
    expect_normalised(colour.get());
  }

  // Grey tensor from a colour frame, equalised, then normalised: the conversion is logged.
  LogCapture log;
  o = option(grey.get(), 2, norm | ZARVEL_TRANSFORM_HISTOGRAM, 1, frames, &roi, &size, scratch);
  ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  expect_normalised(grey.get());
  log.expect(
      {{2, "aux", "[HISTOGRAM] requires gray frame, but got [RGB24]. Convert color first.\n"}},
      "aux");

  // On a device, channel norm needs a device of the supported families.
  auto dev = random_frame(ZARVEL_PIXFMT_RGB24, 64, 48, rng, ZARVEL_MEM_DEVICE);
  zarvel_frame_t* devices[1] = {dev.get()};
  o = option(colour.get(), 1, norm, 1, devices, &roi, &size, scratch);
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), -1000);
  EXPECT_EQ(log.messages().back().text,
            std::string("No support channel norm. on device:[") + zarvel_device_get_name() + "]\n");
  zarvel_device_set_name("hidevice-test");
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
  zarvel_device_set_name(nullptr);
}

// The identity warp gives the frame itself in both items; the vector perspective path
// divides through a reciprocal estimate, so there a byte may be off by one.
TEST(TransformToTensor, WarpModesWriteTheWarpedFrame) {
  std::mt19937 rng(8);
  auto frame = random_frame(ZARVEL_PIXFMT_RGB24, 16, 12, rng);
  zarvel_frame_t* frames[2] = {frame.get(), frame.get()};
  float matrices[18] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  auto t = tensor(ZARVEL_ELEM_U8, 2, 3, 12, 16);
  Scratch scratch(8);
  for (uint32_t mode : {ZARVEL_TRANSFORM_AFFINE, ZARVEL_TRANSFORM_PERSPECTIVE}) {
    auto o = option(t.get(), 1, mode, 2, frames, nullptr, nullptr, scratch, matrices);
    ASSERT_EQ(zarvel_frame_transform_to_tensor(&o), 0);
    const int tolerance = mode == ZARVEL_TRANSFORM_PERSPECTIVE ? 1 : 0;
    for (int i = 0; i < 2; ++i)
      for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 16 * 3; ++x)
          ASSERT_NEAR(*static_cast<uint8_t*>(zarvel_tensor_data_at(t.get(), i, x % 3, y, x / 3)),
                      frame->plane[0][y * frame->stride[0] + x], tolerance)
              << mode << " " << i << " " << x << "," << y;
  }
}

}  // namespace
