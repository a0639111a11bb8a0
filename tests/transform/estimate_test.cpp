// Transform estimation: known transforms recovered from exact and noisy point sets, the
// rotation-with-scale model of the "rigid" fit, degenerate inputs, and estimate-then-warp.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <array>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "frame_api/frame_api.h"

namespace {

using Mat3 = std::array<float, 9>;
using Points = std::vector<float>;

void expect_near(const float* got, const float* want, size_t n, float tol) {
  for (size_t i = 0; i < n; ++i) EXPECT_NEAR(got[i], want[i], tol) << "entry " << i;
}

// dst = M * src for the top 2x3 of a row-major M.
Points map_points(const float* m, const Points& src) {
  Points dst(src.size());
  for (size_t i = 0; i < src.size(); i += 2) {
    dst[i] = m[0] * src[i] + m[1] * src[i + 1] + m[2];
    dst[i + 1] = m[3] * src[i] + m[4] * src[i + 1] + m[5];
  }
  return dst;
}

// Estimator `kind` (0 affine, 1 similarity, 2 rigid): {forward, inverse}; "rigid" gives no
// inverse, which stays zero.
std::pair<Mat3, Mat3> estimate(int kind, const Points& src, const Points& dst) {
  Mat3 fwd{}, inv{};
  if (kind == 0) zarvel_find_affine_transform(src.data(), dst.data(), fwd.data(), inv.data());
  if (kind == 1) zarvel_find_similarity_transform(src.data(), dst.data(), fwd.data(), inv.data());
  if (kind == 2) zarvel_find_rigid_transform(src.data(), dst.data(), src.size() / 2, fwd.data());
  return {fwd, inv};
}

// Identity from equal sets and the quarter turn u = -y, v = x on every estimator; a scaling
// by 2, which "rigid" keeps; a general affine map. Each inverse maps the images back.
// The similarity fit of collinear points (the minimum-norm least-squares solution) still maps
// them onto their images.
TEST(Estimate, KnownAndDegenerateTransforms) {
  const Points tri = {10, 20, 200, 35, 60, 180}, quad = {1, 0, 0, 1, 2, 3, -1, 4};
  const Mat3 m = {1.3f, -0.4f, 12.5f, 0.25f, 0.8f, -7.0f, 0, 0, 1};
  // {estimators, source, destination, forward matrix}
  const std::tuple<std::vector<int>, Points, Points, Mat3> cases[] = {
      {{0, 1, 2}, tri, tri, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
      {{0, 1, 2}, quad, {0, 1, -1, 0, -3, 2, -4, -1}, {0, -1, 0, 1, 0, 0, 0, 0, 1}},
      {{2}, quad, {2, 0, 0, 2, 4, 6, -2, 8}, {2, 0, 0, 0, 2, 0, 0, 0, 1}},
      {{0}, tri, map_points(m.data(), tri), m}};
  for (const auto& [kinds, src, dst, want] : cases) {
    for (int kind : kinds) {
      SCOPED_TRACE(kind);
      const auto [fwd, inv] = estimate(kind, src, dst);
      expect_near(fwd.data(), want.data(), 9, 1e-4f * (1 + std::abs(want[2])));
      if (kind != 2) expect_near(map_points(inv.data(), dst).data(), src.data(), 6, 1e-3f);
    }
  }
  const Points line = {0, 0, 1, 1, 2, 2}, line_dst = {5, 1, 7, 3, 9, 5};
  expect_near(map_points(estimate(1, line, line_dst).first.data(), line).data(), line_dst.data(), 6,
              1e-4f);
  // Collinear and coincident points through every fit: no crash, whatever the singular fits give.
  for (int kind : {0, 1, 2})
    for (const Points& p : {line, Points{3, 3, 3, 3, 3, 3}}) estimate(kind, p, line_dst);
}

// Many noisy pairs: the fit is a rotation with scale, and its residuals satisfy the normal
// equations of u = a x + b y + tx, v = -b x + a y + ty.
TEST(Estimate, RigidFitsNoisyPointsInTheLeastSquaresSense) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> coord(-100, 100);
  std::normal_distribution<float> noise(0, 0.5f);
  const float a = 0.9f * std::cos(0.3f), b = 0.9f * std::sin(0.3f),
              truth[6] = {a, b, 15, -b, a, -4};
  Points src(120);
  for (float& v : src) v = coord(rng);
  Points dst = map_points(truth, src);
  for (float& v : dst) v += noise(rng);
  const Mat3 m = estimate(2, src, dst).first;
  expect_near(&m[3], Mat3{-m[1], m[0], m[5], 0, 0, 1}.data(), 6, 1e-6f);
  const Points fit = map_points(m.data(), src);
  double g[4] = {}, ss = 0;
  for (size_t i = 0; i < src.size(); i += 2) {
    const double x = src[i], y = src[i + 1], ru = fit[i] - dst[i], rv = fit[i + 1] - dst[i + 1];
    g[0] += x * ru + y * rv, g[1] += y * ru - x * rv, g[2] += ru, g[3] += rv, ss += x * x + y * y;
  }
  for (int k = 0; k < 4; ++k) EXPECT_NEAR(g[k] / (k < 2 ? ss : 60), 0, k < 2 ? 1e-5 : 1e-3) << k;
}

// Estimate the map from output positions to input positions, warp with it, and each of the
// three output points shows the input at its partner (a block of its value, so that a
// sub-pixel error still reads it).
TEST(Estimate, EstimateThenWarpMapsThePointsOntoEachOther) {
  zarvel::aux::FramePtr in(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 64, 64, nullptr, 0));
  zarvel::aux::FramePtr out(zarvel_frame_alloc(0, ZARVEL_PIXFMT_GREY, 48, 48, nullptr, 0));
  zarvel_frame_reset(in.get(), 0);
  const Points in_points = {20, 12, 50, 30, 16, 44}, out_points = {10, 10, 36, 14, 14, 38};
  auto at = [](zarvel_frame_t* f, const Points& p, int i, int dy) {
    return f->plane[0] + int(p[2 * i + 1] + dy) * f->stride[0] + int(p[2 * i]);
  };
  for (int k = 0; k < 15; ++k)
    std::fill_n(at(in.get(), in_points, k / 5, k % 5 - 2) - 2, 5, 90 + 70 * (k / 5));
  const Mat3 fwd = estimate(0, out_points, in_points).first;
  ASSERT_EQ(zarvel_frame_warpaffine(in.get(), out.get(), fwd.data()), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(*at(out.get(), out_points, i, 0), 90 + 70 * i) << i;
}

}  // namespace
