// Crop, resize and scale: the host slot shared with the tensor paths.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slot 0 of the host Device API table.
int32_t host_resize(zarvel_frame_t* src, zarvel_frame_t* dst, Size2D size);

}  // namespace zarvel::aux
