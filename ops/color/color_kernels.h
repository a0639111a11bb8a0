// Row kernels of the colour conversions, and their fixed-point constants.
//
// YUV <-> RGB use the ITU-R BT.601 limited-range (video range) matrices in Q20: each constant
// is its real coefficient times 2^20, truncated toward zero (R to U is one below that:
// 0.148 * 2^20 = 155189.2 is stored as 155188). The output bytes depend on these exact
// integers, so they are never recomputed from the real values.
//
// Range of the YUV -> RGB sums (why 32-bit lanes are exact): with Yc = max(Y - 16, 0) <= 239
// and d, e in [-128, 127], Yc * 1220542 <= 291709538, |1673527 * e| <= 214211456,
// |852492 * e| + |409993 * d| <= 161597440 and |2116026 * d| <= 270851328, so every sum
// (luma term + chroma term + 524288) lies in (-2^29, 2^30) and never overflows int32.
//
// RGB -> YUV: the positive sums are at most 255 * (269484 + 528482 + 102760) + 17301504 and
// 255 * 460324 + 134742016; the signed ones stay above -255 * 460323 + 134742016 > 0. All
// fit int32, and the shifted results are 16..235 (Y) and 16..240 (U, V) by construction.
//
// Grey: Q14 weights 4899 + 9617 + 1868 = 16384 (0.299, 0.587, 0.114), bias 8192 (one half).
// The largest sum is 255 * 16384 + 8192, whose shift is 255: the clamp never bites.
#pragma once

#include <cstdint>

namespace zarvel::aux::color {

// YUV -> RGB (Q20).
inline constexpr int32_t kLumaGain = 1220542;  // 1.164
inline constexpr int32_t kVToR = 1673527;      // 1.596
inline constexpr int32_t kUToB = 2116026;      // 2.018
inline constexpr int32_t kVToG = -852492;      // -0.813
inline constexpr int32_t kUToG = -409993;      // -0.391
inline constexpr int32_t kHalf = 524288;       // 0.5
inline constexpr int kYuvShift = 20;
// The chroma terms with the -128 of d = U - 128 and e = V - 128 folded into the bias, for the
// vector rows: kVToR * e + kHalf = kVToR * V + kBiasR, and so on (exact in int32: every
// product of a constant with a byte, and every bias, stays below 2^30 in magnitude).
inline constexpr int32_t kBiasR = kHalf - 128 * kVToR;
inline constexpr int32_t kBiasG = kHalf - 128 * (kVToG + kUToG);
inline constexpr int32_t kBiasB = kHalf - 128 * kUToB;

// RGB -> YUV (Q20).
inline constexpr int32_t kRToY = 269484;             // 0.257
inline constexpr int32_t kGToY = 528482;             // 0.504
inline constexpr int32_t kBToY = 102760;             // 0.098
inline constexpr int32_t kYOffset = 17301504;        // 16.5
inline constexpr int32_t kRToU = -155188;            // -0.148
inline constexpr int32_t kGToU = -305135;            // -0.291
inline constexpr int32_t kBToU = 460324;             // 0.439
inline constexpr int32_t kRToV = 460324;             // 0.439
inline constexpr int32_t kGToV = -385875;            // -0.368
inline constexpr int32_t kBToV = -74448;             // -0.071
inline constexpr int32_t kChromaOffset = 0x8080000;  // 128.5

// Grey (Q14).
inline constexpr int32_t kGreyR = 4899;
inline constexpr int32_t kGreyG = 9617;
inline constexpr int32_t kGreyB = 1868;
inline constexpr int32_t kGreyHalf = 8192;
inline constexpr int kGreyShift = 14;

// Where the chroma of a 4:2:0 frame lies.
enum class Chroma {
  kNv12,  // c1: interleaved U,V pairs
  kNv21,  // c1: interleaved V,U pairs
  kYu12,  // c1: U plane, c2: V plane
};

// Two luma rows that share one chroma row, and the two output rows. For an odd last row,
// y1 == y0 and d1 == d0.
struct YuvRowPair {
  const uint8_t* y0;
  const uint8_t* y1;
  const uint8_t* c1;
  const uint8_t* c2;
  uint8_t* d0;
  uint8_t* d1;
};

// One pixel of YUV -> RGB: chroma terms first (shared by a 2x2 block), then the luma term.
struct ChromaTerms {
  int32_t r, g, b;
};
inline ChromaTerms chroma_terms(int32_t u, int32_t v) {
  const int32_t d = u - 128, e = v - 128;
  return {kVToR * e + kHalf, kVToG * e + kUToG * d + kHalf, kUToB * d + kHalf};
}
inline uint8_t clamp_byte(int32_t x) {
  return static_cast<uint8_t>(x < 0 ? 0 : (x > 255 ? 255 : x));
}
inline void yuv_pixel(int32_t y, ChromaTerms c, uint8_t* out, bool bgr) {
  const int32_t luma = (y < 16 ? 0 : y - 16) * kLumaGain;
  const uint8_t r = clamp_byte((luma + c.r) >> kYuvShift);
  const uint8_t g = clamp_byte((luma + c.g) >> kYuvShift);
  const uint8_t b = clamp_byte((luma + c.b) >> kYuvShift);
  out[0] = bgr ? b : r;
  out[1] = g;
  out[2] = bgr ? r : b;
}

// ---- YUV 4:2:0 -> RGB24 / BGR24, pixels [x0, width) of a row pair (x0 even) ----
void yuv_to_rgb_rows_c(const YuvRowPair& rows, int x0, int width, Chroma chroma, bool bgr);
// Vector blocks from pixel 0: return how many pixels they did (a multiple of 8, resp. 4).
int yuv_to_rgb_rows_avx2(const YuvRowPair& rows, int width, Chroma chroma, bool bgr);
int yu12_to_rgb_rows_sse41(const YuvRowPair& rows, int width, bool bgr);
// 64 pixels a step (needs AVX-512 F, BW and VBMI).
int yuv_to_rgb_rows_avx512(const YuvRowPair& rows, int width, Chroma chroma, bool bgr);
// The same row pair from pixel x (even) on.
inline YuvRowPair advance(const YuvRowPair& rows, int x, Chroma chroma) {
  const int c = chroma == Chroma::kYu12 ? x / 2 : x;
  return {rows.y0 + x,     rows.y1 + x,    rows.c1 + c, rows.c2 ? rows.c2 + x / 2 : nullptr,
          rows.d0 + 3 * x, rows.d1 + 3 * x};
}

// ---- RGB24 / BGR24 -> YUV 4:2:0 ----
// Luma of every pixel of a row.
void rgb_to_luma_row_c(const uint8_t* rgb, uint8_t* y, int x0, int width, bool bgr);
// Chroma of blocks [b0, blocks) from the top-left pixels of a row; u and v advance by `step`.
void rgb_to_chroma_row_c(const uint8_t* rgb, uint8_t* u, uint8_t* v, int step, int b0, int blocks,
                         bool bgr);
int rgb_to_luma_row_avx2(const uint8_t* rgb, uint8_t* y, int width, bool bgr);
// Luma of the row and the chroma of its blocks (from the top-left pixels, this being the top
// row of a block row); returns the pixels done (a multiple of 8), whose blocks are done too.
int rgb_to_luma_chroma_row_avx2(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                                int width, bool bgr);
// The same rows 64 pixels a step (need AVX-512 F, BW and VBMI).
int rgb_to_luma_row_avx512(const uint8_t* rgb, uint8_t* y, int width, bool bgr);
int rgb_to_luma_chroma_row_avx512(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                                  int width, bool bgr);

// ---- packed and grey rows ----
// Weighted grey through three 256-entry tables built once per call.
struct GreyTables {
  int32_t t0[256], t1[256], t2[256];
};
void fill_grey_tables(GreyTables* tables, bool bgr);
// The same weights as int16 pairs for 32-bit multiply-adds of (byte 0, byte 1) and (byte 2, 0)
// of a pixel: the products of the tables, i * w0 + i * 9617 and i * w2.
struct GreyPairWeights {
  int32_t first, last;
};
inline GreyPairWeights grey_pair_weights(bool bgr) {
  const int32_t w0 = bgr ? kGreyB : kGreyR, w2 = bgr ? kGreyR : kGreyB;
  return {(kGreyG << 16) | w0, w2};
}
void rgb_to_grey_row_c(const GreyTables& tables, const uint8_t* rgb, uint8_t* grey, int x0,
                       int width);
int rgb_to_grey_row_avx2(const uint8_t* rgb, uint8_t* grey, int width, bool bgr);
int rgb_to_grey_row_avx512(const uint8_t* rgb, uint8_t* grey, int width, bool bgr);

void swap_rb_row_c(const uint8_t* src, uint8_t* dst, int x0, int width);
int swap_rb_row_avx2(const uint8_t* src, uint8_t* dst, int width);

void grey_to_rgb_row_c(const uint8_t* grey, uint8_t* rgb, int x0, int width);
int grey_to_rgb_row_avx2(const uint8_t* grey, uint8_t* rgb, int width);
int grey_to_rgb_row_avx512(const uint8_t* grey, uint8_t* rgb, int width);

// ---- GREY16 -> GREY ----
// A sample i maps to 0 below `low`, to 255 above `high`, and to (i - low) * scale (double,
// truncated) from low to high. No sample maps anywhere else when low = 65536.
struct Grey16Bounds {
  int32_t low, high;
  double scale;
};
inline uint8_t grey16_map(const Grey16Bounds& b, uint16_t i) {
  if (i < b.low) return 0;
  if (i > b.high) return 255;
  return static_cast<uint8_t>(static_cast<int32_t>(static_cast<double>(i - b.low) * b.scale));
}
// Samples [x0, width) of a row; the samples may be unaligned.
void grey16_map_row_c(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int x0, int width);
int grey16_map_row_avx2(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int width);
int grey16_map_row_avx512(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int width);

// Swaps the two bytes of each of `pairs` chroma pairs.
void swap_pairs_row_c(const uint8_t* src, uint8_t* dst, int p0, int pairs);
int swap_pairs_row_avx2(const uint8_t* src, uint8_t* dst, int pairs);

}  // namespace zarvel::aux::color
