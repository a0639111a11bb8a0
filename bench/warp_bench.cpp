// Affine and perspective warps, single thread: the vector and scalar kernels through the
// exported operations, with OpenCV's warpAffine / warpPerspective (bilinear, inverse map,
// constant border) side by side when it is available.
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

#ifdef ZARVEL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

// A small rotation (3 degrees) about the centre plus a translation, as an inverse map.
std::vector<float> rotation_matrix(bool perspective) {
  const float a = 3.0f * 3.14159265f / 180.0f, c = std::cos(a), s = std::sin(a);
  const float cx = kWidth / 2.0f, cy = kHeight / 2.0f;
  std::vector<float> m = {c, -s, cx - c * cx + s * cy + 7.5f, s, c, cy - s * cx - c * cy - 4.25f};
  if (perspective) m.insert(m.end(), {1e-6f, -2e-6f, 1.0f});
  return m;
}

// Face alignment: a 112 x 112 crop of a face about 300 pixels wide, slightly rotated.
std::vector<float> face_matrix() {
  const float scale = 300.0f / 112.0f, a = 0.1f;
  const float c = std::cos(a) * scale, s = std::sin(a) * scale;
  return {c, s, 900.0f, -s, c, 400.0f};
}

za::FramePtr make_frame(uint32_t format, int w, int h) {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  // A smooth pattern in every byte of every plane.
  uint8_t* p = f->plane[0];
  const int64_t bytes = zarvel_frame_inferred_size(format, w, h, nullptr);
  for (int64_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>((i * 7) ^ (i >> 9));
  return f;
}

void run_zarvel(benchmark::State& state, uint32_t format, int ow, int oh, std::vector<float> m,
                bool perspective, bool vector) {
  za::set_cpu_feature_mask(vector ? ~0u : 0u);
  if (vector && (za::cpu_features() & za::kCpuAvx2Fma) == 0) {
    state.SkipWithError("no 256-bit FMA");
    za::set_cpu_feature_mask(~0u);
    return;
  }
  auto in = make_frame(format, kWidth, kHeight);
  za::FramePtr out(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, ow, oh, nullptr, 0));
  for (auto _ : state) {
    const int32_t status = perspective ? zarvel_frame_warpperspective(in.get(), out.get(), m.data())
                                       : zarvel_frame_warpaffine(in.get(), out.get(), m.data());
    benchmark::DoNotOptimize(status);
    benchmark::ClobberMemory();
  }
  za::set_cpu_feature_mask(~0u);
  state.SetItemsProcessed(state.iterations() * int64_t{ow} * oh);
}

#ifdef ZARVEL_BENCH_OPENCV
void run_opencv(benchmark::State& state, uint32_t format, int ow, int oh, std::vector<float> m,
                bool perspective) {
  cv::setNumThreads(1);
  auto in = make_frame(format, kWidth, kHeight);
  za::FramePtr out(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, ow, oh, nullptr, 0));
  struct PlanePair {
    cv::Mat src, dst;
    std::vector<float> m;
  };
  std::vector<PlanePair> planes;
  const int type = format == ZARVEL_PIXFMT_RGB24 ? CV_8UC3 : CV_8UC1;
  planes.push_back({cv::Mat(kHeight, kWidth, type, in->plane[0], in->stride[0]),
                    cv::Mat(oh, ow, type, out->plane[0], out->stride[0]), m});
  if (format == ZARVEL_PIXFMT_NV12) {
    std::vector<float> chroma = m;
    chroma[2] *= 0.5f;
    chroma[5] *= 0.5f;
    planes.push_back({cv::Mat(kHeight / 2, kWidth / 2, CV_8UC2, in->plane[1], in->stride[1]),
                      cv::Mat(oh / 2, ow / 2, CV_8UC2, out->plane[1], out->stride[1]), chroma});
  }
  const int flags = cv::INTER_LINEAR | cv::WARP_INVERSE_MAP;
  for (auto _ : state) {
    for (PlanePair& p : planes) {
      if (perspective) {
        cv::warpPerspective(p.src, p.dst, cv::Mat(3, 3, CV_32F, p.m.data()), p.dst.size(), flags,
                            cv::BORDER_CONSTANT);
      } else {
        cv::warpAffine(p.src, p.dst, cv::Mat(2, 3, CV_32F, p.m.data()), p.dst.size(), flags,
                       cv::BORDER_CONSTANT);
      }
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * int64_t{ow} * oh);
}
#endif

struct Case {
  const char* name;
  uint32_t format;
  int ow, oh;
  bool perspective;
  bool face;
};

const Case kCases[] = {
    {"affine/rgb24_1080p", ZARVEL_PIXFMT_RGB24, kWidth, kHeight, false, false},
    {"affine/grey_1080p", ZARVEL_PIXFMT_GREY, kWidth, kHeight, false, false},
    {"affine/nv12_1080p", ZARVEL_PIXFMT_NV12, kWidth, kHeight, false, false},
    {"affine/rgb24_face_112", ZARVEL_PIXFMT_RGB24, 112, 112, false, true},
    {"perspective/rgb24_1080p", ZARVEL_PIXFMT_RGB24, kWidth, kHeight, true, false},
    {"perspective/grey_1080p", ZARVEL_PIXFMT_GREY, kWidth, kHeight, true, false},
    {"perspective/nv12_1080p", ZARVEL_PIXFMT_NV12, kWidth, kHeight, true, false},
};

const bool kRegistered = [] {
  for (const Case& c : kCases) {
    const std::vector<float> m = c.face ? face_matrix() : rotation_matrix(c.perspective);
    std::vector<float> full = m;
    if (c.perspective && full.size() == 6) full.insert(full.end(), {0, 0, 1});
    for (bool vector : {true, false}) {
      benchmark::RegisterBenchmark(
          (std::string("zarvel_") + (vector ? "fma/" : "scalar/") + c.name).c_str(),
          [c, full, vector](benchmark::State& s) {
            run_zarvel(s, c.format, c.ow, c.oh, full, c.perspective, vector);
          })
          ->Unit(benchmark::kMicrosecond);
    }
#ifdef ZARVEL_BENCH_OPENCV
    benchmark::RegisterBenchmark((std::string("opencv/") + c.name).c_str(),
                                 [c, full](benchmark::State& s) {
                                   run_opencv(s, c.format, c.ow, c.oh, full, c.perspective);
                                 })
        ->Unit(benchmark::kMicrosecond);
#endif
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
