// Rotation by quarter and half turns: the host slot and the plane kernel it runs.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slot 1 of the host Device API table: rotates src clockwise by `angle` degrees (90, 180 or
// 270 after truncation) into the top-left corner of dst. Returns 0, also for a pixel format
// it does not handle (logged, dst left untouched).
int32_t host_rotate(zarvel_frame_t* src, zarvel_frame_t* dst, float angle);

namespace rotate {

// Rotates one plane of `pixel_size`-byte pixels (1, 2 or 3) clockwise by `angle` degrees.
// Walks dst_h rows of dst_w pixels of the destination and reads the source at the mapped
// position; the walk must lie inside the rotated size of the src_h x src_w source. Any angle
// other than 90, 180 or 270 writes nothing. Picks the vector variant from cpu_features().
void rotate_plane(int32_t angle, int32_t pixel_size, int32_t src_h, int32_t src_w,
                  int32_t src_stride, const uint8_t* src, int32_t dst_h, int32_t dst_w,
                  int32_t dst_stride, uint8_t* dst);

}  // namespace rotate
}  // namespace zarvel::aux
