// Plain rotation loops for one-, two- and three-byte pixels. Every pixel is copied whole, so
// the bytes inside a pixel (R,G,B or a U,V pair) keep their order.
#include <cstring>

#include "ops/rotate/rotate_kernels.h"

namespace zarvel::aux::rotate {
namespace {

template <int P>
inline void copy_pixel(uint8_t* dst, const uint8_t* src) {
  std::memcpy(dst, src, P);
}

// Copies the pixels of one destination row [c0, c1) from `s`, stepping `step` bytes through
// the source for each pixel. A three-byte pixel whose source is not the last of its row moves
// as one 4-byte word; its 4th byte lands on the next destination pixel, written right after,
// so the last pixel of the run always takes the plain 3-byte copy.
template <int P>
inline void copy_column(uint8_t* d, const uint8_t* s, ptrdiff_t step, int32_t n, bool wide) {
  int32_t c = 0;
  if constexpr (P == 3) {
    if (wide) {
      for (; c + 1 < n; ++c, s += step) std::memcpy(d + ptrdiff_t{c} * 3, s, 4);
    }
  }
  for (; c < n; ++c, s += step) copy_pixel<P>(d + ptrdiff_t{c} * P, s);
}

template <int P>
void rotate90_rect(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                   uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1, int32_t c0,
                   int32_t c1) {
  for (int32_t r = r0; r < r1; ++r) {
    // Column c of the destination row reads source row H - 1 - c at column r.
    const uint8_t* s = src + (src_h - 1 - c0) * src_stride + ptrdiff_t{r} * P;
    copy_column<P>(dst + r * dst_stride + ptrdiff_t{c0} * P, s, -src_stride, c1 - c0,
                   r + 1 < src_w);
  }
}

template <int P>
void rotate270_rect(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                    uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1, int32_t c0,
                    int32_t c1) {
  for (int32_t r = r0; r < r1; ++r) {
    // Column c of the destination row reads source row c at column W - 1 - r.
    const uint8_t* s = src + c0 * src_stride + ptrdiff_t{src_w - 1 - r} * P;
    copy_column<P>(dst + r * dst_stride + ptrdiff_t{c0} * P, s, src_stride, c1 - c0, r > 0);
  }
}

template <int P>
void reverse_row(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t c0, int32_t c1) {
  for (int32_t c = c0; c < c1; ++c) {
    copy_pixel<P>(dst_row + ptrdiff_t{c} * P, src_row + ptrdiff_t{src_w - 1 - c} * P);
  }
}

// Calls kernel.template operator()<P>() for pixel sizes 1, 2 and 3; other sizes do nothing.
template <class Kernel>
inline void by_pixel_size(int32_t pixel_size, Kernel&& kernel) {
  switch (pixel_size) {
    case 1:
      return kernel.template operator()<1>();
    case 2:
      return kernel.template operator()<2>();
    case 3:
      return kernel.template operator()<3>();
    default:
      return;
  }
}

}  // namespace

void rotate90_rect_c(int32_t pixel_size, const uint8_t* src, ptrdiff_t src_stride, int32_t src_h,
                     int32_t src_w, uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1,
                     int32_t c0, int32_t c1) {
  by_pixel_size(pixel_size, [&]<int P>() {
    rotate90_rect<P>(src, src_stride, src_h, src_w, dst, dst_stride, r0, r1, c0, c1);
  });
}

void rotate270_rect_c(int32_t pixel_size, const uint8_t* src, ptrdiff_t src_stride, int32_t src_h,
                      int32_t src_w, uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t r1,
                      int32_t c0, int32_t c1) {
  by_pixel_size(pixel_size, [&]<int P>() {
    rotate270_rect<P>(src, src_stride, src_h, src_w, dst, dst_stride, r0, r1, c0, c1);
  });
}

void reverse_row_c(int32_t pixel_size, const uint8_t* src_row, int32_t src_w, uint8_t* dst_row,
                   int32_t c0, int32_t c1) {
  by_pixel_size(pixel_size, [&]<int P>() { reverse_row<P>(src_row, src_w, dst_row, c0, c1); });
}

}  // namespace zarvel::aux::rotate
