// Image loading, saving and encoding: the pieces the exports are built from.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

#include "codec/stb_backend.h"

namespace zarvel::aux::codec {

// Builds a host frame from `channels` interleaved 8-bit channels: 1 -> "GREY" and 3 -> "RGB24"
// adopt the block (release(pixels) runs when the frame's last reference goes); 2 -> "GREY" and
// 4 -> "RGB24" copy it without alpha and release it at once. Other counts are refused with a
// message naming `path` (null when decoding from memory). The block is released on every
// failure.
zarvel_frame_t* frame_from_pixels(uint8_t* pixels, int32_t width, int32_t height, int32_t channels,
                                  ReleaseFn release, const char* path);

// The format a file name asks for, from its lower-cased ending: ".jpg" and ".jpeg" JPEG, ".bmp"
// BMP, ".png" PNG; kNone otherwise and for a null name.
ImageFormat format_from_name(const char* name);

}  // namespace zarvel::aux::codec
