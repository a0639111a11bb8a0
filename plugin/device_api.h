// The Device API table: the eight pixel-work slots that the exported frame operations call.
// This build carries the host implementation ("aux.host"); a device build would supply its
// own table with the same layout.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

struct ResizeJob;  // one item of the batch transform-to-tensor path

struct DeviceApi {
  // 0: resample src into the top-left size.width x size.height of dst.
  int32_t (*resize)(zarvel_frame_t* src, zarvel_frame_t* dst, Size2D size);
  // 1: clockwise rotation by 90, 180 or 270 degrees.
  int32_t (*rotate)(zarvel_frame_t* src, zarvel_frame_t* dst, float angle);
  // 2 and 3: warps by a row-major 2x3 or 3x3 matrix.
  int32_t (*warp_affine)(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix);
  int32_t (*warp_perspective)(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix);
  // 4: colour conversion into dst's format.
  int32_t (*cvt_color)(zarvel_frame_t* src, zarvel_frame_t* dst);
  // 5: histogram equalisation.
  int32_t (*equalize_hist)(zarvel_frame_t* src, zarvel_frame_t* dst);
  // 6: one frame into a planar tensor at an element offset.
  int32_t (*to_tensor)(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                       zarvel_frame_t* frame, const float mean[3], const float std[3],
                       const float pad[3]);
  // 7: a batch of region-of-interest resizes into a tensor, through a scratch buffer.
  int32_t (*transform_to_tensor)(zarvel_tensor_t* tensor, uint32_t color_type, int32_t count,
                                 zarvel_frame_t* const* frames, const ResizeJob* jobs,
                                 const float mean[3], const float std[3], zarvel_buffer_t* scratch);
};

// The table this build dispatches through.
const DeviceApi& host_device_api();

}  // namespace zarvel::aux
