// Planar transforms from point correspondences, in single precision:
//   affine      u = p0 x + p1 y + p2, v = p3 x + p4 y + p5 through three pairs (exact solve);
//   similarity  u = a x + b y + tx,   v = -b x + a y + ty, least squares over three pairs;
//   rigid       the same model over n pairs. The scale is not constrained: a rotation with
//               scale is fitted, so a scaled point set keeps its scale.
// Points are (x, y) float pairs; matrices are row-major 3x3 with last row (0, 0, 1).
#include <zarvel/aux.h>

#include <Eigen/Dense>
#include <limits>
#include <new>

namespace zarvel::aux {
namespace {

using Matrix3 = Eigen::Matrix<float, 3, 3, Eigen::RowMajor>;

void write_matrix(const Matrix3& m, float* out) {
  Eigen::Map<Matrix3> view(out);
  view = m;
}

void write_inverse(const Matrix3& forward, float* inverse) {
  // Cofactor formula: a singular forward matrix gives a non-finite inverse.
  write_matrix(forward.inverse(), inverse);
}

Matrix3 rotation_with_scale(const Eigen::VectorXf& p) {
  Matrix3 m;
  m << p(0), p(1), p(2), -p(1), p(0), p(3), 0.0f, 0.0f, 1.0f;
  return m;
}

// Least-squares (a, b, tx, ty) over n pairs, minimum-norm when the points are degenerate:
// rows i = [x, y, 1, 0] -> u, rows n + i = [y, -x, 0, 1] -> v.
Eigen::VectorXf fit_rotation_with_scale(const float* src, const float* dst, int32_t n) {
  if (n <= 0) return Eigen::VectorXf::Zero(4);  // an empty system: the zero solution
  const Eigen::Index rows = Eigen::Index{n};
  Eigen::MatrixXf a(2 * rows, 4);
  Eigen::VectorXf b(2 * rows);
  for (Eigen::Index i = 0; i < rows; ++i) {
    const float x = src[2 * i], y = src[2 * i + 1];
    a.row(i) << x, y, 1.0f, 0.0f;
    a.row(rows + i) << y, -x, 0.0f, 1.0f;
    b(i) = dst[2 * i];
    b(rows + i) = dst[2 * i + 1];
  }
  // Non-finite points have no least-squares fit; the SVD's iteration is not meant for them.
  if (!a.allFinite() || !b.allFinite()) {
    return Eigen::VectorXf::Constant(4, std::numeric_limits<float>::quiet_NaN());
  }
  const Eigen::JacobiSVD<Eigen::MatrixXf> svd(a, Eigen::ComputeThinU | Eigen::ComputeThinV);
  return svd.solve(b);
}

void find_affine(const float* src, const float* dst, float* forward, float* inverse) {
  Eigen::Matrix<float, 6, 6> a = Eigen::Matrix<float, 6, 6>::Zero();
  Eigen::Matrix<float, 6, 1> b;
  for (int i = 0; i < 3; ++i) {
    const float x = src[2 * i], y = src[2 * i + 1];
    a.row(i) << x, y, 1.0f, 0.0f, 0.0f, 0.0f;
    a.row(3 + i) << 0.0f, 0.0f, 0.0f, x, y, 1.0f;
    b(i) = dst[2 * i];
    b(3 + i) = dst[2 * i + 1];
  }
  // Fixed-size, on the stack. Full pivoting keeps collinear points from dividing by zero in
  // the solve; the singular forward matrix then shows in the inverse.
  const Eigen::Matrix<float, 6, 1> p = a.fullPivLu().solve(b);
  Matrix3 m;
  m << p(0), p(1), p(2), p(3), p(4), p(5), 0.0f, 0.0f, 1.0f;
  write_matrix(m, forward);
  write_inverse(m, inverse);
}

void find_similarity(const float* src, const float* dst, float* forward, float* inverse) {
  const Matrix3 m = rotation_with_scale(fit_rotation_with_scale(src, dst, 3));
  write_matrix(m, forward);
  write_inverse(m, inverse);
}

void find_rigid(const float* src, const float* dst, int32_t n, float* forward) {
  write_matrix(rotation_with_scale(fit_rotation_with_scale(src, dst, n)), forward);
}

}  // namespace
}  // namespace zarvel::aux

extern "C" {

ZARVEL_AUX_API void zarvel_find_affine_transform(const float* src, const float* dst, float* forward,
                                                 float* inverse) {
  zarvel::aux::find_affine(src, dst, forward, inverse);
}

ZARVEL_AUX_API void zarvel_find_similarity_transform(const float* src, const float* dst,
                                                     float* forward, float* inverse) {
  try {
    zarvel::aux::find_similarity(src, dst, forward, inverse);
  } catch (const std::bad_alloc&) {
    // Nothing to report through: the outputs are left as they were.
  }
}

ZARVEL_AUX_API void zarvel_find_rigid_transform(const float* src, const float* dst, int32_t n,
                                                float* forward) {
  try {
    zarvel::aux::find_rigid(src, dst, n, forward);
  } catch (const std::bad_alloc&) {
    // As above.
  }
}

}  // extern "C"
