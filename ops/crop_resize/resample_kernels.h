// Row kernels of the separable bilinear resampler, in fixed point.
//
// Weights: a tap at fraction f of the way from pixel p0 to pixel p1 weighs p0 by (1 - f) and
// p1 by f. Both weights are scaled by 2^11 = 2048 and rounded, so they fit int16 and sum to
// 2048. A horizontal sum S = w0*p0 + w1*p1 is at most 2048 * 255 = 522240 (20 bits).
//
// Vertical step: out = ((((S0 >> 4) * b0) >> 16) + (((S1 >> 4) * b1) >> 16) + 2) >> 2.
// S >> 4 is at most 32640 and so fits int16 (rows of it are what the horizontal pass keeps); (S >>
// 4) * b >> 16 is the high half of a 16x16 multiply, which a vector unit does in one instruction.
// The total scale is 2048 * 2048 / 16 / 65536 = 4, removed by the final rounding shift (+2, >> 2).
//
// Split weights: a weight w (0..2048) is 64 * h + l with h = w >> 6 (0..32) and l = w & 63, both
// signed bytes. For taps p0, p1 (0..255), H = h0 p0 + h1 p1 <= 16320 and L = l0 p0 + l1 p1 <=
// 32130, so an unsigned-by-signed byte multiply-add of int16 results never saturates; S = 64 H +
// L, and since 64 H is a multiple of 16, S >> 4 = 4 H + (L >> 4) exactly, with no 32-bit lanes.
// A table holds each element's pair as two bytes (first tap low): `w_low` the l, `w_high` the h.
#pragma once

#include <cstdint>

namespace zarvel::aux::resample {

inline constexpr int kWeightBits = 11;
inline constexpr int kWeightScale = 1 << kWeightBits;  // 2048
inline constexpr int kSumShift = 4;                    // S >> 4 fits int16
inline constexpr int kFinalRound = 2;                  // + 2, >> 2
inline constexpr int kFinalShift = 2;

// Horizontal pass over n output elements (pixels x channels):
//   out[j] = (w[j].lo * row[ofs[j]] + w[j].hi * row[ofs[j] + step]) >> 4
// where w[j] packs the two int16 weights (low half: first tap). The shift is the first half
// of the vertical step, done once per source row.
void hresample_row_c(const uint8_t* row, const int32_t* ofs, const int32_t* weights, int16_t* out,
                     int n, int step);
// Vertical pass over n output bytes: out = (((s0 * b0) >> 16) + ((s1 * b1) >> 16) + 2) >> 2.
void vresample_row_c(const int16_t* s0, const int16_t* s1, int32_t b0, int32_t b1, uint8_t* dst,
                     int n);

// AVX2 rows do blocks of 16 elements (32 for the vertical row), the last one overlapping the
// one before when n is not a multiple; they return how many elements they did: n, or 0 when
// n is below one block (the window and split forms: n rounded down to whole groups of 4).
//
// Gather form: one 32-bit gather per element reads row[ofs[j] .. ofs[j] + 3], every one of
// which must lie inside the row.
int hresample_row_avx2_gather(const uint8_t* row, const int32_t* ofs, const int32_t* weights,
                              int16_t* out, int n, int step);
// Window form, for tables where each group of 4 elements takes its taps from 16 bytes:
// group g loads row[base[g] .. base[g] + 15] (inside the row) and shuffle[j] holds the byte
// picks {tap0, 0x80, tap1, 0x80} of element j relative to its group's base.
int hresample_row_avx2_window(const uint8_t* row, const int32_t* base, const uint32_t* shuffle,
                              const int32_t* weights, int16_t* out, int n);
// Split-window form, for 2 or 3 channels where a group's 4 elements span at most two
// columns: group g's lane is row[lo[g] .. lo[g] + 7] followed by row[hi[g] .. hi[g] + 7]
// (both inside the row); shuffle[j] picks relative to that 16-byte lane.
int hresample_row_avx2_split(const uint8_t* row, const int32_t* lo, const int32_t* hi,
                             const uint32_t* shuffle, const int32_t* weights, int16_t* out, int n);
// 512-bit window form, blocks of 32 elements whose taps lie within 128 bytes: block k loads
// row[base[k] .. base[k] + 127] (inside the row) and picks[j] holds the two tap bytes of
// element j relative to its block's base (first tap low). Weights are the split pairs below.
// Returns n rounded down to whole blocks.
int hresample_row_avx512_window(const uint8_t* row, const int32_t* base, const uint16_t* picks,
                                const uint16_t* w_low, const uint16_t* w_high, int16_t* out, int n);
// 512-bit pixel-gather form for 3 channels, blocks of 32 pixels (96 elements): pixel p of a
// block reads row[pixel_ofs[p] .. pixel_ofs[p] + 7] (inside the row), its first column's three
// bytes and then the second's, so it serves any spread of the columns. Returns n rounded down
// to whole blocks.
int hresample_row_avx512_gather3(const uint8_t* row, const int32_t* pixel_ofs,
                                 const uint16_t* w_low, const uint16_t* w_high, int16_t* out,
                                 int n);
// Both passes of one output row in the pixel-gather form: the horizontal sums of row0 and row1
// (as hresample_row_avx512_gather3 makes them), then the vertical step with b0, b1, into n
// output bytes. Returns n rounded down to whole blocks.
int resample_rows_avx512_gather3(const uint8_t* row0, const uint8_t* row1, const int32_t* pixel_ofs,
                                 const uint16_t* w_low, const uint16_t* w_high, int32_t b0,
                                 int32_t b1, uint8_t* dst, int n);
// Vertical row.
int vresample_row_avx2(const int16_t* s0, const int16_t* s1, int32_t b0, int32_t b1, uint8_t* dst,
                       int n);

}  // namespace zarvel::aux::resample
