// The warp plane kernels: the scalar path bit-exact to the truncating model and the vector
// path to the model of its own arithmetic, over channel counts, border modes, shapes,
// strides, awkward and non-finite matrices and the limits of the vector path's 16-bit
// geometry, with the input against guard pages; and exact results that need no model.
#include <gtest/gtest.h>

#include <cfenv>
#include <limits>
#include <random>
#include <string>

#include "op_test_support.h"
#include "ops/warp/warp.h"
#include "warp_models.h"

namespace zw = zarvel::aux::warp;
using zarvel::test::FeatureMask;
using zarvel::test::warp::GuardedPlane;
using zarvel::test::warp::Plane;

namespace {

constexpr uint8_t kSentinel = 0xA5;

// The paths this machine runs: scalar, and vector when it has 256-bit FMA.
std::vector<bool> paths() {
  if ((zarvel::aux::cpu_features() & zarvel::aux::kCpuAvx2Fma) == 0) return {false};
  return {false, true};
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
  for (const auto& a : s.affine)
    s.perspective.push_back({a[0], a[1], a[2], a[3], a[4], a[5], 0.002f, -0.003f, 1.0f});
  s.perspective.push_back({1, 0, 0, 0, 1, 0, 0, 0, 1});
  // w = 0.1*(x - 4): zero at column 4, negative to its left.
  s.perspective.push_back({1, 0.2f, 0, 0.1f, 1, 0, 0.1f, 0, -0.4f});
  return s;
}

// The current path against its model on every matrix and mode, the whole output buffer
// (padding included) compared. The input lies against a guard page at its end, and for mode
// 0 also at its start (neighbour loads do not depend on the mode). The caller's rounding mode
// (upward, to which the vector path must return) is kept.
void expect_model(bool vector, const Plane& in, int32_t ow, int32_t oh, int32_t out_pad,
                  const Matrices& ms) {
  for (bool perspective : {false, true}) {
    for (const auto& m : perspective ? ms.perspective : ms.affine) {
      for (int mode : {0, 1, 5}) {
        const std::string what = ::testing::PrintToString(std::vector<int>{
                                     in.channels, in.width, in.height, ow, oh, mode, perspective}) +
                                 " m=" + ::testing::PrintToString(m);
        Plane want(ow, oh, in.channels, out_pad, kSentinel);
        zarvel::test::warp::model(vector, in, want, m.data(), perspective, mode, 77);
        for (bool at_start : {false, true}) {
          if (at_start && mode != 0) break;
          Plane got(ow, oh, in.channels, out_pad, kSentinel);
          const GuardedPlane guarded(in, at_start);
          const int caller = vector ? FE_UPWARD : FE_TONEAREST;
          std::fesetround(caller);
          run(guarded.data(), in, got, m.data(), perspective, mode, 77);
          const int after = std::fegetround();
          std::fesetround(FE_TONEAREST);
          ASSERT_EQ(after, caller) << what;
          ASSERT_EQ(got.bytes, want.bytes) << what << " guard at start=" << at_start;
        }
      }
    }
  }
}

TEST(WarpKernels, EachPathMatchesItsModel) {
  struct Shape {
    int32_t iw, ih, ow, oh, in_pad, out_pad;
  };
  std::vector<Shape> shapes;
  for (int32_t ow : {1, 3, 7, 8, 9, 16, 17, 33}) shapes.push_back({13, 11, ow, 5, 0, 0});
  shapes.insert(shapes.end(), {{2, 2, 9, 3, 0, 1},
                               {1, 1, 8, 2, 0, 0},
                               {1, 5, 9, 4, 3, 0},
                               {40, 30, 21, 19, 5, 3},
                               {16, 16, 40, 36, 0, 7}});  // output larger than the input
  // Non-finite and huge coordinates, and w = 0 everywhere: only the border may be read.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<std::vector<float>> extreme = {{nan, 0, 0, 0, 1, 0, 0, 0, 1},
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
    for (const Shape& sh : shapes) {
      for (int c = 1; c <= 3; ++c) {
        expect_model(vector, random_plane(sh.iw, sh.ih, c, sh.in_pad, rng), sh.ow, sh.oh,
                     sh.out_pad, test_matrices(sh.iw, sh.ih));
        if (HasFatalFailure()) return;
      }
    }
    for (int c = 1; c <= 3; ++c)
      expect_model(vector, random_plane(9, 6, c, 0, rng), 11, 3, 0, {extreme, extreme});
    if (!vector) continue;
    // The vector blocks at the limits of their 16-bit geometry: blocks of eight whose last
    // lane reaches the last column or row, on planes 2^15 - 1 wide or 2^15 tall, and on planes
    // wider than 2^15 or with strides of 2^15 (the 32-bit inside test and offsets).
    expect_model(true, random_plane(32767, 3, 1, 0, rng), 64, 2, 0,
                 {{{1, 0, 32711.6f, 0, 1, 0.4f}}, {}});
    expect_model(true, random_plane(3, 32768, 1, 0, rng), 32, 3, 0,
                 {{{0, 0.25f, 0.2f, 1, 0, 32744.1f}}, {}});
    expect_model(true, random_plane(33000, 2, 1, 0, rng), 64, 1, 0,
                 {{{1, 0, 32944.6f, 0, 1, 0.3f}}, {}});
    expect_model(true, random_plane(40, 4, 1, 32768 - 40, rng), 16, 3, 0,
                 {{{1, 0, 0.5f, 0, 1, 1.3f}}, {}});
    for (int c = 1; c <= 3; ++c)
      expect_model(true, random_plane(40, 4, c, 32768 - 40 * c, rng), 33, 3, 0,
                   {{{1.2f, 0.1f, 0.7f, -0.05f, 0.8f, 0.6f}}, {}});
  }
}

// Exact results on both paths: the identity reproduces the input and integer translations
// shift it, with the border byte (mode 0), the edge (1) or nothing (5, unless all four
// neighbours are inside) coming in at the edges, and nothing written under an unknown mode.
// The vector perspective path multiplies by a reciprocal estimate, which need not be exactly
// 1 for w = 1; the models cover it.
TEST(WarpKernels, IdentityAndIntegerTranslationsAreExact) {
  std::mt19937 rng(7);
  for (bool vector : paths()) {
    const FeatureMask variant(vector ? ~0u : 0u);
    for (int c = 1; c <= 3; ++c) {
      const Plane in = random_plane(19, 9, c, 2, rng);
      for (bool perspective : {false, true}) {
        if (vector && perspective) continue;
        for (auto [tx, ty] : {std::pair{0, 0}, {3, -2}, {-5, 4}, {25, 0}}) {
          for (int mode : {0, 1, 3, 5}) {
            const float m[9] = {1, 0, float(tx), 0, 1, float(ty), 0, 0, 1};
            Plane out(19, 9, c, 0, kSentinel);
            run(in.bytes.data(), in, out, m, perspective, mode, 9);
            for (int32_t y = 0; y < 9; ++y) {
              for (int32_t x = 0; x < 19; ++x) {
                const int32_t sx = x + tx, sy = y + ty;
                const bool inside = sx >= 0 && sx < 19 && sy >= 0 && sy < 9;
                const int32_t cx = std::clamp(sx, 0, 18), cy = std::clamp(sy, 0, 8);
                for (int ch = 0; ch < c; ++ch) {
                  int want = kSentinel;
                  if (mode == 0) want = inside ? in.row(sy)[sx * c + ch] : 9;
                  if (mode == 1 || (mode == 5 && inside && sx < 18 && sy < 8))
                    want = in.row(cy)[cx * c + ch];
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
  in.row(0)[0] = in.row(1)[0] = 100, in.row(0)[1] = in.row(1)[1] = 20;
  in.row(0)[2] = in.row(1)[2] = 33;
  const float m[6] = {1, 0, -0.5f, 0, 1, 0};
  for (bool vector : paths()) {
    const FeatureMask variant(vector ? ~0u : 0u);
    Plane out(1, 1, 1, 0, kSentinel);
    run(in.bytes.data(), in, out, m, false, 0, 0);
    // Scalar: 1.5 * 100 - 0.5 * 20. Vector: 0.5 * 0 + 0.5 * 100, 50.0 (+0.5 lsb) rounded down.
    EXPECT_EQ(out.bytes[0], vector ? 50 : 140);
  }
}

}  // namespace
