// Scalar rows of the colour conversions: the reference arithmetic, and the tails of the
// vector rows.
#include <cstring>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {

void yuv_to_rgb_rows_c(const YuvRowPair& rows, int x0, int width, Chroma chroma, bool bgr) {
  for (int x = x0; x < width; x += 2) {
    const int c = x / 2;
    int32_t u, v;
    switch (chroma) {
      case Chroma::kNv12:
        u = rows.c1[2 * c];
        v = rows.c1[2 * c + 1];
        break;
      case Chroma::kNv21:
        v = rows.c1[2 * c];
        u = rows.c1[2 * c + 1];
        break;
      default:
        u = rows.c1[c];
        v = rows.c2[c];
        break;
    }
    const ChromaTerms terms = chroma_terms(u, v);
    const int n = x + 1 < width ? 2 : 1;
    for (int i = 0; i < n; ++i) {
      yuv_pixel(rows.y0[x + i], terms, rows.d0 + 3 * (x + i), bgr);
      yuv_pixel(rows.y1[x + i], terms, rows.d1 + 3 * (x + i), bgr);
    }
  }
}

void rgb_to_luma_row_c(const uint8_t* rgb, uint8_t* y, int x0, int width, bool bgr) {
  const int ir = bgr ? 2 : 0, ib = bgr ? 0 : 2;
  for (int x = x0; x < width; ++x) {
    const uint8_t* p = rgb + 3 * x;
    y[x] = static_cast<uint8_t>((kRToY * p[ir] + kGToY * p[1] + kBToY * p[ib] + kYOffset) >>
                                kYuvShift);
  }
}

void rgb_to_chroma_row_c(const uint8_t* rgb, uint8_t* u, uint8_t* v, int step, int b0, int blocks,
                         bool bgr) {
  const int ir = bgr ? 2 : 0, ib = bgr ? 0 : 2;
  for (int b = b0; b < blocks; ++b) {
    const uint8_t* p = rgb + 6 * b;  // the block's top-left pixel; no averaging
    const int32_t r = p[ir], g = p[1], bl = p[ib];
    u[b * step] =
        static_cast<uint8_t>((kRToU * r + kGToU * g + kBToU * bl + kChromaOffset) >> kYuvShift);
    v[b * step] =
        static_cast<uint8_t>((kRToV * r + kGToV * g + kBToV * bl + kChromaOffset) >> kYuvShift);
  }
}

void fill_grey_tables(GreyTables* tables, bool bgr) {
  const int32_t w0 = bgr ? kGreyB : kGreyR, w2 = bgr ? kGreyR : kGreyB;
  for (int32_t i = 0; i < 256; ++i) {
    tables->t0[i] = i * w0;
    tables->t1[i] = i * kGreyG;
    tables->t2[i] = kGreyHalf + i * w2;
  }
}

void rgb_to_grey_row_c(const GreyTables& tables, const uint8_t* rgb, uint8_t* grey, int x0,
                       int width) {
  for (int x = x0; x < width; ++x) {
    const uint8_t* p = rgb + 3 * x;
    grey[x] = clamp_byte((tables.t0[p[0]] + tables.t1[p[1]] + tables.t2[p[2]]) >> kGreyShift);
  }
}

void swap_rb_row_c(const uint8_t* src, uint8_t* dst, int x0, int width) {
  for (int x = x0; x < width; ++x) {
    const uint8_t* s = src + 3 * x;
    uint8_t* d = dst + 3 * x;
    const uint8_t a = s[0], b = s[1], c = s[2];  // src and dst may be the same row
    d[0] = c;
    d[1] = b;
    d[2] = a;
  }
}

void grey_to_rgb_row_c(const uint8_t* grey, uint8_t* rgb, int x0, int width) {
  for (int x = x0; x < width; ++x) {
    const uint8_t g = grey[x];
    rgb[3 * x] = g;
    rgb[3 * x + 1] = g;
    rgb[3 * x + 2] = g;
  }
}

void swap_pairs_row_c(const uint8_t* src, uint8_t* dst, int p0, int pairs) {
  for (int p = p0; p < pairs; ++p) {
    const uint8_t a = src[2 * p], b = src[2 * p + 1];
    dst[2 * p] = b;
    dst[2 * p + 1] = a;
  }
}

void grey16_map_row_c(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int x0, int width) {
  for (int x = x0; x < width; ++x) {
    uint16_t v;
    std::memcpy(&v, src + 2 * x, sizeof v);
    dst[x] = grey16_map(b, v);
  }
}

}  // namespace zarvel::aux::color
