// One item of the region-resize path into a tensor: where its pixels are, how its channels
// map, its pad value, its region and the scales from region to item size. 22 words.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

struct ResizeJob {
  uint8_t* plane;      // the frame's first plane
  uint32_t format;     // pixel format
  int32_t pixel_size;  // bytes a pixel of the first plane
  int32_t height;
  int32_t width;
  int32_t stride;      // first-plane row stride in bytes
  int32_t src_map[3];  // source byte of each tensor channel
  int32_t dst_map[3];  // R, G, B position of each frame byte
  float pad[3];        // value of the item's samples outside the resized region
  Area2D roi;          // region of the frame; may reach outside it
  float scale_y;       // region height / item height
  float scale_x;       // region width / item width
};
static_assert(sizeof(ResizeJob) == 22 * 4, "a job is 22 words");

// Fills a job for frame `frame`, colour type `color_type`, region `roi` and the two scales.
void fill_resize_job(ResizeJob* job, const zarvel_frame_t* frame, uint32_t color_type,
                     const float* pad, Area2D roi, float scale_y, float scale_x);

// The item size a job resizes its region to: the region size divided by the scales,
// rounded to the nearest integer (at least 1). The resized region sits at the item's
// top-left corner; what the tensor item has beyond it is padding, what it lacks is clipped.
Size2D job_target_size(const ResizeJob& job);

// Slot 7 of the host Device API table: for each job, cut the region out of the frame
// (outside the frame it reads 0), resize it with the fixed-point bilinear resampler and write
// it into batch item i of the tensor with the to-tensor arithmetic, row by row, with no
// full-size intermediate frame. Equals zarvel_frame_crop, then zarvel_frame_resize, then
// zarvel_frame_to_tensor, value for value.
int32_t host_transform_to_tensor(zarvel_tensor_t* tensor, uint32_t color_type, int32_t count,
                                 zarvel_frame_t* const* frames, const ResizeJob* jobs,
                                 const float mean[3], const float std[3], zarvel_buffer_t* scratch);

}  // namespace zarvel::aux
