// Encoding fuzzed frames into buffers. Lossless encodings of GREY and RGB24 host frames must
// decode to the same pixels.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zarvel_log_set_sink([](void*, const zarvel_log_record_t*, const char*) {}, nullptr);
  zarvel::fuzz::Input in{data, size};
  const uint8_t pick = in.u8();
  const int32_t format = pick >= 250 ? static_cast<int32_t>(in.u32()) : pick % 4;
  const uint8_t buffer_kind = in.u8();
  zarvel_buffer_t* buffer =
      buffer_kind == 255 ? nullptr
                         : zarvel_buffer_alloc(in.range(0, 64), (buffer_kind & 7) == 0 ? 1u : 0u);
  zarvel_frame_t* frame = zarvel::fuzz::maybe_frame(in);

  const int32_t status = zarvel_frame_encode(frame, format, buffer);

  if (status == 0 && frame != nullptr && frame->mem_type == ZARVEL_MEM_HOST &&
      ((format == ZARVEL_IMAGE_PNG &&
        (frame->format == ZARVEL_PIXFMT_GREY || frame->format == ZARVEL_PIXFMT_RGB24)) ||
       (format == ZARVEL_IMAGE_BMP && frame->format == ZARVEL_PIXFMT_RGB24))) {
    zarvel_frame_t* back = zarvel_frame_load_from_memory(
        zarvel_buffer_raw_pointer(buffer), static_cast<int32_t>(zarvel_buffer_size(buffer)));
    if (back == nullptr || back->format != frame->format || back->width != frame->width ||
        back->height != frame->height ||
        zarvel::fuzz::visible_bytes(back) != zarvel::fuzz::visible_bytes(frame)) {
      zarvel::fuzz::fail();
    }
    zarvel_frame_free(&back);
  }
  zarvel_frame_free(&frame);
  zarvel_buffer_free(&buffer);
  return 0;
}
