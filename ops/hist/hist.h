// Histogram equalisation of grey frames: the host slot and its kernel.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slot 5 of the host Device API table: equalises plane 0 of a GREY src into dst (same size).
// Returns 0, or -1 for a frame without pixels.
int32_t host_equalize_hist(zarvel_frame_t* src, zarvel_frame_t* dst);

namespace hist {

// Counts the first `width` bytes of each of `height` rows into hist[256] (overwritten).
void count_histogram(int32_t height, int32_t width, int32_t stride, const uint8_t* src,
                     int32_t hist[256]);

// The equalisation table of a histogram of n = width x height > 0 pixels. With m the darkest
// level present: table[m] = 0 and, for i > m, table[i] = roundf(s_i * scale) where s_i is the
// count of levels m + 1 .. i and scale = 255.0f / (float)(n - hist[m]), in single precision.
// Entries below m are never used and set to 0; so are the entries above m of a flat image
// (n == hist[m]), which no pixel uses either.
void build_equalize_table(const int32_t hist[256], int32_t n, uint8_t table[256]);

// dst = table[src], over the first `width` bytes of each of `height` rows.
void map_table(int32_t height, int32_t width, int32_t src_stride, const uint8_t* src,
               int32_t dst_stride, uint8_t* dst, const uint8_t table[256]);

// The whole equalisation of a plane; height and width must be positive and their product
// must fit in 32 bits.
void equalize_hist_plane(int32_t height, int32_t width, int32_t src_stride, const uint8_t* src,
                         int32_t dst_stride, uint8_t* dst);

}  // namespace hist
}  // namespace zarvel::aux
