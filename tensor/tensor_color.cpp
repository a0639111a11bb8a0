// The frame-format / tensor-colour-type pairing check.
#include "tensor/tensor_color.h"

#include <zarvel/frame.h>

#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {

int32_t check_tensor_color_pairing(uint32_t format, uint32_t color_type, const char* name) {
  const bool packed = format == ZARVEL_PIXFMT_RGB24 || format == ZARVEL_PIXFMT_BGR24;
  switch (color_type) {
    case kTensorBgr:
    case kTensorRgb:
      if (packed) return kOk;
      ZA_LOG(ZARVEL_LOG_FAILURE,
             "[%s] RGB/GBR tensor needs RGB/BGR frame, given frame's format: %s\n", name,
             zarvel_frame_pixfmt_to_string(format));
      return kUnsupported;
    case kTensorGray:
      if (packed || format == ZARVEL_PIXFMT_GREY) return kOk;
      ZA_LOG(ZARVEL_LOG_FAILURE,
             "[%s] GRAY tensor needs RGB/BGR/GRAY frame, given frame's format: %s\n", name,
             zarvel_frame_pixfmt_to_string(format));
      return kUnsupported;
    default:
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Unknown tensor color type: %d\n", name,
             static_cast<int>(color_type));
      return kUnsupported;
  }
}

}  // namespace zarvel::aux
