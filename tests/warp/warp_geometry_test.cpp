// The vector kernels' block geometry at the limits of its 16-bit form (planes 2^15 - 1 wide
// or 2^15 tall), and on planes whose width, height or stride do not fit it (32-bit inside
// test and offsets): blocks whose last lane reaches the last column or row. Each against the model
// of the vector arithmetic, with the input against a guard page.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ops/warp/warp.h"
#include "plugin/cpu_features.h"
#include "warp_models.h"

namespace za = zarvel::aux;
namespace zw = zarvel::aux::warp;
using zarvel::test::warp::GuardedPlane;
using zarvel::test::warp::Plane;

namespace {

void expect_vector_model(const Plane& in, int32_t ow, int32_t oh, const std::vector<float>& m,
                         const std::string& what) {
  static const zw::PlaneKernel kernels[] = {zw::warp_affine_c1, zw::warp_affine_c2,
                                            zw::warp_affine_c3};
  for (int mode : {0, 1, 5}) {
    Plane want(ow, oh, in.channels), got(ow, oh, in.channels);
    std::fill(want.bytes.begin(), want.bytes.end(), 0xA5);
    got.bytes = want.bytes;
    zarvel::test::warp::vector_model(in, want, m.data(), false, mode, 9);
    const GuardedPlane guarded(in);
    kernels[in.channels - 1](in.height, in.width, in.stride, guarded.data(), oh, ow, got.stride,
                             got.bytes.data(), m.data(), mode, 9);
    ASSERT_EQ(got.bytes, want.bytes) << what << " mode " << mode;
  }
}

Plane patterned(int32_t w, int32_t h, int32_t c, int32_t pad = 0) {
  Plane p(w, h, c, pad);
  for (size_t k = 0; k < p.bytes.size(); ++k) p.bytes[k] = static_cast<uint8_t>(k * 131 + (k >> 7));
  return p;
}

TEST(WarpGeometry, VectorBlocksAtAndBeyondSixteenBitLimits) {
  if ((za::cpu_features() & za::kCpuAvx2Fma) == 0) GTEST_SKIP() << "no 256-bit FMA";
  // Blocks of eight whose last lane reaches the last column or row (ix = width - 1 or
  // iy = height - 1: not inside) next to blocks that end one before it.
  // 2^15 - 1 columns (the widest one-channel rows of the 16-bit test) and 2^15 rows.
  expect_vector_model(patterned(32767, 3, 1), 64, 2, {1, 0, 32711.6f, 0, 1, 0.4f}, "32767 wide");
  expect_vector_model(patterned(3, 32768, 1), 32, 3, {0, 0.25f, 0.2f, 1, 0, 32744.1f}, "2^15 tall");
  // Wider than 2^15, and strides of 2^15 and more: the 32-bit test.
  expect_vector_model(patterned(33000, 2, 1), 64, 1, {1, 0, 32944.6f, 0, 1, 0.3f}, "33000 wide");
  expect_vector_model(patterned(40, 4, 1, 32768 - 40), 16, 3, {1, 0, 0.5f, 0, 1, 1.3f},
                      "stride 2^15, last row");
  for (int c = 1; c <= 3; ++c) {
    const Plane strided = patterned(40, 4, c, 32768 - 40 * c);
    expect_vector_model(strided, 33, 3, {1.2f, 0.1f, 0.7f, -0.05f, 0.8f, 0.6f},
                        "stride 2^15, channels " + std::to_string(c));
    if (HasFatalFailure()) return;
  }
}

}  // namespace
