// Resize from a 1920x1080 source, single-threaded: our scalar and AVX2 variants beside
// OpenCV INTER_LINEAR and libyuv's bilinear scalers.
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include "bench/bench_frames.h"
#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif
#ifdef ZARVEL_BENCH_LIBYUV
#include <libyuv/scale.h>
#include <libyuv/scale_rgb.h>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kSrcW = 1920, kSrcH = 1080;

za::FramePtr source(uint32_t format) { return za::bench::random_frame(format, kSrcW, kSrcH, 7); }

void zarvel_resize(benchmark::State& state, uint32_t format, int dw, int dh, uint32_t mask) {
  za::set_cpu_feature_mask(mask);
  auto src = source(format);
  za::FramePtr dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, dw, dh, nullptr, 0));
  for (auto _ : state) {
    zarvel_frame_t* out = dst.get();
    benchmark::DoNotOptimize(zarvel_frame_resize(src.get(), &out, {dw, dh}));
  }
  za::set_cpu_feature_mask(~0u);
}

#ifdef ZARVEL_BENCH_OPENCV
void opencv_resize(benchmark::State& state, int type, int dw, int dh, bool nv12) {
  cv::setNumThreads(1);
  cv::Mat src(kSrcH, kSrcW, type), dst(dh, dw, type);
  cv::randu(src, 0, 255);
  cv::Mat uv(kSrcH / 2, kSrcW / 2, CV_8UC2), uv_dst(dh / 2, dw / 2, CV_8UC2);
  for (auto _ : state) {
    cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_LINEAR);
    if (nv12) cv::resize(uv, uv_dst, uv_dst.size(), 0, 0, cv::INTER_LINEAR);
    benchmark::DoNotOptimize(dst.data);
  }
}
#endif

#ifdef ZARVEL_BENCH_LIBYUV
void libyuv_grey(benchmark::State& state, int dw, int dh) {
  std::vector<uint8_t> src(kSrcW * kSrcH, 9), dst(dw * dh);
  for (auto _ : state) {
    libyuv::ScalePlane(src.data(), kSrcW, kSrcW, kSrcH, dst.data(), dw, dw, dh,
                       libyuv::kFilterBilinear);
    benchmark::DoNotOptimize(dst.data());
  }
}
void libyuv_rgb(benchmark::State& state, int dw, int dh) {
  std::vector<uint8_t> src(kSrcW * kSrcH * 3, 9), dst(static_cast<size_t>(dw) * dh * 3);
  for (auto _ : state) {
    libyuv::RGBScale(src.data(), kSrcW * 3, kSrcW, kSrcH, dst.data(), dw * 3, dw, dh,
                     libyuv::kFilterBilinear);
    benchmark::DoNotOptimize(dst.data());
  }
}
void libyuv_nv12(benchmark::State& state, int dw, int dh) {
  std::vector<uint8_t> src(kSrcW * kSrcH * 3 / 2, 9), dst(dw * dh * 3 / 2);
  for (auto _ : state) {
    libyuv::NV12Scale(src.data(), kSrcW, src.data() + kSrcW * kSrcH, kSrcW, kSrcW, kSrcH,
                      dst.data(), dw, dst.data() + dw * dh, dw, dw, dh, libyuv::kFilterBilinear);
    benchmark::DoNotOptimize(dst.data());
  }
}
#endif

struct Case {
  const char* name;
  uint32_t format;
  int dw, dh;
};
const Case kCases[] = {{"RGB24_to_640x360", ZARVEL_PIXFMT_RGB24, 640, 360},
                       {"RGB24_to_224x224", ZARVEL_PIXFMT_RGB24, 224, 224},
                       {"RGB24_to_3840x2160", ZARVEL_PIXFMT_RGB24, 3840, 2160},
                       {"GREY_to_640x360", ZARVEL_PIXFMT_GREY, 640, 360},
                       {"NV12_to_640x360", ZARVEL_PIXFMT_NV12, 640, 360}};

int register_all() {
  for (const Case& c : kCases) {
    const std::string name = c.name;
    benchmark::RegisterBenchmark(("zarvel_c/" + name).c_str(), zarvel_resize, c.format, c.dw, c.dh,
                                 0u)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("zarvel_avx2/" + name).c_str(), zarvel_resize, c.format, c.dw,
                                 c.dh, ~za::kCpuAvx512Vbmi)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("zarvel_avx512/" + name).c_str(), zarvel_resize, c.format, c.dw,
                                 c.dh, ~0u)
        ->Unit(benchmark::kMicrosecond);
#ifdef ZARVEL_BENCH_OPENCV
    const int type = c.format == ZARVEL_PIXFMT_RGB24 ? CV_8UC3 : CV_8UC1;
    benchmark::RegisterBenchmark(("opencv/" + name).c_str(), opencv_resize, type, c.dw, c.dh,
                                 c.format == ZARVEL_PIXFMT_NV12)
        ->Unit(benchmark::kMicrosecond);
#endif
#ifdef ZARVEL_BENCH_LIBYUV
    if (c.format == ZARVEL_PIXFMT_RGB24)
      benchmark::RegisterBenchmark(("libyuv/" + name).c_str(), libyuv_rgb, c.dw, c.dh)
          ->Unit(benchmark::kMicrosecond);
    if (c.format == ZARVEL_PIXFMT_GREY)
      benchmark::RegisterBenchmark(("libyuv/" + name).c_str(), libyuv_grey, c.dw, c.dh)
          ->Unit(benchmark::kMicrosecond);
    if (c.format == ZARVEL_PIXFMT_NV12)
      benchmark::RegisterBenchmark(("libyuv/" + name).c_str(), libyuv_nv12, c.dw, c.dh)
          ->Unit(benchmark::kMicrosecond);
#endif
  }
  return 0;
}
const int kRegistered = register_all();

}  // namespace

BENCHMARK_MAIN();
