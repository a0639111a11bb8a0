#include "plugin/cpu_features.h"

#include <atomic>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace zarvel::aux {
namespace {

#if defined(__x86_64__) || defined(__i386__)
// XGETBV(0): which register states the operating system saves on context switches.
uint64_t read_xcr0() {
  uint32_t eax = 0;
  uint32_t edx = 0;
  __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
  return (static_cast<uint64_t>(edx) << 32) | eax;
}

uint32_t detect() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return 0;
  const bool osxsave = (ecx & (1u << 27)) != 0;
  const bool avx = (ecx & (1u << 28)) != 0;
  const bool fma = (ecx & (1u << 12)) != 0;
  // AVX is usable only when the OS saves both the XMM (bit 1) and YMM (bit 2) state.
  if (!osxsave || !avx || (read_xcr0() & 0x6) != 0x6) return 0;
  uint32_t features = kCpuAvx;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & (1u << 5)) != 0) {
    features |= kCpuAvx2;
    if (fma) features |= kCpuAvx2Fma;
    // AVX-512 F (ebx bit 16), BW (ebx bit 30) and VBMI (ecx bit 1), with the OS saving the
    // opmask and both halves of the 512-bit registers (XCR0 bits 5 to 7).
    const bool avx512 = (ebx & (1u << 16)) != 0 && (ebx & (1u << 30)) != 0 &&
                        (ecx & (1u << 1)) != 0 && (read_xcr0() & 0xe0) == 0xe0;
    if (fma && avx512) {
      features |= kCpuAvx512Vbmi;
      // VPOPCNTDQ (ecx bit 14), IFMA (ebx bit 21) and GFNI (ecx bit 8).
      if ((ecx & (1u << 14)) != 0 && (ebx & (1u << 21)) != 0 && (ecx & (1u << 8)) != 0) {
        features |= kCpuAvx512Bits;
      }
    }
  }
  return features;
}
#else
uint32_t detect() { return 0; }
#endif

std::atomic<uint32_t> g_mask{~0u};

}  // namespace

uint32_t cpu_features() {
  static const uint32_t detected = detect();  // thread-safe one-time initialisation
  return detected & g_mask.load(std::memory_order_relaxed);
}

void set_cpu_feature_mask(uint32_t mask) { g_mask.store(mask, std::memory_order_relaxed); }

}  // namespace zarvel::aux
