// Plane loops of the colour conversions and the choice of their row kernels.
#include "ops/color/color_planes.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "plugin/cpu_features.h"

namespace zarvel::aux::color {
namespace {

inline const uint8_t* row(const uint8_t* base, int32_t stride, int32_t r) {
  return base + static_cast<int64_t>(stride) * r;
}
inline uint8_t* row(uint8_t* base, int32_t stride, int32_t r) {
  return base + static_cast<int64_t>(stride) * r;
}

bool use_avx2() { return (cpu_features() & kCpuAvx2) != 0; }
bool use_avx512() { return (cpu_features() & kCpuAvx512Vbmi) != 0; }

// Runs a pixel-for-pixel row kernel over a plane: the vector row (which returns how many
// pixels it did, 0 without AVX2) and then the scalar row from there. When both planes have
// tight rows they are one long row, so the vector row also covers the row ends.
template <class VectorRow, class ScalarRow>
void pixel_rows(const uint8_t* src, int32_t src_stride, int32_t src_pixel, uint8_t* dst,
                int32_t dst_stride, int32_t dst_pixel, int32_t width, int32_t height,
                VectorRow vector_row, ScalarRow scalar_row) {
  const int64_t pixels = int64_t{width} * height;
  if (src_stride == int64_t{width} * src_pixel && dst_stride == int64_t{width} * dst_pixel &&
      height > 1 && pixels * src_pixel <= INT32_MAX && pixels * dst_pixel <= INT32_MAX) {
    width = static_cast<int32_t>(pixels);
    height = 1;
  }
  const bool avx2 = use_avx2();
  for (int32_t r = 0; r < height; ++r) {
    const uint8_t* s = row(src, src_stride, r);
    uint8_t* d = row(dst, dst_stride, r);
    scalar_row(s, d, avx2 ? vector_row(s, d, width) : 0, width);
  }
}

}  // namespace

void yuv420_to_rgb(Chroma chroma, const uint8_t* y, int32_t y_stride, const uint8_t* c1,
                   int32_t c1_stride, const uint8_t* c2, int32_t c2_stride, uint8_t* dst,
                   int32_t dst_stride, int32_t width, int32_t height, bool bgr) {
  // The 256-bit path needs the full AVX2 + FMA level; without it, YU12 alone has a 128-bit path.
  const uint32_t features = cpu_features();
  const bool wide = (features & kCpuAvx2Fma) != 0;
  const bool widest = (features & kCpuAvx512Vbmi) != 0;
  const bool narrow = !wide && (features & kCpuAvx2) != 0 && chroma == Chroma::kYu12;
  for (int32_t r = 0; r < height; r += 2) {
    const int32_t r1 = r + 1 < height ? r + 1 : r;
    const YuvRowPair rows = {row(y, y_stride, r),       row(y, y_stride, r1),
                             row(c1, c1_stride, r / 2), c2 ? row(c2, c2_stride, r / 2) : nullptr,
                             row(dst, dst_stride, r),   row(dst, dst_stride, r1)};
    int done = 0;
    if (wide) {
      // The 512-bit row does 64-pixel blocks, the 256-bit row what it can of the rest.
      done = widest ? yuv_to_rgb_rows_avx512(rows, width, chroma, bgr) : 0;
      done += yuv_to_rgb_rows_avx2(advance(rows, done, chroma), width - done, chroma, bgr);
    } else if (narrow) {
      done = yu12_to_rgb_rows_sse41(rows, width, bgr);
    }
    yuv_to_rgb_rows_c(rows, done, width, chroma, bgr);
  }
}

void rgb_to_yuv420(const uint8_t* rgb, int32_t rgb_stride, bool bgr, uint8_t* y, int32_t y_stride,
                   const ChromaPlanes& chroma, int32_t width, int32_t height) {
  const bool avx512 = use_avx512(), avx2 = use_avx2();
  const int32_t blocks = width / 2;
  for (int32_t r = 0; r < height; ++r) {
    const uint8_t* src = row(rgb, rgb_stride, r);
    uint8_t* luma = row(y, y_stride, r);
    // The 512-bit rows do 64-pixel blocks, the 256-bit rows what they can of the rest, the
    // scalar rows the tail.
    int done = 0;
    if (r % 2 == 0 && r + 1 < height) {
      uint8_t* u = row(chroma.u, chroma.u_stride, r / 2);
      uint8_t* v = row(chroma.v, chroma.v_stride, r / 2);
      const auto vector_row = [&](auto row_kernel) {
        const int32_t c = done / 2 * chroma.step;
        done +=
            row_kernel(src + 3 * done, luma + done, u + c, v + c, chroma.step, width - done, bgr);
      };
      if (avx512) vector_row(rgb_to_luma_chroma_row_avx512);
      if (avx2) vector_row(rgb_to_luma_chroma_row_avx2);
      rgb_to_luma_row_c(src, luma, done, width, bgr);
      rgb_to_chroma_row_c(src, u, v, chroma.step, done / 2, blocks, bgr);
    } else {
      if (avx512) done = rgb_to_luma_row_avx512(src, luma, width, bgr);
      if (avx2) done += rgb_to_luma_row_avx2(src + 3 * done, luma + done, width - done, bgr);
      rgb_to_luma_row_c(src, luma, done, width, bgr);
    }
  }
}

void rgb_to_grey(const uint8_t* rgb, int32_t rgb_stride, bool bgr, uint8_t* grey,
                 int32_t grey_stride, int32_t width, int32_t height) {
  GreyTables tables;
  fill_grey_tables(&tables, bgr);
  pixel_rows(
      rgb, rgb_stride, 3, grey, grey_stride, 1, width, height,
      [bgr, row = use_avx512() ? rgb_to_grey_row_avx512 : rgb_to_grey_row_avx2](
          const uint8_t* s, uint8_t* d, int n) { return row(s, d, n, bgr); },
      [&tables](const uint8_t* s, uint8_t* d, int x0, int n) {
        rgb_to_grey_row_c(tables, s, d, x0, n);
      });
}

void swap_rb(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
             int32_t width, int32_t height) {
  pixel_rows(src, src_stride, 3, dst, dst_stride, 3, width, height, swap_rb_row_avx2,
             swap_rb_row_c);
}

void grey_to_rgb(const uint8_t* grey, int32_t grey_stride, uint8_t* rgb, int32_t rgb_stride,
                 int32_t width, int32_t height) {
  // The 512-bit row does 64-pixel blocks, the 256-bit row what it can of the rest.
  const auto vector_row = [avx512 = use_avx512()](const uint8_t* s, uint8_t* d, int n) {
    const int done = avx512 ? grey_to_rgb_row_avx512(s, d, n) : 0;
    return done + grey_to_rgb_row_avx2(s + done, d + 3 * done, n - done);
  };
  pixel_rows(grey, grey_stride, 1, rgb, rgb_stride, 3, width, height, vector_row,
             grey_to_rgb_row_c);
}

void copy_plane(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                int32_t row_bytes, int32_t rows) {
  if (row_bytes <= 0 || rows <= 0) return;
  if (src_stride == row_bytes && dst_stride == row_bytes) {
    std::memcpy(dst, src, static_cast<size_t>(row_bytes) * rows);
    return;
  }
  for (int32_t r = 0; r < rows; ++r) {
    std::memcpy(row(dst, dst_stride, r), row(src, src_stride, r), row_bytes);
  }
}

void fill_plane(uint8_t* dst, int32_t stride, int32_t row_bytes, int32_t rows, uint8_t value) {
  if (row_bytes <= 0) return;
  for (int32_t r = 0; r < rows; ++r) std::memset(row(dst, stride, r), value, row_bytes);
}

void swap_pairs(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                int32_t pairs, int32_t rows) {
  const bool avx2 = use_avx2();
  for (int32_t r = 0; r < rows; ++r) {
    const uint8_t* s = row(src, src_stride, r);
    uint8_t* d = row(dst, dst_stride, r);
    const int done = avx2 ? swap_pairs_row_avx2(s, d, pairs) : 0;
    swap_pairs_row_c(s, d, done, pairs);
  }
}

void interleave_chroma(const uint8_t* first, int32_t first_stride, const uint8_t* second,
                       int32_t second_stride, uint8_t* dst, int32_t dst_stride, int32_t pairs,
                       int32_t rows) {
  for (int32_t r = 0; r < rows; ++r) {
    const uint8_t* a = row(first, first_stride, r);
    const uint8_t* b = row(second, second_stride, r);
    uint8_t* d = row(dst, dst_stride, r);
    for (int32_t p = 0; p < pairs; ++p) {
      d[2 * p] = a[p];
      d[2 * p + 1] = b[p];
    }
  }
}

void split_chroma(const uint8_t* src, int32_t src_stride, uint8_t* first, int32_t first_stride,
                  uint8_t* second, int32_t second_stride, int32_t pairs, int32_t rows) {
  for (int32_t r = 0; r < rows; ++r) {
    const uint8_t* s = row(src, src_stride, r);
    uint8_t* a = row(first, first_stride, r);
    uint8_t* b = row(second, second_stride, r);
    for (int32_t p = 0; p < pairs; ++p) {
      a[p] = s[2 * p];
      b[p] = s[2 * p + 1];
    }
  }
}

Grey16Bounds grey16_bounds(const uint32_t* hist, int32_t width, int32_t height) {
  // The thresholds and running sums are 16-bit and wrap, and counters enter the sums through
  // their low 16 bits: the bounds of large images depend on this, so it stays exactly so.
  const auto threshold = static_cast<uint16_t>(
      static_cast<int64_t>(static_cast<double>(width) * 0.0001 * static_cast<double>(height)));

  // Low bound: the first non-empty bin with at least `threshold` samples below it. When there
  // is none, every bin counts as below it.
  int32_t low = 65536;
  uint16_t below = 0;
  for (int32_t i = 0; i < 65536; ++i) {
    if (below >= threshold && hist[i] != 0) {
      low = i;
      break;
    }
    below = static_cast<uint16_t>(below + static_cast<uint16_t>(hist[i]));
  }

  // High bound: walk down from the top bin until the sum (including the bin reached) is at
  // least `threshold`; the bin may be empty.
  int32_t high = 65535;
  uint16_t above = static_cast<uint16_t>(hist[65535]);
  while (above < threshold && high > 0) {
    --high;
    above = static_cast<uint16_t>(above + static_cast<uint16_t>(hist[high]));
  }

  // A single-valued range has no scale (255 / 0): the whole output is black, as when every
  // sample lies below the low bound.
  if (high == low) return {65536, 65535, 0.0};
  return {low, high, 255.0 / static_cast<double>(high - low)};
}

bool grey16_stretch(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                    int32_t width, int32_t height) {
  // Rows step by stride / 2 whole samples. Samples are read with memcpy: a GREY16 plane may
  // start at an odd address.
  const int32_t step = src_stride / 2 * 2;
  const std::unique_ptr<uint32_t[]> counters(new (std::nothrow) uint32_t[65536]());
  if (counters == nullptr) return false;
  uint32_t* hist = counters.get();
  for (int32_t r = 0; r < height; ++r) {
    const uint8_t* s = row(src, step, r);
    for (int32_t x = 0; x < width; ++x) {
      uint16_t v;
      std::memcpy(&v, s + 2 * x, sizeof v);
      ++hist[v];
    }
  }
  // Only samples that occur are mapped, and their bins are not empty: the mapping is the
  // formula alone, no table.
  const Grey16Bounds bounds = grey16_bounds(hist, width, height);
  const bool avx512 = use_avx512(), avx2 = use_avx2();
  for (int32_t r = 0; r < height; ++r) {
    const uint8_t* s = row(src, step, r);
    uint8_t* d = row(dst, dst_stride, r);
    // The 512-bit row does 16-sample blocks, the 256-bit row what it can of the rest.
    int done = avx512 ? grey16_map_row_avx512(bounds, s, d, width) : 0;
    if (avx2) done += grey16_map_row_avx2(bounds, s + 2 * done, d + done, width - done);
    grey16_map_row_c(bounds, s, d, done, width);
  }
  return true;
}

}  // namespace zarvel::aux::color
