// Every single-frame operation with fuzzed formats, sizes, strides, regions, matrices,
// parameters and output frames. The source must come back unchanged, an output the operation
// allocated must be readable when it succeeds, and nothing may read or write outside the
// frames (ASan) or leak (LSan) once the output slot is freed.
#include "fuzz_support.h"

namespace {

using zarvel::fuzz::Input;

// Null (the operation allocates) or a frame of the source's format, or of a fuzzed one.
zarvel_frame_t* make_output(Input& in, const zarvel_frame_t* src) {
  const uint8_t pick = in.u8();
  if (pick < 96) return nullptr;
  uint32_t format = src != nullptr ? src->format : ZARVEL_PIXFMT_GREY;
  if (pick >= 224) format = zarvel::fuzz::pick_format(in);
  return zarvel::fuzz::make_frame(in, format);
}

int32_t run_op(Input& in, uint8_t op, zarvel_frame_t* src, zarvel_frame_t** dst) {
  using zarvel::fuzz::bounded_size;
  if (op % 8 == 0) {
    const Area2D area = zarvel::fuzz::area(in);
    return bounded_size(area.width, area.height) ? zarvel_frame_crop(src, dst, area) : 0;
  }
  if (op % 8 == 1) {
    const Size2D size{in.coord(-2, 80), in.coord(-2, 80)};
    return bounded_size(size.width, size.height) ? zarvel_frame_resize(src, dst, size) : 0;
  }
  if (op % 8 == 2) {
    const float ratio = in.real(0.0f, 3.0f);
    // Ratios that give frames between 256 pixels and the refused sizes are only slow.
    if (std::isfinite(ratio) && std::fabs(ratio) > 4.0f && std::fabs(ratio) < 1e9f) return 0;
    return zarvel_frame_scale(src, dst, ratio);
  }
  if (op % 8 == 3) return zarvel_frame_rotate(src, dst, in.coord(-1, 3));
  if (op % 8 == 4) return zarvel_frame_equalize_hist(src, dst);
  if (op % 8 == 5) {
    const uint32_t format = zarvel::fuzz::pick_format(in);
    return zarvel_frame_cvt_color(src, dst, in.u8() == 255 ? in.u32() : format);
  }
  float matrix[9];
  zarvel::fuzz::fill(in, matrix, 9, -3.0f, 3.0f);
  const float* arg = in.u8() == 255 ? nullptr : matrix;
  return op % 8 == 6 ? zarvel_frame_warpaffine(src, *dst, arg)
                     : zarvel_frame_warpperspective(src, *dst, arg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zarvel_log_set_sink([](void*, const zarvel_log_record_t*, const char*) {}, nullptr);
  Input in{data, size};
  const uint8_t op = in.u8();
  zarvel_frame_t* src = zarvel::fuzz::make_frame(in);
  zarvel_frame_t* dst = make_output(in, src);
  const bool given_output = dst != nullptr;
  std::vector<uint8_t> before;
  if (src != nullptr && src->mem_type == ZARVEL_MEM_HOST) before = zarvel::fuzz::visible_bytes(src);

  const int32_t status = run_op(in, op, src, &dst);

  if (src != nullptr && src->mem_type == ZARVEL_MEM_HOST &&
      zarvel::fuzz::visible_bytes(src) != before) {
    zarvel::fuzz::fail();  // the source is read-only to every operation
  }
  // A successful operation that allocated its output hands over a readable frame.
  if (status == 0 && !given_output && dst != nullptr && dst->mem_type == ZARVEL_MEM_HOST) {
    zarvel::fuzz::visible_bytes(dst);
  }
  zarvel_frame_free(&dst);
  zarvel_frame_free(&src);
  return 0;
}
