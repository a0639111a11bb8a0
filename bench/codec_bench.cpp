// Image decoding and encoding of a 1920x1080 RGB picture, single thread: ours (stb_image and
// stb_image_write inside zarvel_frame_load_from_memory / zarvel_frame_encode) beside OpenCV's
// imdecode / imencode (libjpeg-turbo, libpng) on the same bytes when OpenCV's codecs are linked.
#include <benchmark/benchmark.h>
#include <zarvel/aux.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "frame_api/frame_api.h"

#ifdef ZARVEL_BENCH_OPENCV_IMGCODECS
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#endif

namespace za = zarvel::aux;

namespace {

constexpr int kW = 1920, kH = 1080;

// Smooth shapes with a little sensor-like noise: compresses like a photograph, not like a
// flat test card or white noise.
za::FramePtr picture() {
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, kW, kH, nullptr, 0));
  std::mt19937 rng(7);
  for (int y = 0; y < kH; ++y) {
    uint8_t* row = f->plane[0] + int64_t{y} * f->stride[0];
    for (int x = 0; x < kW; ++x) {
      for (int c = 0; c < 3; ++c) {
        const double v = 128 + 60 * std::sin(x * (0.004 + 0.002 * c) + y * 0.003) +
                         40 * std::cos(std::hypot(x - 900.0, y - 500.0) * 0.02 + c) +
                         static_cast<int>(rng() % 9) - 4;
        row[3 * x + c] = static_cast<uint8_t>(std::lround(std::fmin(255.0, std::fmax(0.0, v))));
      }
    }
  }
  return f;
}

const za::FramePtr& the_picture() {
  static const za::FramePtr frame = picture();
  return frame;
}

std::vector<uint8_t> encoded(int32_t format) {
  za::BufferPtr buffer(zarvel_buffer_alloc(0, ZARVEL_MEM_HOST));
  zarvel_frame_encode(the_picture().get(), format, buffer.get());
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(buffer.get()));
  return {p, p + zarvel_buffer_size(buffer.get())};
}

void decode_zarvel(benchmark::State& state, const std::vector<uint8_t>& bytes) {
  for (auto _ : state) {
    zarvel_frame_t* f =
        zarvel_frame_load_from_memory(bytes.data(), static_cast<int32_t>(bytes.size()));
    benchmark::DoNotOptimize(f);
    zarvel_frame_free(&f);
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

void BM_Decode_Zarvel(benchmark::State& state, int32_t format) {
  decode_zarvel(state, encoded(format));
}

void BM_Encode_Zarvel(benchmark::State& state, int32_t format) {
  za::BufferPtr buffer(zarvel_buffer_alloc(0, ZARVEL_MEM_HOST));
  for (auto _ : state) {
    benchmark::DoNotOptimize(zarvel_frame_encode(the_picture().get(), format, buffer.get()));
  }
  state.counters["bytes"] = static_cast<double>(zarvel_buffer_size(buffer.get()));
}

BENCHMARK_CAPTURE(BM_Decode_Zarvel, jpeg, ZARVEL_IMAGE_JPEG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode_Zarvel, png, ZARVEL_IMAGE_PNG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode_Zarvel, jpeg_q100, ZARVEL_IMAGE_JPEG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode_Zarvel, png, ZARVEL_IMAGE_PNG)->Unit(benchmark::kMillisecond);

#ifdef ZARVEL_BENCH_OPENCV_IMGCODECS
// OpenCV keeps B,G,R order; the pixel order does not change the codec's work.
cv::Mat picture_mat() {
  const zarvel_frame_t* f = the_picture().get();
  return cv::Mat(kH, kW, CV_8UC3, f->plane[0], static_cast<size_t>(f->stride[0])).clone();
}

void decode_opencv(benchmark::State& state, const std::vector<uint8_t>& bytes) {
  cv::setNumThreads(1);
  for (auto _ : state) {
    cv::Mat m = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    benchmark::DoNotOptimize(m.data);
  }
}

void BM_Decode_OpenCV(benchmark::State& state, int32_t format) {
  decode_opencv(state, encoded(format));
}

void BM_Encode_OpenCV(benchmark::State& state, int32_t format) {
  cv::setNumThreads(1);
  const cv::Mat mat = picture_mat();
  std::vector<uint8_t> out;
  const std::vector<int> params = format == ZARVEL_IMAGE_JPEG
                                      ? std::vector<int>{cv::IMWRITE_JPEG_QUALITY, 100}
                                      : std::vector<int>{};
  for (auto _ : state) {
    cv::imencode(format == ZARVEL_IMAGE_JPEG ? ".jpg" : ".png", mat, out, params);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["bytes"] = static_cast<double>(out.size());
}

// A JPEG as cameras and most tools write it: libjpeg at quality 90 with 4:2:0 chroma, where our
// own encoder's output above is quality 100 at full chroma resolution.
std::vector<uint8_t> camera_jpeg() {
  std::vector<uint8_t> out;
  cv::imencode(".jpg", picture_mat(), out, {cv::IMWRITE_JPEG_QUALITY, 90});
  return out;
}

void BM_DecodeCameraJpeg_Zarvel(benchmark::State& state) { decode_zarvel(state, camera_jpeg()); }

void BM_DecodeCameraJpeg_OpenCV(benchmark::State& state) { decode_opencv(state, camera_jpeg()); }

BENCHMARK(BM_DecodeCameraJpeg_Zarvel)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeCameraJpeg_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode_OpenCV, jpeg, ZARVEL_IMAGE_JPEG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode_OpenCV, png, ZARVEL_IMAGE_PNG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode_OpenCV, jpeg_q100, ZARVEL_IMAGE_JPEG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode_OpenCV, png, ZARVEL_IMAGE_PNG)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
