// Choice of the vector blocks by the processor-feature word, and whole rows made of the
// chosen blocks and the scalar tail.
#include "tensor/to_tensor_kernels.h"

#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "plugin/cpu_features.h"

namespace zarvel::aux::to_tensor {

namespace {

int64_t no_packed_f32(const uint8_t*, int64_t, float* const[3], const float*, const float*) {
  return 0;
}
int64_t no_packed_u8(const uint8_t*, int64_t, uint8_t* const[3]) { return 0; }
int64_t no_luma_f32(const uint8_t*, int64_t, int, float*, float, float) { return 0; }
int64_t no_luma_u8(const uint8_t*, int64_t, int, uint8_t*) { return 0; }
int64_t no_grey_f32(const uint8_t*, int64_t, float*, float, float) { return 0; }

// The SSE control word without its exception flags (0 off x86).
uint32_t control_word() {
#if defined(__x86_64__) || defined(__i386__)
  return _mm_getcsr() & ~0x3Fu;
#else
  return 0;
#endif
}

}  // namespace

BlockKernels select_block_kernels() {
  const uint32_t features = cpu_features();
  const bool avx512 = (features & kCpuAvx512Vbmi) != 0;
  if (features & kCpuAvx2) {
    return {avx512 ? packed_f32_blocks_avx512 : packed_f32_blocks_avx2,
            packed_u8_blocks_avx2,
            luma_f32_blocks_avx2,
            luma_u8_blocks_avx2,
            grey_f32_blocks_avx2,
            avx512 ? grey_f32_recip_blocks_avx512 : nullptr};
  }
  return {no_packed_f32, no_packed_u8, no_luma_f32, no_luma_u8, no_grey_f32, nullptr};
}

bool grey_reciprocal_exact(float mean, float std, float* recip) {
  const float r = 1.0f / std;
  *recip = r;
  // The last answer, per thread: a batch of many small items asks with the same parameters,
  // and the check costs about a microsecond.
  // The floating-point control word is part of the question: rounding and flush-to-zero modes
  // change the answer. Its sticky exception flags (bits 0 to 5) are not.
  thread_local uint32_t last[3] = {~0u, ~0u, ~0u};
  thread_local bool last_answer = false;
  uint32_t asked[3] = {0, 0, control_word()};
  std::memcpy(&asked[0], &mean, sizeof mean);
  std::memcpy(&asked[1], &std, sizeof std);
  if (std::memcmp(asked, last, sizeof last) == 0) return last_answer;
  bool exact = true;
  for (int v = 0; v < 256 && exact; ++v) {
    const float d = static_cast<float>(v) - mean;
    const float q = d * r;
    const float fast = std::fmaf(std::fmaf(-q, std, d), r, q);
    const float quotient = d / std;
    exact = std::memcmp(&fast, &quotient, sizeof fast) == 0;
  }
  std::memcpy(last, asked, sizeof last);
  last_answer = exact;
  return exact;
}

void packed_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, float* const dst[3],
                    const float mean[3], const float recip[3]) {
  const int64_t done = k.packed_f32(src, n, dst, mean, recip);
  float* const rest[3] = {dst[0] + done, dst[1] + done, dst[2] + done};
  packed_f32_row_c(src + 3 * done, n - done, rest, mean, recip);
}

void packed_u8_row(const BlockKernels& k, const uint8_t* src, int64_t n, uint8_t* const dst[3],
                   bool identity, const float mean[3], const float recip[3]) {
  const int64_t done = k.packed_u8(src, n, dst);
  uint8_t* const rest[3] = {dst[0] + done, dst[1] + done, dst[2] + done};
  packed_u8_row_c(src + 3 * done, n - done, rest, identity, mean, recip);
}

void luma_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, int r_byte, float* dst,
                  float mean, float std) {
  const int64_t done = k.luma_f32(src, n, r_byte, dst, mean, std);
  luma_f32_row_c(src + 3 * done, n - done, r_byte, dst + done, mean, std);
}

void luma_u8_row(const BlockKernels& k, const uint8_t* src, int64_t n, int r_byte, uint8_t* dst) {
  const int64_t done = k.luma_u8(src, n, r_byte, dst);
  luma_u8_row_c(src + 3 * done, n - done, r_byte, dst + done);
}

void grey_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, float* dst, float mean,
                  float std, float recip) {
  const int64_t done = recip != 0.0f && k.grey_f32_recip != nullptr
                           ? k.grey_f32_recip(src, n, dst, mean, std, recip)
                           : k.grey_f32(src, n, dst, mean, std);
  grey_f32_row_c(src + done, n - done, dst + done, mean, std);
}

}  // namespace zarvel::aux::to_tensor
