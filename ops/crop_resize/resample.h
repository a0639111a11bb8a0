// The single-plane bilinear resampler used by the host resize.
#pragma once

#include <cstdint>

namespace zarvel::aux::resample {

// Resamples a plane of `channels` interleaved 8-bit channels from sw x sh to dw x dh.
// Strides are in bytes. Returns 0, or -4 when the scratch block cannot be allocated.
int32_t resample_plane(const uint8_t* src, int32_t sw, int32_t sh, int32_t src_stride, uint8_t* dst,
                       int32_t dw, int32_t dh, int32_t dst_stride, int32_t channels);

// One axis of the coordinate table: for each destination index, the first source tap and
// the two weights (scaled by 2048). Taps never leave [0, source size): a tap clamped at the
// last pixel is expressed as the pair (size - 2, size - 1) with weights (0, 2048).
struct AxisTap {
  int32_t index;
  int16_t w0;
  int16_t w1;
};
void compute_axis_taps(int32_t src_size, int32_t dst_size, AxisTap* taps);

}  // namespace zarvel::aux::resample
