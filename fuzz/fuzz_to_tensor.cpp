// Frames into tensors (single frame, transform with options, batch) and tensor items back
// into frames, with fuzzed tensors, frames, regions, matrices, statistics and scratch slots.
#include <vector>

#include "fuzz_support.h"

namespace {

using zarvel::fuzz::fill;
using zarvel::fuzz::Input;

struct Frames {
  std::vector<zarvel_frame_t*> list;
  ~Frames() {
    for (zarvel_frame_t*& f : list) zarvel_frame_free(&f);
  }
};

// Null, a null-holding slot, or a slot holding a host or device buffer of fuzzed size.
struct ScratchSlot {
  zarvel_buffer_t* buffer = nullptr;
  const uint8_t pick;
  explicit ScratchSlot(Input& in) : pick(in.u8()) {
    if (pick >= 128 && pick < 255)
      buffer = zarvel_buffer_alloc(in.range(0, 1 << 16), (pick & 7) == 0 ? 1u : 0u);
  }
  zarvel_buffer_t** slot() { return pick != 255 ? &buffer : nullptr; }
  ~ScratchSlot() { zarvel_buffer_free(&buffer); }
};

uint32_t pick_color_type(Input& in) {
  const uint8_t pick = in.u8();
  return pick >= 250 ? pick : pick % 3u;
}

int32_t frame_to_tensor(Input& in, zarvel_tensor_t* tensor) {
  zarvel_frame_t* frame = zarvel::fuzz::make_frame(in);
  float stats[9];
  fill(in, stats, 9, -2.0f, 300.0f);
  const uint8_t nulls = in.u8();
  const int32_t offset = in.coord(-8, 4 * 4 * 64 * 64);
  const int32_t status = zarvel_frame_to_tensor(
      tensor, offset, pick_color_type(in), frame, (nulls & 1) ? nullptr : stats,
      (nulls & 2) ? nullptr : stats + 3, (nulls & 4) ? nullptr : stats + 6);
  zarvel_frame_free(&frame);
  return status;
}

int32_t transform_to_tensor(Input& in, zarvel_tensor_t* tensor, bool batch) {
  const uint64_t count = in.range(0, 4);
  Frames frames;
  for (uint64_t i = 0; i < count; ++i) frames.list.push_back(zarvel::fuzz::maybe_frame(in));
  std::vector<Area2D> rois(count);
  std::vector<Size2D> sizes(count);
  std::vector<float> matrices(9 * count + 1);
  std::vector<float> pads(3 * count + 1);
  for (uint64_t i = 0; i < count; ++i) {
    rois[i] = zarvel::fuzz::area(in);
    sizes[i] = Size2D{in.coord(-2, 70), in.coord(-2, 70)};
    if (!zarvel::fuzz::bounded_size(rois[i].width, rois[i].height))
      rois[i].width = rois[i].height = 1 << 24;
    if (!zarvel::fuzz::bounded_size(sizes[i].width, sizes[i].height))
      sizes[i].width = sizes[i].height = 1 << 24;
  }
  fill(in, matrices.data(), matrices.size(), -3.0f, 3.0f);
  fill(in, pads.data(), pads.size(), -10.0f, 300.0f);
  ScratchSlot scratch(in);
  const uint8_t nulls = in.u8();
  // A count larger than the arrays is a caller error; a smaller one is not.
  const uint64_t claimed = (nulls & 0x80) ? count / 2 : count;
  float stats[6];
  fill(in, stats, 6, -2.0f, 300.0f);
  const uint32_t color_type = pick_color_type(in);
  if (batch) {
    std::vector<float> scale_y(count + 1), scale_x(count + 1);
    return zarvel_frame_transform_to_tensor_batch(
        tensor, color_type, claimed, (nulls & 1) ? nullptr : frames.list.data(),
        (nulls & 2) ? nullptr : rois.data(), in.coord(-1, 2), (nulls & 4) ? nullptr : stats,
        (nulls & 8) ? nullptr : stats + 3, (nulls & 16) ? nullptr : pads.data(), scratch.slot(),
        (nulls & 32) ? nullptr : scale_y.data(), (nulls & 64) ? nullptr : scale_x.data());
  }
  const uint8_t flags = in.u8();
  TransformToTensorOption o{};
  o.tensor = tensor, o.color_type = color_type, o.frame_count = claimed;
  o.flags = flags >= 250 ? in.u32() : (flags & 3u) | (flags & 0x30u);
  o.frames = (nulls & 1) ? nullptr : frames.list.data();
  o.rois = (nulls & 2) ? nullptr : rois.data();
  o.sizes = (nulls & 4) ? nullptr : sizes.data();
  o.matrices = (nulls & 8) ? nullptr : matrices.data();
  for (int k = 0; k < 3; ++k) o.mean[k] = stats[k], o.std[k] = stats[k + 3];
  o.pads = (nulls & 16) ? nullptr : pads.data(), o.buffer = scratch.slot();
  return zarvel_frame_transform_to_tensor((nulls & 32) && (nulls & 64) ? nullptr : &o);
}

int32_t tensor_to_frames(Input& in, zarvel_tensor_t* tensor) {
  zarvel_frame_t* frame = nullptr;
  const int64_t index = in.u8() == 255 ? static_cast<int64_t>(in.u32()) << 31 : in.range(-1, 4);
  const int32_t status = zarvel_tensor_to_frames(tensor, pick_color_type(in), index,
                                                 in.u8() == 255 ? nullptr : &frame);
  if (frame != nullptr && frame->mem_type == ZARVEL_MEM_HOST) zarvel::fuzz::visible_bytes(frame);
  zarvel_frame_free(&frame);
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zarvel_log_set_sink([](void*, const zarvel_log_record_t*, const char*) {}, nullptr);
  Input in{data, size};
  const uint8_t op = in.u8();
  zarvel_tensor_t* tensor = in.u8() == 255 ? nullptr : zarvel::fuzz::make_tensor(in);
  if (op % 4 == 0) frame_to_tensor(in, tensor);
  if (op % 4 == 1 || op % 4 == 2) transform_to_tensor(in, tensor, op % 4 == 2);
  if (op % 4 == 3) tensor_to_frames(in, tensor);
  zarvel_tensor_free(&tensor);
  return 0;
}
