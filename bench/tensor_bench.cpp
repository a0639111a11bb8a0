// Frame-to-tensor throughput, single thread: the writer with the vector and the scalar
// kernels, OpenCV's split + convertTo into the same planes, and a memcpy of the tensor's bytes.
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <cstring>
#include <random>
#include <vector>

#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#endif
#ifdef ZARVEL_BENCH_OPENCV_DNN
#include <opencv2/dnn.hpp>
#endif

namespace {

using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;

constexpr float kMean[3] = {123.675f, 116.28f, 103.53f};
constexpr float kStd[3] = {58.395f, 57.12f, 57.375f};
constexpr float kPad[3] = {0, 0, 0};

struct Case {
  uint32_t format;
  uint32_t elem;
  uint32_t color_type;
  int32_t size;
};

constexpr Case kRgbF32 = {ZARVEL_PIXFMT_RGB24, ZARVEL_ELEM_F32, 1, 640};
constexpr Case kRgbU8 = {ZARVEL_PIXFMT_RGB24, ZARVEL_ELEM_U8, 1, 640};
constexpr Case kGreyF32 = {ZARVEL_PIXFMT_GREY, ZARVEL_ELEM_F32, 2, 640};
constexpr Case kBgrF32Small = {ZARVEL_PIXFMT_BGR24, ZARVEL_ELEM_F32, 1, 224};

struct Setup {
  explicit Setup(const Case& c) {
    frame.reset(zarvel_frame_alloc(ZARVEL_MEM_HOST, c.format, c.size, c.size, nullptr, 0));
    const int planes = c.color_type == 2 ? 1 : 3;
    tensor.reset(zarvel_tensor_alloc(ZARVEL_MEM_HOST, c.elem, 1, planes, c.size, c.size));
    std::mt19937 rng(1);
    const int64_t bytes = int64_t{c.size} * c.size * zarvel_frame_pixel_size(c.format);
    for (int64_t i = 0; i < bytes; ++i) frame->plane[0][i] = static_cast<uint8_t>(rng());
    tensor_bytes = zarvel_buffer_size(tensor->buffer);
  }
  FramePtr frame;
  TensorPtr tensor;
  int64_t tensor_bytes;
};

void run_zarvel(benchmark::State& state, const Case& c, uint32_t mask) {
  Setup s(c);
  zarvel::aux::set_cpu_feature_mask(mask);
  for (auto _ : state) {
    const int32_t status =
        zarvel_frame_to_tensor(s.tensor.get(), 0, c.color_type, s.frame.get(), kMean, kStd, kPad);
    if (status != 0) state.SkipWithError("zarvel_frame_to_tensor failed");
    benchmark::ClobberMemory();
  }
  zarvel::aux::set_cpu_feature_mask(~0u);
  state.SetBytesProcessed(state.iterations() * s.tensor_bytes);
}

void run_memcpy(benchmark::State& state, const Case& c) {
  Setup s(c);
  std::vector<uint8_t> from(static_cast<size_t>(s.tensor_bytes), 1);
  for (auto _ : state) {
    std::memcpy(zarvel_tensor_raw_pointer(s.tensor.get()), from.data(), from.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * s.tensor_bytes);
}

#if defined(ZARVEL_BENCH_OPENCV) || defined(ZARVEL_BENCH_OPENCV_DNN)
// The case's packed source frame as an OpenCV matrix over the same pixels.
cv::Mat packed_source(const Setup& s, const Case& c) {
  return cv::Mat(c.size, c.size, CV_8UC(zarvel_frame_pixel_size(c.format)), s.frame->plane[0],
                 s.frame->stride[0]);
}
#endif

#ifdef ZARVEL_BENCH_OPENCV
// Splits the packed frame into u8 planes, then converts each plane into its tensor plane
// with (v - mean) / std as convertTo's alpha and beta.
void run_opencv(benchmark::State& state, const Case& c) {
  cv::setNumThreads(1);
  Setup s(c);
  const int n = c.size;
  const cv::Mat src = packed_source(s, c);
  const int depth = c.elem == ZARVEL_ELEM_F32 ? CV_32F : CV_8U;
  const size_t esize = c.elem == ZARVEL_ELEM_F32 ? 4 : 1;
  auto* base = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(s.tensor.get()));
  std::vector<cv::Mat> dst;
  for (int p = 0; p < (c.color_type == 2 ? 1 : 3); ++p) {
    dst.emplace_back(n, n, depth, base + p * size_t(n) * n * esize);
  }
  const bool swap = c.format == ZARVEL_PIXFMT_BGR24;  // into an RGB tensor
  std::vector<cv::Mat> planes;
  for (auto _ : state) {
    if (c.color_type == 2) {
      src.convertTo(dst[0], depth, 1.0 / kStd[1], -kMean[1] / kStd[1]);
    } else if (depth == CV_8U) {
      cv::split(src, dst);
    } else {
      cv::split(src, planes);
      for (int p = 0; p < 3; ++p) {
        const int k = swap ? 2 - p : p;
        planes[k].convertTo(dst[p], depth, 1.0 / kStd[p], -kMean[p] / kStd[p]);
      }
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * s.tensor_bytes);
}
#endif

#ifdef ZARVEL_BENCH_OPENCV_DNN
// cv::dnn::blobFromImage into the tensor's memory: one call for mean subtraction, scaling and
// the planar layout. It takes one scale for all channels (the middle std here), so it does a
// little less than the per-channel normalisation above; it is a float-only peer.
void run_opencv_blob(benchmark::State& state, const Case& c) {
  cv::setNumThreads(1);
  Setup s(c);
  const int n = c.size;
  const cv::Mat src = packed_source(s, c);
  const int planes = c.color_type == 2 ? 1 : 3;
  const int shape[4] = {1, planes, n, n};
  cv::Mat blob(4, shape, CV_32F, zarvel_tensor_raw_pointer(s.tensor.get()));
  const bool swap = c.format == ZARVEL_PIXFMT_BGR24;  // into an RGB tensor
  const cv::Scalar mean(kMean[0], kMean[1], kMean[2]);
  for (auto _ : state) {
    cv::dnn::blobFromImage(src, blob, 1.0 / kStd[1], cv::Size(), mean, swap, false, CV_32F);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * s.tensor_bytes);
}
#endif

void register_case(const char* name, const Case& c) {
  const std::string n = name;
  benchmark::RegisterBenchmark((n + "/zarvel").c_str(), run_zarvel, c, ~0u);
  benchmark::RegisterBenchmark((n + "/zarvel_scalar").c_str(), run_zarvel, c, 0u);
#ifdef ZARVEL_BENCH_OPENCV
  benchmark::RegisterBenchmark((n + "/opencv").c_str(), run_opencv, c);
#endif
#ifdef ZARVEL_BENCH_OPENCV_DNN
  if (c.elem == ZARVEL_ELEM_F32) {
    benchmark::RegisterBenchmark((n + "/opencv_blob").c_str(), run_opencv_blob, c);
  }
#endif
  benchmark::RegisterBenchmark((n + "/memcpy").c_str(), run_memcpy, c);
}

}  // namespace

int main(int argc, char** argv) {
  register_case("rgb24_640_to_f32", kRgbF32);
  register_case("rgb24_640_to_u8", kRgbU8);
  register_case("grey_640_to_f32", kGreyF32);
  register_case("bgr24_224_to_f32_rgb", kBgrF32Small);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
