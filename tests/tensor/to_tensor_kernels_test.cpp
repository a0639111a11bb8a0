// The AVX2 blocks plus scalar tails against the scalar rows: byte-identical results over all
// lengths around the block size, unaligned starts, sources ending at a guard page, and every
// RGB triple for the luma rows.
#include "tensor/to_tensor_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "guarded_buffer.h"
#include "plugin/cpu_features.h"

namespace {

namespace tt = zarvel::aux::to_tensor;

using zarvel::test::GuardedBuffer;

class ToTensorKernels : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!(zarvel::aux::cpu_features() & zarvel::aux::kCpuAvx2)) GTEST_SKIP() << "no AVX2";
    zarvel::aux::set_cpu_feature_mask(0);
    scalar_ = tt::select_block_kernels();
    zarvel::aux::set_cpu_feature_mask(~0u);
    vector_ = tt::select_block_kernels();
  }
  tt::BlockKernels scalar_{}, vector_{};
};

// Runs one row variant into sentinel-filled planes and returns their bytes (n samples plus
// a sentinel tail that must stay as it was).
template <typename T, typename Row>
std::vector<uint8_t> run_planes(int64_t n, int planes, Row row) {
  std::vector<T> out(static_cast<size_t>(planes * (n + 4)));
  std::memset(out.data(), 0xA5, out.size() * sizeof(T));
  T* dst[3] = {out.data(), out.data() + (n + 4), out.data() + 2 * (n + 4)};
  row(dst);
  const auto* bytes = reinterpret_cast<const uint8_t*>(out.data());
  return {bytes, bytes + out.size() * sizeof(T)};
}

TEST_F(ToTensorKernels, VectorRowsEqualScalarRows) {
  std::mt19937 rng(5);
  const float nan = std::nanf("");
  const float params[][3] = {{0, 0, 0},   {1, 1, 1}, {12.5f, -3, 255}, {0.3f, 57.1f, 1e-3f},
                             {nan, 0, 1}, {0, 0, 0}};
  const float stds[][3] = {{1, 1, 1},        {1, 1, 1},   {64, 0.7f, 3},
                           {0, 1e30f, 5.5f}, {1, nan, 1}, {-0.0f, 3, 1}};
  std::vector<int64_t> lengths = {70, 301};
  for (int64_t n = 0; n <= 2 * tt::kBlockPixels + 1; ++n) lengths.push_back(n);
  for (const int64_t n : lengths) {
    for (int start = 0; start < 3; ++start) {
      GuardedBuffer packed(static_cast<size_t>(3 * n + start));
      for (int64_t i = 0; i < 3 * n + start; ++i) packed.data()[i] = static_cast<uint8_t>(rng());
      const uint8_t* src = packed.data() + start;
      for (size_t p = 0; p < std::size(params); ++p) {
        const float* m = params[p];
        float r[3];
        for (int k = 0; k < 3; ++k) r[k] = 1.0f / stds[p][k];
        bool identity = true;
        for (int k = 0; k < 3; ++k) identity = identity && m[k] == 0.0f && stds[p][k] == 1.0f;
        auto f32 = [&](const tt::BlockKernels& k) {
          return run_planes<float>(n, 3,
                                   [&](float** d) { tt::packed_f32_row(k, src, n, d, m, r); });
        };
        auto u8 = [&](const tt::BlockKernels& k) {
          return run_planes<uint8_t>(
              n, 3, [&](uint8_t** d) { tt::packed_u8_row(k, src, n, d, identity, m, r); });
        };
        ASSERT_EQ(f32(vector_), f32(scalar_)) << n << " " << p;
        ASSERT_EQ(u8(vector_), u8(scalar_)) << n << " " << p;
        for (int r_byte : {0, 2}) {
          auto luma = [&](const tt::BlockKernels& k) {
            return run_planes<float>(n, 1, [&](float** d) {
              tt::luma_f32_row(k, src, n, r_byte, d[0], m[1], stds[p][1]);
            });
          };
          ASSERT_EQ(luma(vector_), luma(scalar_)) << n << " " << p;
        }
        auto grey = [&](const tt::BlockKernels& k) {
          return run_planes<float>(
              n, 1, [&](float** d) { tt::grey_f32_row(k, src, n, d[0], m[0], stds[p][0]); });
        };
        ASSERT_EQ(grey(vector_), grey(scalar_)) << n << " " << p;
      }
      auto luma_u8 = [&](const tt::BlockKernels& k) {
        return run_planes<uint8_t>(
            n, 1, [&](uint8_t** d) { tt::luma_u8_row(k, src, n, start == 1 ? 2 : 0, d[0]); });
      };
      ASSERT_EQ(luma_u8(vector_), luma_u8(scalar_)) << n;
    }
  }
}

// Every RGB triple, red byte first; BGR order only moves the red byte, covered above.
TEST_F(ToTensorKernels, LumaRowsAgreeOnEveryTriple) {
  constexpr int64_t kRow = 1 << 16;
  std::vector<uint8_t> src(3 * kRow);
  std::vector<float> fs(kRow), fv(kRow);
  std::vector<uint8_t> us(kRow), uv(kRow);
  for (int r = 0; r < 256; ++r) {
    for (int64_t i = 0; i < kRow; ++i) {
      src[3 * i] = static_cast<uint8_t>(r);
      src[3 * i + 1] = static_cast<uint8_t>(i >> 8);
      src[3 * i + 2] = static_cast<uint8_t>(i);
    }
    tt::luma_u8_row(scalar_, src.data(), kRow, 0, us.data());
    tt::luma_u8_row(vector_, src.data(), kRow, 0, uv.data());
    ASSERT_EQ(us, uv) << r;
    for (float mean : {0.0f, 16.5f}) {
      const float std = mean == 0.0f ? 1.0f : 3.3f;
      tt::luma_f32_row(scalar_, src.data(), kRow, 0, fs.data(), mean, std);
      tt::luma_f32_row(vector_, src.data(), kRow, 0, fv.data(), mean, std);
      ASSERT_EQ(std::memcmp(fs.data(), fv.data(), kRow * sizeof(float)), 0) << r;
    }
  }
}

}  // namespace
