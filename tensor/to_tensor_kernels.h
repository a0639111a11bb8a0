// Row kernels that turn packed 8-bit pixels into planar tensor samples.
//
// A packed row holds 3 bytes a pixel; byte k of every pixel goes to plane dst[k] with the
// parameters mean[k] and recip[k] (the caller arranges planes and parameters so that the
// tensor's channel order comes out). Grey rows come from the luma of packed pixels or from
// GREY bytes.
//
// Scalar rows handle any length. Vector "blocks" kernels handle the longest prefix made of
// whole blocks and return its length; the scalar row finishes the tail. Vector kernels give
// the scalar bytes exactly: the float arithmetic is the same operations in the same order.
#pragma once

#include <cstdint>

namespace zarvel::aux::to_tensor {

// Luma weights of the grey path, applied in double precision as
// (kLumaR * R + kLumaG * G) + kLumaB * B and truncated toward zero.
inline constexpr double kLumaR = 0.299;
inline constexpr double kLumaG = 0.587;
inline constexpr double kLumaB = 0.114;

// Pixels per block of the AVX2 kernels: 16 packed pixels are three 16-byte loads.
inline constexpr int64_t kBlockPixels = 16;
// The float colour kernel works on 8 pixels (24 bytes) at a time.
inline constexpr int64_t kFloatBlockPixels = 8;

// The low 8 bits of a float truncated toward zero to a 32-bit integer, without saturation
// (300.0 -> 44, -1.0 -> 255). NaN and values outside the 32-bit range give 0, the low byte of
// the processor's "integer indefinite" result.
inline uint8_t low_byte_of_trunc(float value) {
  if (!(value > -2147483904.0f && value < 2147483648.0f)) return 0;
  return static_cast<uint8_t>(static_cast<int32_t>(value));
}

// ---- scalar rows (to_tensor_kernels_c.cpp) ----

// Float samples (p - mean[k]) * recip[k].
void packed_f32_row_c(const uint8_t* src, int64_t n, float* const dst[3], const float mean[3],
                      const float recip[3]);
// 8-bit samples: always the source byte. With identity parameters (mean 0, recip 1) the value
// is computed as the float kernel would and its low byte stored, which is the byte itself;
// with any other parameters the byte is copied.
void packed_u8_row_c(const uint8_t* src, int64_t n, uint8_t* const dst[3], bool identity,
                     const float mean[3], const float recip[3]);
// Luma of packed pixels whose red byte is r_byte (0 for RGB order, 2 for BGR order).
// Float samples: the luma itself when mean is 0 and std is 1, else (luma - mean) / std.
void luma_f32_row_c(const uint8_t* src, int64_t n, int r_byte, float* dst, float mean, float std);
void luma_u8_row_c(const uint8_t* src, int64_t n, int r_byte, uint8_t* dst);
// GREY bytes into float samples, with the same rule as the luma row.
void grey_f32_row_c(const uint8_t* src, int64_t n, float* dst, float mean, float std);

// ---- AVX2 blocks (to_tensor_kernels_avx2.cpp), same arguments as the rows above ----

int64_t packed_f32_blocks_avx2(const uint8_t* src, int64_t n, float* const dst[3],
                               const float mean[3], const float recip[3]);
int64_t packed_u8_blocks_avx2(const uint8_t* src, int64_t n, uint8_t* const dst[3]);
int64_t luma_f32_blocks_avx2(const uint8_t* src, int64_t n, int r_byte, float* dst, float mean,
                             float std);
int64_t luma_u8_blocks_avx2(const uint8_t* src, int64_t n, int r_byte, uint8_t* dst);
int64_t grey_f32_blocks_avx2(const uint8_t* src, int64_t n, float* dst, float mean, float std);

// ---- AVX-512 VBMI blocks (to_tensor_kernels_avx512.cpp): 16 pixels a step ----

int64_t packed_f32_blocks_avx512(const uint8_t* src, int64_t n, float* const dst[3],
                                 const float mean[3], const float recip[3]);
// GREY bytes into float samples without a division: d = v - mean, q = d * recip, then
// q + (d - q * std) * recip with both steps fused. Serves only where grey_reciprocal_exact
// said yes, and then gives grey_f32_row_c's samples.
int64_t grey_f32_recip_blocks_avx512(const uint8_t* src, int64_t n, float* dst, float mean,
                                     float std, float recip);

// Whether the division-free form above equals (v - mean) / std, bit for bit, for every byte
// v: an exhaustive check of the 256 inputs, so a float division (the slowest step of the grey
// row) can be left out. `recip` receives 1 / std.
bool grey_reciprocal_exact(float mean, float std, float* recip);

// ---- the blocks chosen for this processor (to_tensor_kernels.cpp) ----

struct BlockKernels {
  int64_t (*packed_f32)(const uint8_t*, int64_t, float* const[3], const float*, const float*);
  int64_t (*packed_u8)(const uint8_t*, int64_t, uint8_t* const[3]);
  int64_t (*luma_f32)(const uint8_t*, int64_t, int, float*, float, float);
  int64_t (*luma_u8)(const uint8_t*, int64_t, int, uint8_t*);
  int64_t (*grey_f32)(const uint8_t*, int64_t, float*, float, float);
  // Null where the processor has no division-free grey block.
  int64_t (*grey_f32_recip)(const uint8_t*, int64_t, float*, float, float, float);
};

// AVX2 blocks when the feature word has kCpuAvx2, else blocks that do nothing.
BlockKernels select_block_kernels();

// Whole rows: the chosen blocks, then the scalar row on the rest.
void packed_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, float* const dst[3],
                    const float mean[3], const float recip[3]);
void packed_u8_row(const BlockKernels& k, const uint8_t* src, int64_t n, uint8_t* const dst[3],
                   bool identity, const float mean[3], const float recip[3]);
void luma_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, int r_byte, float* dst,
                  float mean, float std);
void luma_u8_row(const BlockKernels& k, const uint8_t* src, int64_t n, int r_byte, uint8_t* dst);
// `recip` is 0, or the reciprocal for which grey_reciprocal_exact said yes.
void grey_f32_row(const BlockKernels& k, const uint8_t* src, int64_t n, float* dst, float mean,
                  float std, float recip = 0.0f);

}  // namespace zarvel::aux::to_tensor
