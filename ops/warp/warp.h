// Affine and perspective warps: the host slots and the plane kernels they drive.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slots 2 and 3 of the host Device API table. `matrix` holds 6 or 9 row-major floats that
// map output positions to input positions; it is only read.
int32_t host_warp_affine(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix);
int32_t host_warp_perspective(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix);

namespace warp {

// Plane kernels: bilinear warp of a plane of 1, 2 or 3 interleaved 8-bit channels. Strides
// are in bytes. border_mode 0 (constant `border`), 1 (replicate) or 5 (transparent); any
// other mode leaves the output alone. The vector variant is used when the processor has
// 256-bit FMA.
using PlaneKernel = void (*)(int32_t in_height, int32_t in_width, int32_t in_stride,
                             const uint8_t* in, int32_t out_height, int32_t out_width,
                             int32_t out_stride, uint8_t* out, const float* matrix,
                             int32_t border_mode, uint8_t border);

void warp_affine_c1(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                    int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                    const float* matrix, int32_t border_mode, uint8_t border);
void warp_affine_c2(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                    int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                    const float* matrix, int32_t border_mode, uint8_t border);
void warp_affine_c3(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                    int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                    const float* matrix, int32_t border_mode, uint8_t border);
void warp_perspective_c1(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                         int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                         const float* matrix, int32_t border_mode, uint8_t border);
void warp_perspective_c2(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                         int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                         const float* matrix, int32_t border_mode, uint8_t border);
void warp_perspective_c3(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,
                         int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,
                         const float* matrix, int32_t border_mode, uint8_t border);

}  // namespace warp
}  // namespace zarvel::aux
