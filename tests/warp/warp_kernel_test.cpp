// The warp plane kernels against the formula models: the scalar path bit-exact to the
// truncating model, the vector path bit-exact to the model of its own arithmetic, over
// channel counts, border modes, shapes, strides and awkward matrices.
#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "op_test_support.h"
#include "ops/warp/warp.h"
#include "warp_models.h"

namespace za = zarvel::aux;
namespace zw = zarvel::aux::warp;
using zarvel::test::warp::GuardedPlane;
using zarvel::test::warp::Plane;

namespace {

constexpr uint8_t kSentinel = 0xA5;

bool has_fma() { return (za::cpu_features() & za::kCpuAvx2Fma) != 0; }

// Forces one variant for the scope of a test.
struct Variant : zarvel::test::FeatureMask {
  explicit Variant(bool vector) : FeatureMask(vector ? ~0u : 0u) {}
};

zw::PlaneKernel kernel(bool perspective, int channels) {
  static const zw::PlaneKernel affine[] = {zw::warp_affine_c1, zw::warp_affine_c2,
                                           zw::warp_affine_c3};
  static const zw::PlaneKernel persp[] = {zw::warp_perspective_c1, zw::warp_perspective_c2,
                                          zw::warp_perspective_c3};
  return (perspective ? persp : affine)[channels - 1];
}

Plane random_plane(int32_t w, int32_t h, int32_t c, int32_t pad, std::mt19937& rng) {
  Plane p(w, h, c, pad);
  for (auto& b : p.bytes) b = static_cast<uint8_t>(rng());
  return p;
}

Plane sentinel_plane(int32_t w, int32_t h, int32_t c, int32_t pad = 0) {
  Plane p(w, h, c, pad);
  std::fill(p.bytes.begin(), p.bytes.end(), kSentinel);
  return p;
}

void run(const uint8_t* in_data, const Plane& in, Plane& out, const float* m, bool perspective,
         int mode, uint8_t border) {
  kernel(perspective, in.channels)(in.height, in.width, in.stride, in_data, out.height, out.width,
                                   out.stride, out.bytes.data(), m, mode, border);
}

// Runs the current variant and the given model on the same input; the whole output buffer
// (padding included) must be identical. The input lies against a guard page at its end, and
// then at its start, so that a neighbour load reaching outside the plane faults.
template <class Model>
void expect_model(const Plane& in, int32_t ow, int32_t oh, int32_t out_pad, const float* m,
                  bool perspective, int mode, uint8_t border, Model model,
                  const std::string& what) {
  Plane want = sentinel_plane(ow, oh, in.channels, out_pad);
  model(in, want, m, perspective, mode, border);
  // Neighbour loads do not depend on the mode: one mode is enough at the leading guard.
  for (bool at_start : {false, true}) {
    if (at_start && mode != 0) break;
    Plane got = sentinel_plane(ow, oh, in.channels, out_pad);
    const GuardedPlane guarded(in, at_start);
    run(guarded.data(), in, got, m, perspective, mode, border);
    ASSERT_EQ(got.bytes, want.bytes) << what << " guard at start=" << at_start;
  }
}

struct Matrices {
  std::vector<std::vector<float>> affine, perspective;
};

// Small rotations with translation, scalings, shears, pure translations (integer and not),
// mirror images; the perspective ones add a mild projective row, and one where w crosses 0.
Matrices test_matrices(int32_t iw, int32_t ih) {
  Matrices s;
  const float cx = iw * 0.5f, cy = ih * 0.5f;
  for (float angle : {0.0f, 0.1f, -0.4f, 1.3f, 3.14159f}) {
    for (float scale : {1.0f, 0.7f, 1.9f}) {
      const float c = std::cos(angle) * scale, sn = std::sin(angle) * scale;
      s.affine.push_back(
          {c, -sn, cx - c * cx + sn * cy + 0.3f, sn, c, cy - sn * cx - c * cy - 0.6f});
    }
  }
  s.affine.push_back({1, 0, 3, 0, 1, -2});
  s.affine.push_back({1, 0, -0.5f, 0, 1, 0.25f});
  s.affine.push_back({-1, 0, static_cast<float>(iw), 0, 1, 0});
  s.affine.push_back({0.5f, 0.25f, -1.5f, -0.125f, 1.5f, 2.75f});
  // Stretches the input over 17 x 5 outputs: blocks that end at the last column and row.
  s.affine.push_back({(iw - 1) / 16.0f, 0, 0, 0, (ih - 1) / 4.0f, 0});
  for (const auto& a : s.affine) {
    s.perspective.push_back({a[0], a[1], a[2], a[3], a[4], a[5], 0.002f, -0.003f, 1.0f});
  }
  s.perspective.push_back({1, 0, 0, 0, 1, 0, 0, 0, 1});
  // w = 0.1*(x - 4): zero at column 4, negative to its left.
  s.perspective.push_back({1, 0.2f, 0, 0.1f, 1, 0, 0.1f, 0, -0.4f});
  return s;
}

struct Shape {
  int32_t iw, ih, ow, oh, in_pad, out_pad;
};

std::vector<Shape> test_shapes() {
  std::vector<Shape> shapes;
  for (int32_t ow : {1, 3, 7, 8, 9, 16, 17, 33}) shapes.push_back({13, 11, ow, 5, 0, 0});
  shapes.push_back({2, 2, 9, 3, 0, 1});
  shapes.push_back({1, 1, 8, 2, 0, 0});
  shapes.push_back({1, 5, 9, 4, 3, 0});
  shapes.push_back({40, 30, 21, 19, 5, 3});
  shapes.push_back({16, 16, 40, 36, 0, 7});  // output larger than the input
  return shapes;
}

void sweep(bool vector) {
  std::mt19937 rng(1234);
  for (const Shape& sh : test_shapes()) {
    const Matrices mats = test_matrices(sh.iw, sh.ih);
    for (int c = 1; c <= 3; ++c) {
      const Plane in = random_plane(sh.iw, sh.ih, c, sh.in_pad, rng);
      for (bool perspective : {false, true}) {
        for (const auto& m : perspective ? mats.perspective : mats.affine) {
          for (int mode : {0, 1, 5}) {
            const std::string what = ::testing::PrintToString(std::vector<int>{
                                         c, sh.iw, sh.ih, sh.ow, sh.oh, mode, perspective}) +
                                     " m=" + ::testing::PrintToString(m);
            expect_model(
                in, sh.ow, sh.oh, sh.out_pad, m.data(), perspective, mode, 77,
                vector ? zarvel::test::warp::vector_model : zarvel::test::warp::scalar_model, what);
            if (::testing::Test::HasFatalFailure()) return;
          }
        }
      }
    }
  }
}

// The scalar path against the truncating model, the vector path against its own arithmetic.
TEST(WarpKernels, EachPathMatchesItsModel) {
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    sweep(vector);
  }
}

// Both paths: the identity reproduces the input, and integer translations shift exactly
// with the border byte (mode 0) or the edge (mode 1) coming in.
TEST(WarpKernels, IdentityAndIntegerTranslationsAreExactOnBothPaths) {
  std::mt19937 rng(7);
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    for (int c = 1; c <= 3; ++c) {
      const Plane in = random_plane(19, 9, c, 2, rng);
      // The vector perspective path multiplies by a reciprocal estimate, which need not be
      // exactly 1 for w = 1; the sweep checks it against its model instead.
      for (bool perspective : {false, true}) {
        if (vector && perspective) continue;
        for (auto [tx, ty] : {std::pair{0, 0}, {3, -2}, {-5, 4}, {25, 0}}) {
          for (int mode : {0, 1}) {
            const float m[9] = {1, 0, static_cast<float>(tx), 0, 1, static_cast<float>(ty), 0,
                                0, 1};
            Plane out = sentinel_plane(19, 9, c);
            run(in.bytes.data(), in, out, m, perspective, mode, 9);
            for (int32_t y = 0; y < 9; ++y) {
              for (int32_t x = 0; x < 19; ++x) {
                int32_t sx = x + tx, sy = y + ty;
                const bool inside = sx >= 0 && sx < 19 && sy >= 0 && sy < 9;
                if (mode == 1) sx = std::clamp(sx, 0, 18), sy = std::clamp(sy, 0, 8);
                for (int ch = 0; ch < c; ++ch) {
                  const int want = mode == 0 && !inside ? 9 : in.row(sy)[sx * c + ch];
                  ASSERT_EQ(out.row(y)[x * c + ch], want)
                      << "vector=" << vector << " c=" << c << " t=" << tx << "," << ty
                      << " mode=" << mode << " at " << x << "," << y;
                }
              }
            }
          }
        }
      }
    }
  }
}

// A source column of -0.5: the scalar path truncates to column 0 with weights 1.5 and -0.5;
// the vector path floors to column -1 (the border) and rounds the half-way blend.
TEST(WarpKernels, MinusHalfColumnTruncatesOnScalarPathAndFloorsOnVectorPath) {
  Plane in(4, 2, 1);
  in.row(0)[0] = 100, in.row(0)[1] = 20, in.row(1)[0] = 100, in.row(1)[1] = 20;
  in.row(0)[2] = in.row(1)[2] = 33;
  const float m[6] = {1, 0, -0.5f, 0, 1, 0};
  {
    const Variant scalar(false);
    Plane out = sentinel_plane(1, 1, 1);
    run(in.bytes.data(), in, out, m, false, 0, 0);
    EXPECT_EQ(out.bytes[0], 140);  // 1.5 * 100 - 0.5 * 20
  }
  if (has_fma()) {
    const Variant vector(true);
    Plane out = sentinel_plane(1, 1, 1);
    run(in.bytes.data(), in, out, m, false, 0, 0);
    EXPECT_EQ(out.bytes[0], 50);  // (0.5 * 0 + 0.5 * 100) rounded from 50.0 (+0.5 lsb) down
  }
}

// A frame warped partly outside: each border mode on each path, checked at known pixels.
TEST(WarpKernels, BorderModesOnAFrameShiftedHalfOutside) {
  Plane in(8, 4, 1);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 8; ++x) in.row(y)[x] = static_cast<uint8_t>(10 + 10 * x + y);
  const float m[6] = {1, 0, 4, 0, 1, 0};  // output column x samples input column x + 4
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    Plane constant = sentinel_plane(8, 4, 1), replicate = constant, transparent = constant,
          other = constant;
    run(in.bytes.data(), in, constant, m, false, 0, 200);
    run(in.bytes.data(), in, replicate, m, false, 1, 200);
    run(in.bytes.data(), in, transparent, m, false, 5, 200);
    run(in.bytes.data(), in, other, m, false, 3, 200);
    for (int32_t y = 0; y < 4; ++y) {
      for (int32_t x = 0; x < 8; ++x) {
        const int sx = x + 4;
        SCOPED_TRACE("vector=" + std::to_string(vector) + " x=" + std::to_string(x) +
                     " y=" + std::to_string(y));
        EXPECT_EQ(constant.row(y)[x], sx < 8 ? in.row(y)[sx] : 200);
        EXPECT_EQ(replicate.row(y)[x], in.row(y)[std::min(sx, 7)]);
        // Transparent needs the right and lower neighbours inside as well.
        const bool written = sx + 1 < 8 && y + 1 < 4;
        EXPECT_EQ(transparent.row(y)[x], written ? in.row(y)[sx] : kSentinel);
        EXPECT_EQ(other.row(y)[x], kSentinel);
      }
    }
  }
}

// Non-finite and huge coordinates read the border, never outside the plane (the input sits
// between guard pages), on both paths, and agree with the models.
TEST(WarpKernels, NonFiniteAndHugeCoordinatesReadOnlyTheBorder) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<std::vector<float>> matrices = {
      {nan, 0, 0, 0, 1, 0, 0, 0, 1},
      {1, 0, 0, 0, 1, 0, 0, 0, 0},  // w = 0 everywhere
      {1, 0, inf, 0, 1, 0, 0, 0, 1},
      {1, 0, 3e9f, 0, 1, -3e9f, 0, 0, 1},
      {1, 0, 2147483520.0f, 0, 1, 0, 0, 0, 1},
      {1e30f, 0, 0, 0, -1e30f, 0, 0, 0, 1},
      {1, 0, -2147483648.0f, 0, 1, 5, 0, 0, 1},
      {1, 0, 1, 0, 1, 1, 0.5f, 0, -2}};
  std::mt19937 rng(99);
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    for (int c = 1; c <= 3; ++c) {
      const Plane in = random_plane(9, 6, c, 0, rng);
      for (const auto& m : matrices) {
        for (bool perspective : {false, true}) {
          for (int mode : {0, 1, 5}) {
            Plane got = sentinel_plane(11, 3, c), want = got;
            for (bool at_start : {false, true}) {
              const GuardedPlane guarded(in, at_start);
              run(guarded.data(), in, got, m.data(), perspective, mode, 128);
            }
            (vector ? zarvel::test::warp::vector_model : zarvel::test::warp::scalar_model)(
                in, want, m.data(), perspective, mode, 128);
            ASSERT_EQ(got.bytes, want.bytes) << "vector=" << vector << " c=" << c
                                             << " mode=" << mode << " persp=" << perspective;
          }
        }
      }
    }
  }
}

TEST(WarpKernels, CallersRoundingModeIsRestored) {
  std::mt19937 rng(3);
  const Plane in = random_plane(12, 12, 1, 0, rng);
  const float m[9] = {0.9f, 0.1f, 1.5f, -0.1f, 0.9f, 0.5f, 0.001f, 0, 1};
  for (bool vector : {false, true}) {
    if (vector && !has_fma()) continue;
    const Variant variant(vector);
    for (int mode : {FE_TOWARDZERO, FE_UPWARD, FE_TONEAREST}) {
      std::fesetround(mode);
      Plane out = sentinel_plane(12, 12, 1);
      run(in.bytes.data(), in, out, m, true, 0, 0);
      run(in.bytes.data(), in, out, m, false, 0, 0);
      EXPECT_EQ(std::fegetround(), mode);
      std::fesetround(FE_TONEAREST);
    }
  }
}

}  // namespace
