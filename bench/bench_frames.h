// Source frames for the benchmarks: host frames whose every plane holds bytes from a fixed
// seed, so each run converts the same image.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>
#include <random>

#include "frame_api/frame_api.h"

namespace zarvel::aux::bench {

inline FramePtr random_frame(uint32_t format, int width, int height, uint32_t seed = 1) {
  FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, width, height, nullptr, 0));
  std::mt19937 rng(seed);
  for (uint64_t i = 0; i < f->plane_count; ++i) {
    for (uint64_t k = 0; k < f->plane_size[i]; ++k) f->plane[i][k] = static_cast<uint8_t>(rng());
  }
  return f;
}

}  // namespace zarvel::aux::bench
