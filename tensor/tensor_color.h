// Tensor colour types and the check that a frame's pixel format can feed a tensor of a given
// colour type. Shared by every path that writes frames into tensors.
#pragma once

#include <cstdint>

namespace zarvel::aux {

// TensorColorType: the planes a tensor item holds, in order.
inline constexpr uint32_t kTensorBgr = 0;   // B, G, R planes
inline constexpr uint32_t kTensorRgb = 1;   // R, G, B planes
inline constexpr uint32_t kTensorGray = 2;  // one grey plane

// 0 when a frame of `format` can be written into a tensor of `color_type`; otherwise logs a
// level-4 message under `name` (the caller's public name) and returns -1000. Colour tensors
// take RGB or BGR frames, grey tensors RGB, BGR or GREY frames.
int32_t check_tensor_color_pairing(uint32_t format, uint32_t color_type, const char* name);

}  // namespace zarvel::aux
