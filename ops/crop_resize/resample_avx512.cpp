// 512-bit horizontal row of the bilinear resampler (needs AVX-512 F, BW and VBMI); byte-
// identical to the scalar row. Built with -mavx512f -mavx512bw -mavx512vbmi, outside LTO.
#include <immintrin.h>

#include <cstring>

#include "ops/crop_resize/resample_kernels.h"

namespace zarvel::aux::resample {
namespace {

// S >> 4 of 32 elements from their byte tap pairs, by the split weights of resample_kernels.h:
// S = 64 * (h0 p0 + h1 p1) + (l0 p0 + l1 p1), each part one unsigned-by-signed byte
// multiply-add that cannot saturate, and S >> 4 = 4 * high + (low >> 4).
inline __m512i split_sums(__m512i taps, __m512i low_weights, __m512i high_weights) {
  const __m512i low = _mm512_maddubs_epi16(taps, low_weights);
  const __m512i high = _mm512_maddubs_epi16(taps, high_weights);
  return _mm512_add_epi16(_mm512_slli_epi16(high, 2), _mm512_srli_epi16(low, kSumShift));
}

}  // namespace

int hresample_row_avx512_window(const uint8_t* row, const int32_t* base, const uint16_t* picks,
                                const uint16_t* w_low, const uint16_t* w_high, int16_t* out,
                                int n) {
  auto load = [](const void* p) { return _mm512_loadu_si512(p); };
  const int blocks = n & ~31;
  for (int j = 0; j < blocks; j += 32) {
    const uint8_t* window = row + base[j / 32];
    const __m512i taps = _mm512_permutex2var_epi8(load(window), load(picks + j), load(window + 64));
    _mm512_storeu_si512(out + j, split_sums(taps, load(w_low + j), load(w_high + j)));
  }
  return blocks;
}

namespace {

// The pixel-gather block: S >> 4 of the 96 elements (32 pixels x 3 channels) of one block.
// Element e of a block is channel e % 3 of pixel e / 3, whose 8-byte read (first column's three
// bytes, then the second's) is lane (e / 3) % 8 of lane register e / 24. The 32 elements of
// output register v lie in lane registers v and v + 1 (pixels 8v to 8v + 15): their tap pairs
// are bytes 8 * (e / 3 - 8v) + e % 3 and three further on.
class Gather3 {
 public:
  Gather3() {
    alignas(64) static constexpr auto kPicks = [] {
      struct Picks {
        uint8_t b[3][64];
      } p{};
      for (int e = 0; e < 96; ++e) {
        const int at = 8 * (e / 3 - 8 * (e / 32)) + e % 3;
        p.b[e / 32][2 * (e % 32)] = static_cast<uint8_t>(at);
        p.b[e / 32][2 * (e % 32) + 1] = static_cast<uint8_t>(at + 3);
      }
      return p;
    }();
    for (int v = 0; v < 3; ++v) pick_[v] = _mm512_load_si512(kPicks.b[v]);
  }

  // The weights of the block starting at element j.
  void weights(const uint16_t* w_low, const uint16_t* w_high, int j) {
    for (int v = 0; v < 3; ++v) {
      low_[v] = _mm512_loadu_si512(w_low + j + 32 * v);
      high_[v] = _mm512_loadu_si512(w_high + j + 32 * v);
    }
  }

  // The block's sums from `row`, its pixels' offsets at o[0 .. 31].
  void sums(const uint8_t* row, const int32_t* o, __m512i out[3]) const {
    const __m512i g[4] = {lanes(row, o), lanes(row, o + 8), lanes(row, o + 16), lanes(row, o + 24)};
    for (int v = 0; v < 3; ++v) {
      out[v] = split_sums(_mm512_permutex2var_epi8(g[v], pick_[v], g[v + 1]), low_[v], high_[v]);
    }
  }

 private:
  // Two pixels' 8-byte reads, their offsets from one load: the loads, not the shuffles, bound
  // this row.
  static __m128i two(const uint8_t* row, const int32_t* o) {
    uint64_t both;
    std::memcpy(&both, o, sizeof both);
    int64_t second;
    std::memcpy(&second, row + static_cast<uint32_t>(both >> 32), sizeof second);
    return _mm_insert_epi64(
        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + static_cast<uint32_t>(both))),
        second, 1);
  }
  // Eight pixels' reads in one register, by plain loads: on some processors a gather costs
  // more than its loads and inserts.
  static __m512i lanes(const uint8_t* row, const int32_t* o) {
    const __m256i low =
        _mm256_inserti128_si256(_mm256_castsi128_si256(two(row, o)), two(row, o + 2), 1);
    const __m256i high =
        _mm256_inserti128_si256(_mm256_castsi128_si256(two(row, o + 4)), two(row, o + 6), 1);
    return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
  }

  __m512i pick_[3];
  __m512i low_[3], high_[3];
};

}  // namespace

int hresample_row_avx512_gather3(const uint8_t* row, const int32_t* pixel_ofs,
                                 const uint16_t* w_low, const uint16_t* w_high, int16_t* out,
                                 int n) {
  Gather3 gather;
  const int blocks = n - n % 96;
  for (int j = 0; j < blocks; j += 96) {
    gather.weights(w_low, w_high, j);
    __m512i s[3];
    gather.sums(row, pixel_ofs + j / 3, s);
    for (int v = 0; v < 3; ++v) _mm512_storeu_si512(out + j + 32 * v, s[v]);
  }
  return blocks;
}

int resample_rows_avx512_gather3(const uint8_t* row0, const uint8_t* row1, const int32_t* pixel_ofs,
                                 const uint16_t* w_low, const uint16_t* w_high, int32_t b0,
                                 int32_t b1, uint8_t* dst, int n) {
  Gather3 gather;
  const __m512i vb0 = _mm512_set1_epi16(static_cast<int16_t>(b0));
  const __m512i vb1 = _mm512_set1_epi16(static_cast<int16_t>(b1));
  const __m512i round = _mm512_set1_epi16(kFinalRound);
  const int blocks = n - n % 96;
  for (int j = 0; j < blocks; j += 96) {
    gather.weights(w_low, w_high, j);
    __m512i s0[3], s1[3];
    gather.sums(row0, pixel_ofs + j / 3, s0);
    gather.sums(row1, pixel_ofs + j / 3, s1);
    for (int v = 0; v < 3; ++v) {
      // The vertical step of vresample_row_c; every value is 0..255, so the narrowing keeps it.
      const __m512i sum =
          _mm512_add_epi16(_mm512_mulhi_epi16(s0[v], vb0), _mm512_mulhi_epi16(s1[v], vb1));
      const __m512i value = _mm512_srai_epi16(_mm512_add_epi16(sum, round), kFinalShift);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + j + 32 * v),
                          _mm512_cvtepi16_epi8(value));
    }
  }
  return blocks;
}

}  // namespace zarvel::aux::resample
