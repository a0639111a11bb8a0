// Row kernels of the equalisation: counting and the mapping pass, per instruction set.
#pragma once

#include <cstdint>

namespace zarvel::aux::hist {

// Sub-histograms that the counting kernels fill; their sum per level is the histogram.
using SubHistograms = uint32_t[4][256];

namespace {  // compiled into each kernel's own unit, with that unit's flags

// Counts 8 bytes into the four sub-histograms in turn: consecutive equal bytes (flat areas)
// then increment different counters instead of waiting on one another. Each byte is loaded on
// its own: a load is cheaper than the shift and mask that would extract it from a word, and
// the increments (a load and a store each) bound the loop either way.
inline void count8(const uint8_t* p, SubHistograms sub) {
  ++sub[0][p[0]];
  ++sub[1][p[1]];
  ++sub[2][p[2]];
  ++sub[3][p[3]];
  ++sub[0][p[4]];
  ++sub[1][p[5]];
  ++sub[2][p[6]];
  ++sub[3][p[7]];
}

}  // namespace

// Adds the levels of `runs` runs of `run` bytes, `stride` bytes apart, to `sub`. 512-bit
// variant (needs AVX-512 F, BW, VBMI, VPOPCNTDQ, IFMA and GFNI).
void count_runs_avx512(const uint8_t* src, int64_t run, int32_t runs, int64_t stride,
                       SubHistograms sub);

// dst[x] = table[src[x]] for x in [0, n); 256-bit variant (needs AVX2).
void map_run_avx2(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]);
// The same with 512-bit byte permutes (needs AVX-512 F, BW and VBMI).
void map_run_avx512vbmi(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]);

}  // namespace zarvel::aux::hist
