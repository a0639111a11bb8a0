// zarvel-aux: the zarvel_aux operations on image files from the shell.
// Exit status: 0 done, 1 an operation or a file failed, 2 bad arguments.
#include <cstdio>
#include <new>
#include <string>

#include "common.h"

namespace zarvel::tool {
namespace {

// The processor-feature word as the library computes it: 0x1 VEX 128-bit usable, 0x40 AVX2,
// 0x100 AVX2 with FMA, 0x200 AVX-512 F, BW and VBMI, 0x400 with VPOPCNTDQ, IFMA and GFNI too.
// The tool reaches only the public interface, so it asks cpuid itself.
uint32_t feature_word() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  uint32_t word = 0;
  if (__builtin_cpu_supports("avx")) word |= 0x1;
  if ((word & 0x1) && __builtin_cpu_supports("avx2")) word |= 0x40;
  if ((word & 0x40) && __builtin_cpu_supports("fma")) word |= 0x100;
  if ((word & 0x100) && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vbmi")) {
    word |= 0x200;
    if (__builtin_cpu_supports("avx512vpopcntdq") && __builtin_cpu_supports("avx512ifma") &&
        __builtin_cpu_supports("gfni")) {
      word |= 0x400;
    }
  }
  return word;
#else
  return 0;
#endif
}

void info() {
  std::fputs(zarvel_aux_meta(), stdout);
  const uint32_t word = feature_word();
  const auto yes = [word](uint32_t bit) { return (word & bit) != 0 ? "yes" : "no"; };
  std::printf("Device       : %s\n", zarvel_device_get_name());
  std::printf(
      "Features     : 0x%x (0x1 AVX %s, 0x40 AVX2 %s, 0x100 AVX2+FMA %s, 0x200 AVX-512 VBMI "
      "%s, 0x400 AVX-512 VPOPCNTDQ+IFMA+GFNI %s)\n\n",
      word, yes(0x1), yes(0x40), yes(0x100), yes(0x200), yes(0x400));
  // The variant each family's dispatcher picks from that word.
  const bool avx = word & 0x1, avx2 = word & 0x40, fma = word & 0x100, vbmi = word & 0x200;
  const bool counts = word & 0x400;
  const struct {
    const char* family;
    const char* variant;
  } kFamilies[] = {
      {"resize", vbmi   ? "AVX-512 VBMI window and 3-channel gather rows, AVX2"
                 : avx2 ? "AVX2"
                        : "scalar"},
      {"cvt", vbmi   ? "AVX-512 VBMI"
              : fma  ? "AVX2+FMA"
              : avx2 ? "AVX2 (YU12: SSE4.1)"
                     : "scalar"},
      {"rotate", avx2  ? "SSSE3 (VEX), RGB quarter turns AVX2"
                 : avx ? "SSSE3 (VEX)"
                       : "scalar"},
      {"warp", fma ? "AVX2+FMA" : "scalar"},
      {"equalize", counts ? "AVX-512 VBMI mapping, half of the count in registers"
                   : vbmi ? "AVX-512 VBMI mapping"
                   : avx2 ? "AVX2 mapping"
                          : "scalar"},
      {"tensor", vbmi   ? "AVX-512 colour and grey float rows, AVX2"
                 : avx2 ? "AVX2"
                        : "scalar"},
  };
  std::printf("Kernels:\n");
  for (const auto& f : kFamilies) std::printf("  %-10s %s\n", f.family, f.variant);
}

}  // namespace
}  // namespace zarvel::tool

int main(int argc, char** argv) {
  using namespace zarvel::tool;
  CLI::App app{"Runs the zarvel_aux image operations on image files.", "zarvel-aux"};
  app.require_subcommand(1);
  app.fallthrough();
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "print every library log message to stderr");
  app.set_version_flag("--version", std::string("zarvel-aux ") + zarvel_aux_version());

  CLI::App* info_cmd = app.add_subcommand(
      "info", "Build banner, processor features and the kernel variant each family uses");
  set_runner(info_cmd, info);
  add_geometry(app);
  add_color(app);
  add_tensor(app);
  add_demo(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::string line = e.what();
    for (char& c : line)
      if (c == '\n') c = ' ';
    std::fprintf(stderr, "zarvel-aux: %s (see --help)\n", line.c_str());
    return 2;
  }
  capture_library_log(verbose);
  try {
    run_selected(app);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "zarvel-aux: %s (see --help)\n", e.what());
    return 2;
  } catch (const OpError& e) {
    std::fprintf(stderr, "zarvel-aux: %s\n", e.what());
    return 1;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "zarvel-aux: out of memory\n");
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zarvel-aux: %s\n", e.what());
    return 1;
  }
  return 0;
}
