// Histogram equalisation of a 1920x1080 grey frame, single thread, beside OpenCV's
// equalizeHist when it is installed. Two inputs: uniform noise, and a smooth image whose
// neighbouring pixels repeat levels (the harder case for one histogram).
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <cmath>
#include <random>
#include <vector>

#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kW = 1920, kH = 1080;

std::vector<uint8_t> make_pixels(bool smooth) {
  std::vector<uint8_t> p(static_cast<size_t>(kW) * kH);
  std::mt19937 rng(3);
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      const double v = 60 + 40 * std::sin(x * 0.004) + 30 * std::cos(y * 0.006) + rng() % 3;
      p[static_cast<size_t>(y) * kW + x] = static_cast<uint8_t>(smooth ? v : rng() & 0xff);
    }
  }
  return p;
}

// `mask` limits the processor features the kernels may use (~0: all of them).
void BM_Zarvel_equalize(benchmark::State& state, bool smooth, uint32_t mask) {
  za::set_cpu_feature_mask(mask);
  const auto pixels = make_pixels(smooth);
  za::FramePtr src(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, kW, kH, nullptr, 0));
  za::FramePtr dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, kW, kH, nullptr, 0));
  std::copy(pixels.begin(), pixels.end(), src->plane[0]);
  for (auto _ : state) {
    zarvel_frame_t* slot = dst.get();
    benchmark::DoNotOptimize(zarvel_frame_equalize_hist(src.get(), &slot));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH);
  za::set_cpu_feature_mask(~0u);
}
// The whole kernel, and with the scalar count (the vector mapping stays).
BENCHMARK_CAPTURE(BM_Zarvel_equalize, noise, false, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel_equalize, smooth, true, ~0u);
BENCHMARK_CAPTURE(BM_Zarvel_equalize, noise_scalar_count, false, ~za::kCpuAvx512Bits);
BENCHMARK_CAPTURE(BM_Zarvel_equalize, smooth_scalar_count, true, ~za::kCpuAvx512Bits);

#ifdef ZARVEL_BENCH_OPENCV
void BM_OpenCv_equalizeHist(benchmark::State& state, bool smooth) {
  cv::setNumThreads(1);
  auto pixels = make_pixels(smooth);
  cv::Mat src(kH, kW, CV_8UC1, pixels.data()), dst;
  for (auto _ : state) {
    cv::equalizeHist(src, dst);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kW} * kH);
}
BENCHMARK_CAPTURE(BM_OpenCv_equalizeHist, noise, false);
BENCHMARK_CAPTURE(BM_OpenCv_equalizeHist, smooth, true);
#endif

}  // namespace

BENCHMARK_MAIN();
