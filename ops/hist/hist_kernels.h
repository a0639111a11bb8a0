// Row kernels of the equalisation's mapping pass, per instruction set.
#pragma once

#include <cstdint>

namespace zarvel::aux::hist {

// dst[x] = table[src[x]] for x in [0, n); 256-bit variant (needs AVX2).
void map_run_avx2(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]);
// The same with 512-bit byte permutes (needs AVX-512 F, BW and VBMI).
void map_run_avx512vbmi(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]);

}  // namespace zarvel::aux::hist
