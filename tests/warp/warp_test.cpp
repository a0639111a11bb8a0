// Affine and perspective warps. The plane kernels against independent models written from the
// formulas rather than from the kernels, one per arithmetic (scalar: truncating float blend;
// vector: floored Q16 blend with fused coordinates), over channel counts, border modes, shapes,
// strides, awkward and non-finite matrices and the limits of the vector path's 16-bit
// geometry, with the input against guard pages; exact results that need no model. The exports:
// every format plane by plane against the models, the null-matrix refusal, and the
// unsupported-format success with its inherited metadata.
#include "ops/warp/warp.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xmmintrin.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cfenv>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <tuple>

#include "frame_test_support.h"
#include "op_test_support.h"
#include "plugin/status.h"

#ifdef ZARVEL_TEST_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace za = zarvel::aux;
namespace zw = zarvel::aux::warp;
using namespace zarvel::test;

namespace {

constexpr uint8_t kSentinel = 0xA5;

struct Plane {
  int32_t width, height, stride, channels;
  std::vector<uint8_t> bytes;
  Plane(int32_t w, int32_t h, int32_t c, int32_t pad = 0, uint8_t fill = 0)
      : width(w), height(h), stride(w * c + pad), channels(c), bytes(size_t(stride) * h, fill) {}
  uint8_t* row(int32_t y) { return bytes.data() + static_cast<size_t>(y) * stride; }
  const uint8_t* row(int32_t y) const { return bytes.data() + static_cast<size_t>(y) * stride; }
};

// Processor conversion semantics: values an int32 cannot hold, and NaN, become INT32_MIN.
int32_t cvt(float v, bool floor) {
  if (!(v >= -2147483648.0f && v < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(floor ? std::floor(v) : v);
}

// Channel ch of pixel (col, row): mode 1 clamps to the edge, the others read the border byte
// outside the plane.
int sample(const Plane& in, int64_t col, int64_t row, int ch, int mode, uint8_t border) {
  if (mode != 1 && (col < 0 || col >= in.width || row < 0 || row >= in.height)) return border;
  col = std::clamp<int64_t>(col, 0, in.width - 1), row = std::clamp<int64_t>(row, 0, in.height - 1);
  return in.row(static_cast<int32_t>(row))[col * in.channels + ch];
}

// Bilinear warp of `in` into `out`; m has 6 (affine) or 9 (perspective) entries. Modes 0
// (constant), 1 (replicate) and 5 (transparent: only where all four neighbours are inside)
// write; any other writes nothing.
// Scalar: truncated coordinates, float weights, truncated result.
// Vector, lane by lane: round-down mode, fused coordinates, reciprocal estimate of w, floored
// Q16 weights, 32-bit wrapping blend rounded to nearest.
void model(bool vector, const Plane& in, Plane& out, const float* m, bool perspective, int mode,
           uint8_t border) {
  if (mode != 0 && mode != 1 && mode != 5) return;
  const int saved = std::fegetround();
  if (vector) std::fesetround(FE_DOWNWARD);
  for (int32_t y = 0; y < out.height; ++y) {
    for (int32_t x = 0; x < out.width; ++x) {
      const float xf = static_cast<float>(x), yf = static_cast<float>(y);
      auto lin = [&](const float* r) {
        return vector ? std::fmaf(r[0], xf, std::fmaf(r[1], yf, r[2]))
                      : r[0] * xf + (r[1] * yf + r[2]);
      };
      float sx = lin(m), sy = lin(m + 3);
      if (perspective && vector) {
        const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(lin(m + 6))));
        sx *= r, sy *= r;
      }
      if (perspective && !vector) sx /= lin(m + 6), sy /= lin(m + 6);
      const int32_t ix = cvt(sx, vector), iy = cvt(sy, vector);
      const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
      const float wf[4] = {(1.0f - fx) * (1.0f - fy), fx * (1.0f - fy), (1.0f - fx) * fy, fx * fy};
      const bool inside =
          ix >= 0 && int64_t{ix} + 1 < in.width && iy >= 0 && int64_t{iy} + 1 < in.height;
      if (mode == 5 && !inside) continue;  // not all four neighbours inside
      for (int ch = 0; ch < in.channels; ++ch) {
        int t[4];
        uint32_t sum = 0x8000u;
        for (int k = 0; k < 4; ++k) {
          t[k] = sample(in, int64_t{ix} + k % 2, iy + k / 2, ch, mode, border);
          sum += static_cast<uint32_t>(cvt(wf[k] * 65536.0f, true)) * t[k];
        }
        out.row(y)[x * in.channels + ch] = static_cast<uint8_t>(
            vector ? sum >> 16
                   : cvt(wf[0] * t[0] + wf[1] * t[1] + wf[2] * t[2] + wf[3] * t[3] + 0.0f, false));
      }
    }
  }
  std::fesetround(saved);
}

// A copy of a plane's rows between two inaccessible pages, flush against the trailing one (a
// read after the last visible byte faults) or, `at_start`, the leading one.
struct GuardedPlane {
  size_t total;
  uint8_t *base, *data;
  GuardedPlane(const Plane& p, bool at_start) {
    const size_t page = sysconf(_SC_PAGESIZE),
                 size = size_t(p.stride) * (p.height - 1) + p.width * p.channels;
    const size_t pages = (size + page - 1) / page + 1;
    total = (pages + 2) * page;
    base = static_cast<uint8_t*>(
        mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED) throw std::bad_alloc();
    mprotect(base, page, PROT_NONE), mprotect(base + (pages + 1) * page, page, PROT_NONE);
    data = at_start ? base + page : base + (pages + 1) * page - size;
    std::memcpy(data, p.bytes.data(), size);
  }
  ~GuardedPlane() { munmap(base, total); }
};

// The paths this machine runs: scalar, and vector when it has 256-bit FMA.
std::vector<bool> paths() {
  return (za::cpu_features() & za::kCpuAvx2Fma) ? std::vector{false, true} : std::vector{false};
}

Plane random_plane(int32_t w, int32_t h, int32_t c, int32_t pad, std::mt19937& rng) {
  Plane p(w, h, c, pad);
  for (auto& b : p.bytes) b = static_cast<uint8_t>(rng());
  return p;
}

void run(const uint8_t* in_data, const Plane& in, Plane& out, const float* m, bool perspective,
         int mode, uint8_t border) {
  static const zw::PlaneKernel kernels[2][3] = {
      {zw::warp_affine_c1, zw::warp_affine_c2, zw::warp_affine_c3},
      {zw::warp_perspective_c1, zw::warp_perspective_c2, zw::warp_perspective_c3}};
  kernels[perspective][in.channels - 1](in.height, in.width, in.stride, in_data, out.height,
                                        out.width, out.stride, out.bytes.data(), m, mode, border);
}

// Affine matrices and perspective ones.
using Matrices = std::array<std::vector<std::vector<float>>, 2>;

// Small rotations with translation, scalings, shears, pure translations (integer and not),
// mirror images; the perspective ones add a mild projective row, and one where w crosses 0.
Matrices test_matrices(int32_t iw, int32_t ih) {
  Matrices s;
  const float cx = iw * 0.5f, cy = ih * 0.5f;
  for (float angle : {0.0f, 0.1f, -0.4f, 1.3f, 3.14159f}) {
    for (float scale : {1.0f, 0.7f, 1.9f}) {
      const float c = std::cos(angle) * scale, sn = std::sin(angle) * scale;
      s[0].push_back({c, -sn, cx - c * cx + sn * cy + 0.3f, sn, c, cy - sn * cx - c * cy - 0.6f});
    }
  }
  // The last stretches the input over 17 x 5 outputs: blocks that end at the last column and row.
  s[0].insert(s[0].end(), {{1, 0, 3, 0, 1, -2},
                           {1, 0, -0.5f, 0, 1, 0.25f},
                           {-1, 0, float(iw), 0, 1, 0},
                           {0.5f, 0.25f, -1.5f, -0.125f, 1.5f, 2.75f},
                           {(iw - 1) / 16.0f, 0, 0, 0, (ih - 1) / 4.0f, 0}});
  for (const auto& a : s[0])
    s[1].push_back({a[0], a[1], a[2], a[3], a[4], a[5], 0.002f, -0.003f, 1.0f});
  // w = 0.1*(x - 4): zero at column 4, negative to its left.
  s[1].insert(s[1].end(), {{1, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0.2f, 0, 0.1f, 1, 0, 0.1f, 0, -0.4f}});
  return s;
}

// The current path against its model on every matrix and mode, the whole output buffer
// (padding included) compared. The input lies against a guard page at its end, and for mode
// 0 also at its start (neighbour loads do not depend on the mode). The caller's rounding mode
// (upward, to which the vector path must return) is kept.
void expect_model(bool vector, const Plane& in, int32_t ow, int32_t oh, int32_t out_pad,
                  const Matrices& ms) {
  for (bool perspective : {false, true}) {
    for (const auto& m : ms[perspective]) {
      for (int mode : {0, 1, 5}) {
        Plane want(ow, oh, in.channels, out_pad, kSentinel);
        model(vector, in, want, m.data(), perspective, mode, 77);
        for (bool at_start : {false, true}) {
          if (at_start && mode != 0) break;
          Plane got(ow, oh, in.channels, out_pad, kSentinel);
          const GuardedPlane guarded(in, at_start);
          const int caller = vector ? FE_UPWARD : FE_TONEAREST;
          std::fesetround(caller);
          run(guarded.data, in, got, m.data(), perspective, mode, 77);
          const int after = std::fegetround();
          std::fesetround(FE_TONEAREST);
          ASSERT_EQ(after, caller);
          ASSERT_EQ(got.bytes, want.bytes) << in.width << " " << ::testing::PrintToString(m);
        }
      }
    }
  }
}

TEST(WarpKernels, EachPathMatchesItsModel) {
  // {iw, ih, ow, oh, in_pad, out_pad}; output widths around the vector block, and one output
  // larger than its input.
  std::vector<std::array<int32_t, 6>> shapes = {{2, 2, 9, 3, 0, 1},
                                                {1, 1, 8, 2, 0, 0},
                                                {1, 5, 9, 4, 3, 0},
                                                {40, 30, 21, 19, 5, 3},
                                                {16, 16, 40, 36, 0, 7}};
  for (int32_t ow : {1, 3, 7, 8, 9, 16, 17, 33}) shapes.push_back({13, 11, ow, 5, 0, 0});
  // Non-finite and huge coordinates, and w = 0 everywhere: only the border may be read.
  const float nan = std::numeric_limits<float>::quiet_NaN(),
              inf = std::numeric_limits<float>::infinity();
  const std::vector<std::vector<float>> e = {{nan, 0, 0, 0, 1, 0, 0, 0, 1},
                                             {1, 0, 0, 0, 1, 0, 0, 0, 0},
                                             {1, 0, inf, 0, 1, 0, 0, 0, 1},
                                             {1, 0, 3e9f, 0, 1, -3e9f, 0, 0, 1},
                                             {1, 0, 2147483520.0f, 0, 1, 0, 0, 0, 1},
                                             {1e30f, 0, 0, 0, -1e30f, 0, 0, 0, 1},
                                             {1, 0, -2147483648.0f, 0, 1, 5, 0, 0, 1},
                                             {1, 0, 1, 0, 1, 1, 0.5f, 0, -2}};
  std::mt19937 rng(1234);
  for (bool vector : paths()) {
    const FeatureMask variant(vector ? ~0u : 0u);
    for (int c = 1; c <= 3; ++c) {
      for (const auto& [iw, ih, ow, oh, in_pad, out_pad] : shapes)
        expect_model(vector, random_plane(iw, ih, c, in_pad, rng), ow, oh, out_pad,
                     test_matrices(iw, ih));
      expect_model(vector, random_plane(9, 6, c, 0, rng), 11, 3, 0, {e, e});
      // The vector blocks at the limits of their 16-bit geometry: strides of 2^15.
      if (vector)
        expect_model(true, random_plane(40, 4, c, 32768 - 40 * c, rng), 33, 3, 0,
                     {{{{1.2f, 0.1f, 0.7f, -0.05f, 0.8f, 0.6f}}, {}}});
    }
    if (!vector) continue;
    // Blocks of eight whose last lane reaches the last column or row, on planes 2^15 - 1 wide
    // or 2^15 tall, and on planes wider than 2^15 (the 32-bit inside test and offsets).
    expect_model(true, random_plane(32767, 3, 1, 0, rng), 64, 2, 0,
                 {{{{1, 0, 32711.6f, 0, 1, 0.4f}}, {}}});
    expect_model(true, random_plane(3, 32768, 1, 0, rng), 32, 3, 0,
                 {{{{0, 0.25f, 0.2f, 1, 0, 32744.1f}}, {}}});
    expect_model(true, random_plane(33000, 2, 1, 0, rng), 64, 1, 0,
                 {{{{1, 0, 32944.6f, 0, 1, 0.3f}}, {}}});
    expect_model(true, random_plane(40, 4, 1, 32768 - 40, rng), 16, 3, 0,
                 {{{{1, 0, 0.5f, 0, 1, 1.3f}}, {}}});
  }
}

// Exact results on both paths (and the scalar perspective one) on a 4x2 plane: the identity
// reproduces the input; a shift by one column repeats the edge (mode 1) or brings in the border
// byte (mode 0); mode 5 writes only where all four neighbours are inside, an unknown mode
// nothing. A source column of -0.5: the scalar path truncates to column 0 with weights 1.5 and
// -0.5 (1.5 * 100 - 0.5 * 20); the vector path floors to column -1 (the border) and rounds the
// half-way blend 0.5 * 0 + 0.5 * 100 (50.0 + 0.5 lsb) down.
TEST(WarpKernels, ExactResultsThatNeedNoModel) {
  Plane in(4, 2, 1);
  in.bytes = {100, 20, 33, 7, 100, 20, 33, 9};
  const uint8_t S = kSentinel;
  // {tx, mode, result}
  const std::tuple<float, int, std::vector<uint8_t>> cases[] = {
      {0, 0, in.bytes},
      {0, 1, in.bytes},
      {1, 1, {20, 33, 7, 7, 20, 33, 9, 9}},
      {1, 0, {20, 33, 7, 5, 20, 33, 9, 5}},
      {0, 5, {100, 20, 33, S, S, S, S, S}},
      {0, 3, {S, S, S, S, S, S, S, S}}};
  for (bool vector : paths()) {
    const FeatureMask variant(vector ? ~0u : 0u);
    for (int p = 0; p < (vector ? 1 : 2); ++p) {
      for (const auto& [tx, mode, want] : cases) {
        const float m[9] = {1, 0, tx, 0, 1, 0, 0, 0, 1};
        Plane out(4, 2, 1, 0, kSentinel);
        run(in.bytes.data(), in, out, m, p == 1, mode, 5);
        EXPECT_EQ(out.bytes, want) << vector << " persp=" << p << " " << tx << " " << mode;
      }
    }
    const float m[6] = {1, 0, -0.5f, 0, 1, 0};
    Plane out(1, 1, 1, 0, kSentinel);
    run(in.bytes.data(), in, out, m, false, 0, 0);
    EXPECT_EQ(out.bytes[0], vector ? 50 : 140);
  }
}

using WarpFn = decltype(&zarvel_frame_warpaffine);
const WarpFn kWarps[2] = {zarvel_frame_warpaffine, zarvel_frame_warpperspective};

za::FramePtr alloc(uint32_t format, int w, int h) {
  return za::FramePtr(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
}

// Plane i of a host frame, tight.
Plane read_plane(const zarvel_frame_t* f, int i) {
  const auto [channels, d] = planes_of(f->format)[i];
  Plane out(f->width / d, f->height / d, channels);
  for (int32_t y = 0; y < out.height; ++y)
    std::memcpy(out.row(y), f->plane[i] + size_t(y) * f->stride[i], size_t(out.width) * channels);
  return out;
}

// Every format, output larger and smaller than the input, both transforms, both paths: each
// plane equals the model run on that plane, chroma with the translation halved and border 128.
TEST(WarpFrame, EveryFormatWarpsPlaneByPlane) {
  const float ms[2][9] = {{0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0, 0, 1},
                          {0.93f, -0.34f, 5.0f, 0.34f, 0.93f, -3.0f, 0.004f, -0.002f, 1.1f}};
  std::mt19937 rng(5);
  for (bool vector : paths()) {
    const FeatureMask variant(vector ? ~0u : 0u);
    for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                            ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
      for (auto [ow, oh] : {std::pair{30, 22}, {12, 8}}) {
        for (int p = 0; p < 2; ++p) {
          auto in = alloc(format, 20, 14), out = alloc(format, ow, oh);
          fill_random(in.get(), rng);
          ASSERT_EQ(kWarps[p](in.get(), out.get(), ms[p]), za::kOk);
          for (int i = 0; i < static_cast<int>(planes_of(format).size()); ++i) {
            std::array<float, 9> pm = std::to_array(ms[p]);
            if (i > 0) pm[2] *= 0.5f, pm[5] *= 0.5f;
            Plane want = read_plane(out.get(), i);  // mode 0 writes every byte of it
            model(vector, read_plane(in.get(), i), want, pm.data(), p == 1, 0, i > 0 ? 128 : 0);
            EXPECT_EQ(read_plane(out.get(), i).bytes, want.bytes)
                << format << "/" << i << "/" << ow << "/" << p << "/" << vector;
          }
        }
      }
    }
  }
}

// A null matrix is refused. An unsupported format is logged, reported as success and leaves
// the pixels; the output still takes the meta words.
TEST(WarpFrame, NullMatrixAndUnsupportedFormat) {
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (int p = 0; p < 2; ++p) {
    LogCapture log;
    auto in = alloc(ZARVEL_PIXFMT_GREY16, 6, 4), out = alloc(ZARVEL_PIXFMT_GREY16, 5, 4);
    EXPECT_EQ(kWarps[p](in.get(), out.get(), nullptr), za::kInvalidArgument);
    log.expect({{4, "aux",
                 std::string(p ? "[zarvel_frame_warpperspective]" : "[zarvel_frame_warpaffine]") +
                     " The transform matrix is null!\n"}});
    zarvel_frame_reset(out.get(), 0x33);
    in->meta_word0 = 41, in->meta_word1 = 42;
    EXPECT_EQ(kWarps[p](in.get(), out.get(), m), za::kOk);
    EXPECT_EQ(std::pair(out->meta_word0, out->meta_word1), std::pair(uint64_t{41}, uint64_t{42}));
    log.expect({{4, "aux.host",
                 std::string(p ? "Do warpperspective" : "Do WarpAffine") +
                     " transform for a frame in format [GREY16] is not supported yet!\n"}});
    EXPECT_EQ(visible_bytes(out.get()), std::vector<uint8_t>(5 * 2 * 4, 0x33));
  }
}

#ifdef ZARVEL_TEST_OPENCV
// Different fixed-point schemes, so not bit-equal: away from the borders both paths stay
// within 2 of OpenCV's bilinear warp of a smooth image.
TEST(WarpFrame, StaysCloseToOpenCvOnSmoothImages) {
  auto in = alloc(ZARVEL_PIXFMT_RGB24, 160, 120), out = alloc(ZARVEL_PIXFMT_RGB24, 140, 100);
  cv::Mat src(120, 160, CV_8UC3, in->plane[0], in->stride[0]), want;
  for (int y = 0; y < 120; ++y)
    for (int x = 0; x < 160 * 3; ++x)
      src.ptr<uint8_t>(y)[x] = static_cast<uint8_t>(128 + 90 * std::sin(x * 0.03 + y * 0.05));
  const float c = std::cos(0.2f), s = std::sin(0.2f);
  const float m[9] = {c, -s, 20.5f, s, c, 3.25f, 0.0002f, -0.0003f, 1.0f};
  const int flags = cv::INTER_LINEAR | cv::WARP_INVERSE_MAP;
  for (int p = 0; p < 2; ++p) {
    if (p == 1) cv::warpPerspective(src, want, cv::Matx33f(m), {140, 100}, flags);
    if (p == 0) cv::warpAffine(src, want, cv::Matx23f(m), {140, 100}, flags);
    for (bool vector : paths()) {
      const FeatureMask variant(vector ? ~0u : 0u);
      ASSERT_EQ(kWarps[p](in.get(), out.get(), m), za::kOk);
      int worst = 0;
      for (int y = 0; y < 100; ++y) {
        for (int x = 0; x < 140; ++x) {
          const float w = p == 1 ? m[6] * x + m[7] * y + m[8] : 1.0f;
          const float sx = (m[0] * x + m[1] * y + m[2]) / w, sy = (m[3] * x + m[4] * y + m[5]) / w;
          if (sx < 2 || sy < 2 || sx > 157 || sy > 117) continue;
          for (int k = 0; k < 3; ++k)
            worst = std::max(worst, std::abs(out->plane[0][y * out->stride[0] + x * 3 + k] -
                                             want.ptr<uint8_t>(y)[x * 3 + k]));
        }
      }
      EXPECT_LE(worst, 2) << "persp=" << p << " vector=" << vector;
    }
  }
}
#endif

}  // namespace
