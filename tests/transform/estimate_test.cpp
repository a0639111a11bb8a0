// Transform estimation: known transforms recovered from exact and noisy point sets, the
// rotation-with-scale model of the "rigid" fit, degenerate inputs, and estimate-then-warp.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <array>
#include <cmath>
#include <random>
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

TEST(Estimate, EqualPointSetsGiveTheIdentity) {
  Mat3 fwd{}, inv{};
  zarvel_find_affine_transform(kTriangle.data(), kTriangle.data(), fwd.data(), inv.data());
  expect_near(fwd, kIdentity, 1e-4f, "affine forward");
  expect_near(inv, kIdentity, 1e-4f, "affine inverse");
  zarvel_find_similarity_transform(kTriangle.data(), kTriangle.data(), fwd.data(), inv.data());
  expect_near(fwd, kIdentity, 1e-4f, "similarity forward");
  expect_near(inv, kIdentity, 1e-4f, "similarity inverse");
  zarvel_find_rigid_transform(kTriangle.data(), kTriangle.data(), 3, fwd.data());
  expect_near(fwd, kIdentity, 1e-4f, "rigid forward");
}

TEST(Estimate, QuarterTurnGivesBMinusOne) {
  // u = -y, v = x.
  const std::vector<float> src = {1, 0, 0, 1, 2, 3, -1, 4};
  std::vector<float> dst;
  for (size_t i = 0; i < src.size(); i += 2) dst.insert(dst.end(), {-src[i + 1], src[i]});
  const Mat3 want = {0, -1, 0, 1, 0, 0, 0, 0, 1};
  Mat3 fwd{}, inv{};
  zarvel_find_similarity_transform(src.data(), dst.data(), fwd.data(), inv.data());
  expect_near(fwd, want, 1e-5f, "similarity");
  expect_near(inv, {0, 1, 0, -1, 0, 0, 0, 0, 1}, 1e-5f, "similarity inverse");
  zarvel_find_rigid_transform(src.data(), dst.data(), 4, fwd.data());
  expect_near(fwd, want, 1e-5f, "rigid");
  zarvel_find_affine_transform(src.data(), dst.data(), fwd.data(), inv.data());
  expect_near(fwd, want, 1e-5f, "affine");
}

TEST(Estimate, RigidKeepsTheScale) {
  const std::vector<float> src = {0, 0, 3, 1, -2, 5, 4, -4};
  std::vector<float> dst;
  for (float v : src) dst.push_back(2 * v);
  Mat3 fwd{};
  zarvel_find_rigid_transform(src.data(), dst.data(), 4, fwd.data());
  expect_near(fwd, {2, 0, 0, 0, 2, 0, 0, 0, 1}, 1e-5f, "rigid of a scaling");
}

TEST(Estimate, AffineRecoversAGeneralTransformAndItsInverse) {
  const float m[6] = {1.3f, -0.4f, 12.5f, 0.25f, 0.8f, -7.0f};
  const auto dst = map_points(m, kTriangle);
  Mat3 fwd{}, inv{};
  zarvel_find_affine_transform(kTriangle.data(), dst.data(), fwd.data(), inv.data());
  expect_near(fwd, {m[0], m[1], m[2], m[3], m[4], m[5], 0, 0, 1}, 1e-3f, "affine");
  expect_near(multiply(fwd, inv), kIdentity, 1e-4f, "forward * inverse");
}

// Least squares over many noisy pairs, against normal equations solved in double precision.
TEST(Estimate, RigidFitsNoisyPointsInTheLeastSquaresSense) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> coord(-100, 100);
  std::normal_distribution<float> noise(0, 0.5f);
  const float a = 0.9f * std::cos(0.3f), b = 0.9f * std::sin(0.3f), tx = 15, ty = -4;
  const int n = 60;
  std::vector<float> src, dst;
  double ata[4][4] = {}, atb[4] = {};
  for (int i = 0; i < n; ++i) {
    const float x = coord(rng), y = coord(rng);
    const float u = a * x + b * y + tx + noise(rng), v = -b * x + a * y + ty + noise(rng);
    src.insert(src.end(), {x, y});
    dst.insert(dst.end(), {u, v});
    const double rows[2][4] = {{x, y, 1, 0}, {y, -x, 0, 1}};
    const double rhs[2] = {u, v};
    for (int r = 0; r < 2; ++r)
      for (int j = 0; j < 4; ++j) {
        atb[j] += rows[r][j] * rhs[r];
        for (int k = 0; k < 4; ++k) ata[j][k] += rows[r][j] * rows[r][k];
      }
  }
  // Gauss-Jordan on the 4x4 normal equations.
  for (int c = 0; c < 4; ++c) {
    for (int r = 0; r < 4; ++r) {
      if (r == c) continue;
      const double f = ata[r][c] / ata[c][c];
      for (int k = 0; k < 4; ++k) ata[r][k] -= f * ata[c][k];
      atb[r] -= f * atb[c];
    }
  }
  double p[4];
  for (int c = 0; c < 4; ++c) p[c] = atb[c] / ata[c][c];
  Mat3 fwd{};
  zarvel_find_rigid_transform(src.data(), dst.data(), n, fwd.data());
  const Mat3 want = {
      float(p[0]), float(p[1]), float(p[2]), float(-p[1]), float(p[0]), float(p[3]), 0, 0, 1};
  expect_near(fwd, want, 2e-3f, "least squares");
  EXPECT_NEAR(fwd[0], a, 0.01f);
  EXPECT_NEAR(fwd[1], b, 0.01f);
}

TEST(Estimate, DegenerateInputsDoNotCrash) {
  const std::vector<float> line = {0, 0, 1, 1, 2, 2}, line_dst = {5, 1, 7, 3, 9, 5};
  Mat3 fwd{}, inv{};
  zarvel_find_affine_transform(line.data(), line_dst.data(), fwd.data(), inv.data());
  zarvel_find_similarity_transform(line.data(), line_dst.data(), fwd.data(), inv.data());
  for (float v : fwd) EXPECT_TRUE(std::isfinite(v));  // the minimum-norm solution
  // The similarity fit of collinear points still maps them onto their images.
  const auto mapped = map_points(fwd.data(), line);
  for (size_t i = 0; i < line.size(); ++i) EXPECT_NEAR(mapped[i], line_dst[i], 1e-4f);

  const std::vector<float> same = {3, 3, 3, 3, 3, 3};
  zarvel_find_affine_transform(same.data(), line_dst.data(), fwd.data(), inv.data());
  zarvel_find_rigid_transform(same.data(), line_dst.data(), 3, fwd.data());
  for (float v : fwd) EXPECT_TRUE(std::isfinite(v));

  // An empty system gives the zero solution.
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
