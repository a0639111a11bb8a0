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

int hresample_row_avx512_gather3(const uint8_t* row, const int32_t* pixel_ofs,
                                 const uint16_t* w_low, const uint16_t* w_high, int16_t* out,
                                 int n) {
  // Element e of a 32-pixel block is channel e % 3 of pixel e / 3, whose 8-byte read (first
  // column's three bytes, then the second's) is lane (e / 3) % 8 of lane register e / 24. The 32
  // elements of output register v lie in lane registers v and v + 1 (pixels 8v to 8v + 15):
  // their tap pairs are bytes 8 * (e / 3 - 8v) + e % 3 and three further on.
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
  const __m512i pick0 = _mm512_load_si512(kPicks.b[0]);
  const __m512i pick1 = _mm512_load_si512(kPicks.b[1]);
  const __m512i pick2 = _mm512_load_si512(kPicks.b[2]);
  // Eight pixels' 8-byte reads in one register, by plain loads: on some processors a gather
  // costs more than its loads and inserts.
  auto two = [row](const int32_t* o) {
    uint64_t both;  // two offsets from one load: the loads, not the shuffles, bound this row
    std::memcpy(&both, o, sizeof both);
    int64_t second;
    std::memcpy(&second, row + static_cast<uint32_t>(both >> 32), sizeof second);
    return _mm_insert_epi64(
        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + static_cast<uint32_t>(both))),
        second, 1);
  };
  auto lanes = [&](const int32_t* o) {
    const __m256i low = _mm256_inserti128_si256(_mm256_castsi128_si256(two(o)), two(o + 2), 1);
    const __m256i high = _mm256_inserti128_si256(_mm256_castsi128_si256(two(o + 4)), two(o + 6), 1);
    return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
  };
  auto sums = [&](__m512i taps, int j) {
    return split_sums(taps, _mm512_loadu_si512(w_low + j), _mm512_loadu_si512(w_high + j));
  };
  const int blocks = n - n % 96;
  for (int j = 0; j < blocks; j += 96) {
    const int32_t* o = pixel_ofs + j / 3;
    const __m512i g0 = lanes(o), g1 = lanes(o + 8), g2 = lanes(o + 16), g3 = lanes(o + 24);
    _mm512_storeu_si512(out + j, sums(_mm512_permutex2var_epi8(g0, pick0, g1), j));
    _mm512_storeu_si512(out + j + 32, sums(_mm512_permutex2var_epi8(g1, pick1, g2), j + 32));
    _mm512_storeu_si512(out + j + 64, sums(_mm512_permutex2var_epi8(g2, pick2, g3), j + 64));
  }
  return blocks;
}

}  // namespace zarvel::aux::resample
