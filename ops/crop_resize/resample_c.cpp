// Scalar reference rows of the bilinear resampler.
#include "ops/crop_resize/resample_kernels.h"

namespace zarvel::aux::resample {

void hresample_row_c(const uint8_t* row, const int32_t* ofs, const int32_t* weights, int16_t* out,
                     int n, int step) {
  for (int j = 0; j < n; ++j) {
    const int32_t w0 = static_cast<int16_t>(weights[j] & 0xffff);
    const int32_t w1 = static_cast<int16_t>(static_cast<uint32_t>(weights[j]) >> 16);
    out[j] = static_cast<int16_t>((w0 * row[ofs[j]] + w1 * row[ofs[j] + step]) >> kSumShift);
  }
}

void vresample_row_c(const int16_t* s0, const int16_t* s1, int32_t b0, int32_t b1, uint8_t* dst,
                     int n) {
  for (int j = 0; j < n; ++j) {
    const int32_t v = ((s0[j] * b0) >> 16) + ((s1[j] * b1) >> 16);
    dst[j] = static_cast<uint8_t>((v + kFinalRound) >> kFinalShift);
  }
}

}  // namespace zarvel::aux::resample
