// Colour conversion: the host slot of the Device API table.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

namespace zarvel::aux {

// Slot 4 of the host Device API table: converts src into dst's format. Both frames are in
// host memory and have the same size. Returns 0, -1000 for a pair it does not handle (after a
// level-4 message), or the frame library's status of a copy.
int32_t host_cvt_color(zarvel_frame_t* src, zarvel_frame_t* dst);

}  // namespace zarvel::aux
