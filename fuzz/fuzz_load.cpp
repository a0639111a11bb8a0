// Image loading from memory: any bytes give a GREY or RGB24 host frame within the documented
// limits, or null.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  zarvel_frame_t* frame = zarvel_frame_load_from_memory(data, static_cast<int32_t>(size));
  if (frame == nullptr) return 0;
  const bool format_ok =
      frame->format == ZARVEL_PIXFMT_GREY || frame->format == ZARVEL_PIXFMT_RGB24;
  if (!format_ok || frame->mem_type != ZARVEL_MEM_HOST || frame->width <= 0 || frame->height <= 0 ||
      frame->width > 32768 || frame->height > 32768 ||
      int64_t{frame->width} * frame->height > (int64_t{64} << 20) ||
      // Every visible byte must be readable (ASan checks the reads).
      zarvel::fuzz::visible_bytes(frame).size() !=
          size_t(frame->width) * frame->height * zarvel_frame_pixel_size(frame->format)) {
    zarvel::fuzz::fail();
  }
  zarvel_frame_free(&frame);
  return 0;
}
