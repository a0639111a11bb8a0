// Rotation at 1920x1080, single thread: each variant of ours beside OpenCV's cv::rotate and
// libyuv's RotatePlane90 / NV12ToI420Rotate when they are installed.
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <vector>

#include "bench/bench_frames.h"
#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#endif
#ifdef ZARVEL_BENCH_LIBYUV
#include <libyuv.h>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kW = 1920, kH = 1080;

using za::bench::random_frame;

void BM_Zarvel(benchmark::State& state, uint32_t format, int code, uint32_t mask) {
  auto src = random_frame(format, kW, kH);
  const bool quarter = code != 1;
  za::FramePtr dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, quarter ? kH : kW, quarter ? kW : kH,
                                      nullptr, 0));
  za::set_cpu_feature_mask(mask);
  for (auto _ : state) {
    zarvel_frame_t* slot = dst.get();
    benchmark::DoNotOptimize(zarvel_frame_rotate(src.get(), &slot, code));
    benchmark::ClobberMemory();
  }
  za::set_cpu_feature_mask(~0u);
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH * zarvel_frame_pixel_size(format));
}

BENCHMARK_CAPTURE(BM_Zarvel, rot90_grey_scalar, ZARVEL_PIXFMT_GREY, 0, 0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot90_grey_ssse3, ZARVEL_PIXFMT_GREY, 0, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot90_rgb24_scalar, ZARVEL_PIXFMT_RGB24, 0, 0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot90_rgb24_avx2, ZARVEL_PIXFMT_RGB24, 0, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot90_nv12_scalar, ZARVEL_PIXFMT_NV12, 0, 0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot90_nv12_ssse3, ZARVEL_PIXFMT_NV12, 0, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot180_rgb24_scalar, ZARVEL_PIXFMT_RGB24, 1, 0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot180_rgb24_ssse3, ZARVEL_PIXFMT_RGB24, 1, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot180_grey_scalar, ZARVEL_PIXFMT_GREY, 1, 0u);
BENCHMARK_CAPTURE(BM_Zarvel, rot180_grey_ssse3, ZARVEL_PIXFMT_GREY, 1, ~0u);

#ifdef ZARVEL_BENCH_OPENCV
void BM_OpenCv(benchmark::State& state, int type, int rotate_code) {
  cv::setNumThreads(1);
  cv::Mat src(kH, kW, type), dst;
  cv::randu(src, 0, 256);
  for (auto _ : state) {
    cv::rotate(src, dst, rotate_code);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH * src.elemSize());
}
BENCHMARK_CAPTURE(BM_OpenCv, rot90_grey, CV_8UC1, cv::ROTATE_90_CLOCKWISE);
BENCHMARK_CAPTURE(BM_OpenCv, rot90_rgb24, CV_8UC3, cv::ROTATE_90_CLOCKWISE);
BENCHMARK_CAPTURE(BM_OpenCv, rot180_rgb24, CV_8UC3, cv::ROTATE_180);

// NV12 as two cv::rotate calls: the luma plane and the interleaved chroma plane.
void BM_OpenCv_nv12_rot90(benchmark::State& state) {
  cv::setNumThreads(1);
  cv::Mat y(kH, kW, CV_8UC1), uv(kH / 2, kW / 2, CV_8UC2), dy, duv;
  cv::randu(y, 0, 256);
  cv::randu(uv, 0, 256);
  for (auto _ : state) {
    cv::rotate(y, dy, cv::ROTATE_90_CLOCKWISE);
    cv::rotate(uv, duv, cv::ROTATE_90_CLOCKWISE);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH);
}
BENCHMARK(BM_OpenCv_nv12_rot90);
#endif

#ifdef ZARVEL_BENCH_LIBYUV
void BM_Libyuv_RotatePlane90(benchmark::State& state) {
  auto src = random_frame(ZARVEL_PIXFMT_GREY, kW, kH);
  std::vector<uint8_t> dst(static_cast<size_t>(kW) * kH);
  for (auto _ : state) {
    libyuv::RotatePlane90(src->plane[0], src->stride[0], dst.data(), kH, kW, kH);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH);
}
BENCHMARK(BM_Libyuv_RotatePlane90);

void BM_Libyuv_NV12ToI420Rotate90(benchmark::State& state) {
  auto src = random_frame(ZARVEL_PIXFMT_NV12, kW, kH);
  std::vector<uint8_t> y(static_cast<size_t>(kW) * kH), u(y.size() / 4), v(y.size() / 4);
  for (auto _ : state) {
    libyuv::NV12ToI420Rotate(src->plane[0], src->stride[0], src->plane[1], src->stride[1], y.data(),
                             kH, u.data(), kH / 2, v.data(), kH / 2, kW, kH, libyuv::kRotate90);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH);
}
BENCHMARK(BM_Libyuv_NV12ToI420Rotate90);
#endif

}  // namespace

BENCHMARK_MAIN();
