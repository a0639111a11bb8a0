// Scalar row kernels of the frame-to-tensor writers.
#include <cstdint>

#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux::to_tensor {

namespace {

inline int32_t luma_of(const uint8_t* pixel, int r_byte) {
  const double y = kLumaR * pixel[r_byte] + kLumaG * pixel[1] + kLumaB * pixel[2 - r_byte];
  return static_cast<int32_t>(y);
}

inline float normalised(int32_t value, float mean, float std, bool identity) {
  const float v = static_cast<float>(value);
  return identity ? v : (v - mean) / std;
}

}  // namespace

void packed_f32_row_c(const uint8_t* src, int64_t n, float* const dst[3], const float mean[3],
                      const float recip[3]) {
  float* d0 = dst[0];
  float* d1 = dst[1];
  float* d2 = dst[2];
  for (int64_t x = 0; x < n; ++x, src += 3) {
    d0[x] = (static_cast<float>(src[0]) - mean[0]) * recip[0];
    d1[x] = (static_cast<float>(src[1]) - mean[1]) * recip[1];
    d2[x] = (static_cast<float>(src[2]) - mean[2]) * recip[2];
  }
}

void packed_u8_row_c(const uint8_t* src, int64_t n, uint8_t* const dst[3], bool identity,
                     const float mean[3], const float recip[3]) {
  if (identity) {
    for (int64_t x = 0; x < n; ++x, src += 3) {
      for (int k = 0; k < 3; ++k) {
        const float v = (static_cast<float>(src[k]) - mean[k]) * recip[k];
        dst[k][x] = static_cast<uint8_t>(static_cast<int32_t>(v));
      }
    }
    return;
  }
  for (int64_t x = 0; x < n; ++x, src += 3) {
    dst[0][x] = src[0];
    dst[1][x] = src[1];
    dst[2][x] = src[2];
  }
}

void luma_f32_row_c(const uint8_t* src, int64_t n, int r_byte, float* dst, float mean, float std) {
  const bool identity = mean == 0.0f && std == 1.0f;
  for (int64_t x = 0; x < n; ++x, src += 3) {
    dst[x] = normalised(luma_of(src, r_byte), mean, std, identity);
  }
}

void luma_u8_row_c(const uint8_t* src, int64_t n, int r_byte, uint8_t* dst) {
  for (int64_t x = 0; x < n; ++x, src += 3) dst[x] = static_cast<uint8_t>(luma_of(src, r_byte));
}

void grey_f32_row_c(const uint8_t* src, int64_t n, float* dst, float mean, float std) {
  const bool identity = mean == 0.0f && std == 1.0f;
  for (int64_t x = 0; x < n; ++x) dst[x] = normalised(src[x], mean, std, identity);
}

}  // namespace zarvel::aux::to_tensor
