// Transform estimation: known transforms recovered from exact and noisy point sets, the
// rotation-with-scale model of the "rigid" fit, degenerate inputs, and estimate-then-warp.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace {

using Mat3 = std::array<float, 9>;

void expect_near(const Mat3& got, const Mat3& want, float tol, const char* what) {
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(got[i], want[i], tol) << what << " entry " << i;
}

Mat3 multiply(const Mat3& a, const Mat3& b) {
  Mat3 r{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) r[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
  return r;
}

constexpr Mat3 kIdentity = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// dst = M * src for a 2x3 (row-major) M.
std::vector<float> map_points(const float* m, const std::vector<float>& src) {
  std::vector<float> dst(src.size());
  for (size_t i = 0; i < src.size(); i += 2) {
    dst[i] = m[0] * src[i] + m[1] * src[i + 1] + m[2];
    dst[i + 1] = m[3] * src[i] + m[4] * src[i + 1] + m[5];
  }
  return dst;
}

const std::vector<float> kTriangle = {10, 20, 200, 35, 60, 180};

// Runs estimator `kind` (affine, similarity, rigid) and returns {forward, inverse}; the
// rigid fit has no inverse, which stays zero.
std::pair<Mat3, Mat3> estimate(int kind, const std::vector<float>& src,
                               const std::vector<float>& dst) {
  Mat3 fwd{}, inv{};
  if (kind == 0) zarvel_find_affine_transform(src.data(), dst.data(), fwd.data(), inv.data());
  if (kind == 1) zarvel_find_similarity_transform(src.data(), dst.data(), fwd.data(), inv.data());
  if (kind == 2) zarvel_find_rigid_transform(src.data(), dst.data(), src.size() / 2, fwd.data());
  return {fwd, inv};
}

// Identity from equal sets and the quarter turn u = -y, v = x on every estimator; a scaling
// by 2, which "rigid" keeps; a general affine map. Inverses where the estimator gives one.
TEST(Estimate, KnownTransformsAreRecovered) {
  const std::vector<float> quad = {1, 0, 0, 1, 2, 3, -1, 4}, turned = {0, 1, -1, 0, -3, 2, -4, -1};
  const float m[6] = {1.3f, -0.4f, 12.5f, 0.25f, 0.8f, -7.0f};
  struct Case {
    std::vector<int> kinds;
    std::vector<float> src, dst;
    Mat3 want;
  } cases[] = {
      {{0, 1, 2}, kTriangle, kTriangle, kIdentity},
      {{0, 1, 2}, quad, turned, {0, -1, 0, 1, 0, 0, 0, 0, 1}},
      {{2}, quad, {2, 0, 0, 2, 4, 6, -2, 8}, {2, 0, 0, 0, 2, 0, 0, 0, 1}},
      {{0}, kTriangle, map_points(m, kTriangle), {m[0], m[1], m[2], m[3], m[4], m[5], 0, 0, 1}}};
  for (const Case& c : cases) {
    for (int kind : c.kinds) {
      const auto [fwd, inv] = estimate(kind, c.src, c.dst);
      expect_near(fwd, c.want, 1e-4f * (1 + std::abs(c.want[2])), "forward");
      if (kind != 2) expect_near(multiply(fwd, inv), kIdentity, 1e-4f, "forward * inverse");
    }
  }
}

// Least squares over many noisy pairs against the closed form of the fit u = a x + b y + tx,
// v = -b x + a y + ty on centred coordinates.
TEST(Estimate, RigidFitsNoisyPointsInTheLeastSquaresSense) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> coord(-100, 100);
  std::normal_distribution<float> noise(0, 0.5f);
  const float a = 0.9f * std::cos(0.3f), b = 0.9f * std::sin(0.3f);
  std::vector<float> src, dst;
  double mean[4] = {};
  for (int i = 0; i < 60; ++i) {
    const float x = coord(rng), y = coord(rng);
    src.insert(src.end(), {x, y});
    dst.insert(dst.end(), {a * x + b * y + 15 + noise(rng), -b * x + a * y - 4 + noise(rng)});
    for (int k = 0; k < 4; ++k) mean[k] += (k < 2 ? src : dst)[2 * i + k % 2] / 60.0;
  }
  double sa = 0, sb = 0, ss = 0;
  for (int i = 0; i < 60; ++i) {
    const double x = src[2 * i] - mean[0], y = src[2 * i + 1] - mean[1];
    const double u = dst[2 * i] - mean[2], v = dst[2 * i + 1] - mean[3];
    sa += x * u + y * v, sb += y * u - x * v, ss += x * x + y * y;
  }
  const double pa = sa / ss, pb = sb / ss;
  const Mat3 want = {float(pa),  float(pb), float(mean[2] - pa * mean[0] - pb * mean[1]),
                     float(-pb), float(pa), float(mean[3] + pb * mean[0] - pa * mean[1]),
                     0,          0,         1};
  expect_near(estimate(2, src, dst).first, want, 2e-3f, "least squares");
  EXPECT_NEAR(want[0], a, 0.01f);
  EXPECT_NEAR(want[1], b, 0.01f);
}

TEST(Estimate, DegenerateInputsDoNotCrash) {
  const std::vector<float> line = {0, 0, 1, 1, 2, 2}, line_dst = {5, 1, 7, 3, 9, 5};
  const std::vector<float> same = {3, 3, 3, 3, 3, 3};
  for (const auto& src : {line, same})
    for (int kind = 0; kind < 3; ++kind)
      for (float v : estimate(kind, src, line_dst).first) EXPECT_TRUE(std::isfinite(v)) << kind;
  // The similarity fit of collinear points (minimum norm) still maps them onto their images.
  const auto mapped = map_points(estimate(1, line, line_dst).first.data(), line);
  for (size_t i = 0; i < line.size(); ++i) EXPECT_NEAR(mapped[i], line_dst[i], 1e-4f);
  // An empty system gives the zero solution.
  Mat3 fwd;
  fwd.fill(7);
  zarvel_find_rigid_transform(nullptr, nullptr, 0, fwd.data());
  expect_near(fwd, {0, 0, 0, 0, 0, 0, 0, 0, 1}, 0, "empty");
}

// Estimate the map from output positions to input positions, warp with it, and each of the
// three output points shows the input at its partner.
TEST(Estimate, EstimateThenWarpMapsThePointsOntoEachOther) {
  zarvel_frame_t* in = zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 64, 64, nullptr, 0);
  zarvel_frame_t* out = zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 48, 48, nullptr, 0);
  ASSERT_NE(in, nullptr);
  ASSERT_NE(out, nullptr);
  zarvel_frame_reset(in, 0);
  const std::vector<float> in_points = {20, 12, 50, 30, 16, 44};
  const std::vector<float> out_points = {10, 10, 36, 14, 14, 38};  // roughly a similarity
  const uint8_t values[3] = {90, 160, 230};
  for (int i = 0; i < 3; ++i) {
    // A block of one value around each input point, so that a sub-pixel error still reads it.
    for (int dy = -2; dy <= 2; ++dy)
      for (int dx = -2; dx <= 2; ++dx)
        in->plane[0][(int(in_points[2 * i + 1]) + dy) * in->stride[0] + int(in_points[2 * i]) +
                     dx] = values[i];
  }
  Mat3 fwd{}, inv{};
  zarvel_find_affine_transform(out_points.data(), in_points.data(), fwd.data(), inv.data());
  ASSERT_EQ(zarvel_frame_warpaffine(in, out, fwd.data()), 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out->plane[0][int(out_points[2 * i + 1]) * out->stride[0] + int(out_points[2 * i])],
              values[i])
        << "point " << i;
  }
  // The inverse maps the input points back to the output points.
  const auto back = map_points(inv.data(), in_points);
  for (size_t i = 0; i < back.size(); ++i) EXPECT_NEAR(back[i], out_points[i], 1e-3f);
  zarvel_frame_free(&in);
  zarvel_frame_free(&out);
}

}  // namespace
