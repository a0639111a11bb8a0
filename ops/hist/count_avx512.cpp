// 512-bit counting of the equalisation histogram (needs AVX-512 F, BW, VBMI, VPOPCNTDQ, IFMA
// and GFNI). Built with its own flags, outside LTO.
//
// The scalar count is bound by its stores: one counter increment a byte. This kernel splits
// each 128 bytes of a run in two: the first 64 are counted in vector registers with no stores
// at all, the other 64 by the scalar increments, so the two halves keep different units busy.
//
// Vector count of 64 bytes: an 8x8 bit transpose (a GF(2) affine transform with the bytes as
// the matrix) and a byte permute give plane i, bit i of all 64 bytes, as qword i of P. The 64-bit
// mask of the bytes equal to a level v is the AND of the eight planes, each inverted where v has
// a 0 bit. Writing v = 32a + 4b + c: T[a] (all lanes) is the mask of the top three bits, M
// holds in lane b that of the middle three, and L0..L3 (all lanes) those of c. Then the lanes of
// T[a] & M & Lc are the masks of levels 32a + 4b + c for the eight b, and their population
// counts (at most 64) go into 16-bit field c of lane b of accumulator a: the 32 counters of
// accumulator a are words 0..31 in level order. Before any field could pass 65535 the
// accumulators are added to the first sub-histogram.
#include <immintrin.h>

#include <cstdint>
#include <utility>

#include "ops/hist/hist_kernels.h"

namespace zarvel::aux::hist {
namespace {

constexpr int kFlushBlocks = 1000;  // 1000 blocks add at most 64000 to a field

// Byte 8i + q of the permute takes byte 8q + i of the transpose: plane i of bytes 8q .. 8q + 7.
alignas(64) constexpr auto kPlaneOrder = [] {
  struct Bytes {
    uint8_t b[64];
  } t{};
  for (int i = 0; i < 8; ++i)
    for (int q = 0; q < 8; ++q) t.b[8 * i + q] = static_cast<uint8_t>(8 * q + i);
  return t;
}();

// Lane a of kInvert[k] inverts a plane where bit 2 - k of a is 0.
alignas(64) constexpr auto kInvert = [] {
  struct Lanes {
    uint64_t q[3][8];
  } t{};
  for (int k = 0; k < 3; ++k)
    for (int a = 0; a < 8; ++a) t.q[k][a] = ((a >> (2 - k)) & 1) != 0 ? 0 : ~uint64_t{0};
  return t;
}();

inline __m512i lane(__m512i v, int i) { return _mm512_permutexvar_epi64(_mm512_set1_epi64(i), v); }

// Adds the counters of the accumulators to sub (levels 32a .. 32a + 31 from accumulator a).
inline void flush(__m512i acc[8], uint32_t* sub) {
#pragma GCC unroll 8
  for (int a = 0; a < 8; ++a) {
    uint32_t* d = sub + 32 * a;
    const __m512i low = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(acc[a]));
    const __m512i high = _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(acc[a], 1));
    _mm512_storeu_si512(d, _mm512_add_epi32(_mm512_loadu_si512(d), low));
    _mm512_storeu_si512(d + 16, _mm512_add_epi32(_mm512_loadu_si512(d + 16), high));
    acc[a] = _mm512_setzero_si512();
  }
}

// Adds to acc the counts of levels 32A + 4b + c (lane b, field c) among 64 bytes whose planes
// 7, 6 and 5 are broadcast in b7, b6 and b5. A three-input logic immediate of 1 << A keeps
// minterm A of its inputs: the mask of the bytes whose top three bits are A, in every lane.
template <int A>
inline __m512i add_counts(__m512i acc, __m512i b7, __m512i b6, __m512i b5, __m512i middle,
                          const __m512i low[4]) {
  const __m512i top = _mm512_ternarylogic_epi64(b7, b6, b5, 1 << A);
  auto count = [&](int c) {
    return _mm512_popcnt_epi64(_mm512_ternarylogic_epi64(top, middle, low[c], 0x80));  // AND
  };
  // Fields 1 and 2 by 52-bit multiply-adds (a count times 2^32 stays below 2^52), field 3 by a
  // shift: one operation a field fewer than shifting and adding.
  acc = _mm512_add_epi64(acc, count(0));
  acc = _mm512_madd52lo_epu64(acc, count(1), _mm512_set1_epi64(int64_t{1} << 16));
  acc = _mm512_madd52lo_epu64(acc, count(2), _mm512_set1_epi64(int64_t{1} << 32));
  return _mm512_add_epi64(acc, _mm512_slli_epi64(count(3), 48));
}

}  // namespace

void count_runs_avx512(const uint8_t* src, int64_t run, int32_t runs, int64_t stride,
                       SubHistograms sub) {
  const __m512i transpose = _mm512_set1_epi64(0x8040201008040201);  // byte i = 1 << i
  const __m512i plane_order = _mm512_load_si512(kPlaneOrder.b);
  const __m512i invert0 = _mm512_load_si512(kInvert.q[0]);
  const __m512i invert1 = _mm512_load_si512(kInvert.q[1]);
  const __m512i invert2 = _mm512_load_si512(kInvert.q[2]);
  // The mask of three planes, each inverted per lane as kInvert says.
  auto select3 = [&](__m512i p2, __m512i p1, __m512i p0) {
    return _mm512_ternarylogic_epi64(_mm512_xor_si512(p2, invert0), _mm512_xor_si512(p1, invert1),
                                     _mm512_xor_si512(p0, invert2), 0x80);  // AND
  };
  __m512i acc[8];
  for (auto& a : acc) a = _mm512_setzero_si512();
  int blocks = 0;
  for (int32_t r = 0; r < runs; ++r) {
    const uint8_t* p = src + r * stride;
    int64_t x = 0;
    for (; x + 128 <= run; x += 128) {
      const __m512i bytes = _mm512_loadu_si512(p + x);
      const __m512i planes =
          _mm512_permutexvar_epi8(plane_order, _mm512_gf2p8affine_epi64_epi8(transpose, bytes, 0));
      const __m512i b7 = lane(planes, 7), b6 = lane(planes, 6), b5 = lane(planes, 5);
      const __m512i middle = select3(lane(planes, 4), lane(planes, 3), lane(planes, 2));
      const __m512i p1 = lane(planes, 1), p0 = lane(planes, 0);
      const __m512i low[4] = {_mm512_ternarylogic_epi64(p1, p0, p0, 0x03),  // NOR
                              _mm512_andnot_si512(p1, p0), _mm512_andnot_si512(p0, p1),
                              _mm512_and_si512(p1, p0)};
      [&]<int... A>(std::integer_sequence<int, A...>) {
        ((acc[A] = add_counts<A>(acc[A], b7, b6, b5, middle, low)), ...);
      }
      (std::make_integer_sequence<int, 8>{});
      if (++blocks == kFlushBlocks) {
        flush(acc, sub[0]);
        blocks = 0;
      }
#pragma GCC unroll 8
      for (int k = 64; k < 128; k += 8) count8(p + x + k, sub);
    }
    for (; x + 8 <= run; x += 8) count8(p + x, sub);
    for (; x < run; ++x) ++sub[x & 3][p[x]];
  }
  flush(acc, sub[0]);
}

}  // namespace zarvel::aux::hist
