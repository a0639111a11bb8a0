// Frame to tensor: the host slot that the export and the transform-to-tensor paths call.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slot 6 of the host Device API table: writes a packed RGB/BGR or GREY frame into the planes
// of one tensor item starting at element `offset`. A frame outside host memory is downloaded
// first. mean, std and pad are in R, G, B order whatever the colour type.
int32_t host_to_tensor(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                       zarvel_frame_t* frame, const float mean[3], const float std[3],
                       const float pad[3]);

}  // namespace zarvel::aux
