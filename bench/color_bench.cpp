// Colour conversion at 1920x1080, single thread: each variant of ours beside OpenCV's
// cvtColor and libyuv when they are installed, and a memcpy of the output bytes as the floor.
//
// libyuv names packed formats by their 32-bit word: its "RAW" is R,G,B in memory (our RGB24)
// and its "RGB24" is B,G,R (our BGR24).
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <cstring>
#include <vector>

#include "bench/bench_frames.h"
#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#endif
#ifdef ZARVEL_BENCH_LIBYUV
#include <libyuv.h>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kW = 1920, kH = 1080;
constexpr uint32_t kGrey = ZARVEL_PIXFMT_GREY, kGrey16 = ZARVEL_PIXFMT_GREY16;
constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24, kBgr = ZARVEL_PIXFMT_BGR24;
constexpr uint32_t kNv12 = ZARVEL_PIXFMT_NV12, kNv21 = ZARVEL_PIXFMT_NV21;
constexpr uint32_t kYu12 = ZARVEL_PIXFMT_YU12;
constexpr uint32_t kScalar = 0u, kAll = ~0u, kNarrow = za::kCpuAvx | za::kCpuAvx2;

za::FramePtr random_frame(uint32_t format) { return za::bench::random_frame(format, kW, kH); }

int64_t frame_bytes(uint32_t format) { return zarvel_frame_inferred_size(format, kW, kH, nullptr); }

void BM_Zarvel(benchmark::State& state, uint32_t from, uint32_t to, uint32_t mask) {
  auto src = random_frame(from);
  za::FramePtr dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, to, kW, kH, nullptr, 0));
  za::set_cpu_feature_mask(mask);
  for (auto _ : state) {
    zarvel_frame_t* slot = dst.get();
    benchmark::DoNotOptimize(zarvel_frame_cvt_color(src.get(), &slot, to));
    benchmark::ClobberMemory();
  }
  za::set_cpu_feature_mask(~0u);
  state.SetBytesProcessed(state.iterations() * frame_bytes(to));
}

// The floor: copying as many bytes as the conversion writes.
void BM_Memcpy(benchmark::State& state, uint32_t to) {
  const auto bytes = static_cast<size_t>(frame_bytes(to));
  std::vector<uint8_t> a(bytes, 1), b(bytes);
  for (auto _ : state) {
    std::memcpy(b.data(), a.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

#define ZARVEL_CASE(label, from, to)                               \
  BENCHMARK_CAPTURE(BM_Zarvel, label##_scalar, from, to, kScalar); \
  BENCHMARK_CAPTURE(BM_Zarvel, label##_vector, from, to, kAll);    \
  BENCHMARK_CAPTURE(BM_Memcpy, label##_memcpy, to)

ZARVEL_CASE(NV12_RGB24, kNv12, kRgb);
ZARVEL_CASE(NV21_BGR24, kNv21, kBgr);
ZARVEL_CASE(YU12_RGB24, kYu12, kRgb);
BENCHMARK_CAPTURE(BM_Zarvel, YU12_RGB24_sse41, kYu12, kRgb, kNarrow);
ZARVEL_CASE(RGB24_NV12, kRgb, kNv12);
ZARVEL_CASE(RGB24_YU12, kRgb, kYu12);
ZARVEL_CASE(BGR24_GREY, kBgr, kGrey);
ZARVEL_CASE(RGB24_BGR24, kRgb, kBgr);
ZARVEL_CASE(GREY_RGB24, kGrey, kRgb);
ZARVEL_CASE(GREY16_GREY, kGrey16, kGrey);

#ifdef ZARVEL_BENCH_OPENCV
// cv::Mat views over our frames (tight strides), so both sides touch the same memory layout.
void BM_OpenCV(benchmark::State& state, uint32_t from, uint32_t to, int code) {
  cv::setNumThreads(1);
  auto src = random_frame(from);
  za::FramePtr dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, to, kW, kH, nullptr, 0));
  const bool yuv_in = za::is_yuv420(from), yuv_out = za::is_yuv420(to);
  const int in_type =
      from == kGrey16 ? CV_16UC1 : (from == kRgb || from == kBgr ? CV_8UC3 : CV_8UC1);
  const int out_type = to == kRgb || to == kBgr ? CV_8UC3 : CV_8UC1;
  cv::Mat in(yuv_in ? kH * 3 / 2 : kH, kW, in_type, src->plane[0]);
  cv::Mat out(yuv_out ? kH * 3 / 2 : kH, kW, out_type, dst->plane[0]);
  for (auto _ : state) {
    if (from == kGrey16) {
      cv::normalize(in, out, 0, 255, cv::NORM_MINMAX, CV_8U);
    } else {
      cv::cvtColor(in, out, code);
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * frame_bytes(to));
}

BENCHMARK_CAPTURE(BM_OpenCV, NV12_RGB24, kNv12, kRgb, cv::COLOR_YUV2RGB_NV12);
BENCHMARK_CAPTURE(BM_OpenCV, NV21_BGR24, kNv21, kBgr, cv::COLOR_YUV2BGR_NV21);
BENCHMARK_CAPTURE(BM_OpenCV, YU12_RGB24, kYu12, kRgb, cv::COLOR_YUV2RGB_I420);
// OpenCV has no NV12 output: RGB -> I420 is the nearest work.
BENCHMARK_CAPTURE(BM_OpenCV, RGB24_NV12_as_I420, kRgb, kYu12, cv::COLOR_RGB2YUV_I420);
BENCHMARK_CAPTURE(BM_OpenCV, RGB24_YU12, kRgb, kYu12, cv::COLOR_RGB2YUV_I420);
BENCHMARK_CAPTURE(BM_OpenCV, BGR24_GREY, kBgr, kGrey, cv::COLOR_BGR2GRAY);
BENCHMARK_CAPTURE(BM_OpenCV, RGB24_BGR24, kRgb, kBgr, cv::COLOR_RGB2BGR);
BENCHMARK_CAPTURE(BM_OpenCV, GREY_RGB24, kGrey, kRgb, cv::COLOR_GRAY2RGB);
// A min-max normalisation: a comparable two-pass 16-bit to 8-bit stretch.
BENCHMARK_CAPTURE(BM_OpenCV, GREY16_GREY_normalize, kGrey16, kGrey, 0);
#endif

#ifdef ZARVEL_BENCH_LIBYUV
enum class Yuv { kNv12ToRaw, kNv21ToRgb24, kI420ToRaw, kRawToI420, kRgb24ToJ400, kRawToRgb24 };

void BM_Libyuv(benchmark::State& state, uint32_t from, uint32_t to, Yuv op) {
  auto s = random_frame(from);
  za::FramePtr d(zarvel_frame_alloc(ZARVEL_MEM_HOST, to, kW, kH, nullptr, 0));
  for (auto _ : state) {
    switch (op) {
      case Yuv::kNv12ToRaw:
        libyuv::NV12ToRAW(s->plane[0], s->stride[0], s->plane[1], s->stride[1], d->plane[0],
                          d->stride[0], kW, kH);
        break;
      case Yuv::kNv21ToRgb24:
        libyuv::NV21ToRGB24(s->plane[0], s->stride[0], s->plane[1], s->stride[1], d->plane[0],
                            d->stride[0], kW, kH);
        break;
      case Yuv::kI420ToRaw:
        libyuv::I420ToRAW(s->plane[0], s->stride[0], s->plane[1], s->stride[1], s->plane[2],
                          s->stride[2], d->plane[0], d->stride[0], kW, kH);
        break;
      case Yuv::kRawToI420:
        libyuv::RAWToI420(s->plane[0], s->stride[0], d->plane[0], d->stride[0], d->plane[1],
                          d->stride[1], d->plane[2], d->stride[2], kW, kH);
        break;
      case Yuv::kRgb24ToJ400:
        libyuv::RGB24ToJ400(s->plane[0], s->stride[0], d->plane[0], d->stride[0], kW, kH);
        break;
      case Yuv::kRawToRgb24:
        libyuv::RAWToRGB24(s->plane[0], s->stride[0], d->plane[0], d->stride[0], kW, kH);
        break;
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * frame_bytes(to));
}

BENCHMARK_CAPTURE(BM_Libyuv, NV12_RGB24, kNv12, kRgb, Yuv::kNv12ToRaw);
BENCHMARK_CAPTURE(BM_Libyuv, NV21_BGR24, kNv21, kBgr, Yuv::kNv21ToRgb24);
BENCHMARK_CAPTURE(BM_Libyuv, YU12_RGB24, kYu12, kRgb, Yuv::kI420ToRaw);
// libyuv has no RAW -> NV12: RAW -> I420 is the nearest work.
BENCHMARK_CAPTURE(BM_Libyuv, RGB24_NV12_as_I420, kRgb, kYu12, Yuv::kRawToI420);
BENCHMARK_CAPTURE(BM_Libyuv, RGB24_YU12, kRgb, kYu12, Yuv::kRawToI420);
BENCHMARK_CAPTURE(BM_Libyuv, BGR24_GREY_J400, kBgr, kGrey, Yuv::kRgb24ToJ400);
BENCHMARK_CAPTURE(BM_Libyuv, RGB24_BGR24, kRgb, kBgr, Yuv::kRawToRgb24);
#endif

}  // namespace

BENCHMARK_MAIN();
