// One-call preprocessing, single thread: zarvel_frame_transform_to_tensor_batch beside the
// OpenCV chain a user would write (resize, cvtColor, split, convertTo into the planes).
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <random>
#include <vector>

#include "frame_api/frame_api.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif
#ifdef ZARVEL_BENCH_OPENCV_DNN
#include <opencv2/dnn.hpp>
#endif

namespace {

using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;

constexpr int kW = 1920, kH = 1080;
constexpr float kMean[3] = {123.675f, 116.28f, 103.53f};
constexpr float kStd[3] = {58.395f, 57.12f, 57.375f};

struct Case {
  int batch, size;
  bool keep_aspect;
};
constexpr Case kOne224 = {1, 224, false};
constexpr Case kEight112 = {8, 112, false};
constexpr Case kLetterbox640 = {1, 640, true};

std::vector<Area2D> regions(int batch) {
  if (batch == 1) return {{0, 0, kW, kH}};
  std::vector<Area2D> r;
  for (int i = 0; i < batch; ++i) r.push_back({100 + 200 * i, 50 + 80 * i, 300, 400});
  return r;
}

void zarvel_chain(benchmark::State& state, Case c) {
  FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_BGR24, kW, kH, nullptr, 0));
  std::mt19937 rng(1);
  for (int64_t i = 0; i < int64_t{kW} * kH * 3; ++i) frame->plane[0][i] = uint8_t(rng());
  TensorPtr t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, c.batch, 3, c.size, c.size));
  std::vector<zarvel_frame_t*> frames(c.batch, frame.get());
  const auto rois = regions(c.batch);
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(1024, ZARVEL_MEM_HOST);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zarvel_frame_transform_to_tensor_batch(
        t.get(), 1, c.batch, frames.data(), rois.data(), c.keep_aspect ? 0 : 1, kMean, kStd,
        nullptr, &scratch, nullptr, nullptr));
  }
  zarvel_buffer_free(&scratch);
}

#ifdef ZARVEL_BENCH_OPENCV
void opencv_chain(benchmark::State& state, Case c) {
  cv::setNumThreads(1);
  cv::Mat frame(kH, kW, CV_8UC3);
  cv::randu(frame, 0, 256);
  std::vector<float> tensor(static_cast<size_t>(c.batch) * 3 * c.size * c.size);
  const auto rois = regions(c.batch);
  cv::Mat resized, rgb;
  std::vector<cv::Mat> channels;
  for (auto _ : state) {
    for (int i = 0; i < c.batch; ++i) {
      const Area2D r = rois[i];
      cv::Size size(c.size, c.size);
      if (c.keep_aspect) {
        const double s = std::max(double(r.width) / c.size, double(r.height) / c.size);
        size = cv::Size(int(std::lround(r.width / s)), int(std::lround(r.height / s)));
      }
      cv::resize(frame(cv::Rect(r.x, r.y, r.width, r.height)), resized, size, 0, 0,
                 cv::INTER_LINEAR);
      cv::cvtColor(resized, rgb, cv::COLOR_BGR2RGB);
      cv::split(rgb, channels);
      for (int k = 0; k < 3; ++k) {
        cv::Mat plane(c.size, c.size, CV_32F,
                      tensor.data() + (static_cast<size_t>(i) * 3 + k) * c.size * c.size);
        if (c.keep_aspect) plane.setTo(0.0f);
        channels[k].convertTo(plane(cv::Rect(0, 0, size.width, size.height)), CV_32F, 1.0 / kStd[k],
                              -kMean[k] / kStd[k]);
      }
    }
    benchmark::DoNotOptimize(tensor.data());
  }
}
#endif

#ifdef ZARVEL_BENCH_OPENCV_DNN
// cv::dnn::blobFromImages: resize, channel swap, mean and one scale for all channels (the
// middle std) in one call. Stretch only: it has no letterbox.
void opencv_blob(benchmark::State& state, Case c) {
  cv::setNumThreads(1);
  cv::Mat frame(kH, kW, CV_8UC3);
  cv::randu(frame, 0, 256);
  const auto rois = regions(c.batch);
  std::vector<cv::Mat> crops;
  for (const Area2D& r : rois) crops.push_back(frame(cv::Rect(r.x, r.y, r.width, r.height)));
  const int shape[4] = {c.batch, 3, c.size, c.size};
  cv::Mat blob(4, shape, CV_32F);
  const cv::Scalar mean(kMean[2], kMean[1], kMean[0]);  // subtracted before the swap
  for (auto _ : state) {
    cv::dnn::blobFromImages(crops, blob, 1.0 / kStd[1], cv::Size(c.size, c.size), mean, true, false,
                            CV_32F);
    benchmark::DoNotOptimize(blob.data);
  }
}
#endif

int register_all() {
  const struct {
    const char* name;
    Case c;
  } cases[] = {{"1080p_to_1x3x224x224", kOne224},
               {"8_regions_to_8x3x112x112", kEight112},
               {"1080p_letterbox_1x3x640x640", kLetterbox640}};
  for (const auto& k : cases) {
    const std::string name = k.name;
    benchmark::RegisterBenchmark(("zarvel/" + name).c_str(), zarvel_chain, k.c)
        ->Unit(benchmark::kMicrosecond);
#ifdef ZARVEL_BENCH_OPENCV
    benchmark::RegisterBenchmark(("opencv/" + name).c_str(), opencv_chain, k.c)
        ->Unit(benchmark::kMicrosecond);
#endif
#ifdef ZARVEL_BENCH_OPENCV_DNN
    if (!k.c.keep_aspect) {
      benchmark::RegisterBenchmark(("opencv_blob/" + name).c_str(), opencv_blob, k.c)
          ->Unit(benchmark::kMicrosecond);
    }
#endif
  }
  return 0;
}
const int kRegistered = register_all();

}  // namespace

BENCHMARK_MAIN();
