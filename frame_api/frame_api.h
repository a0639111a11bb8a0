// How the component holds the frame library's records: RAII owners for every temporary
// frame, buffer or tensor, and shared references where several stages use one record.
#pragma once

#include <zarvel/frame.h>

#include <memory>

namespace zarvel::aux {

struct FrameDeleter {
  void operator()(zarvel_frame_t* frame) const noexcept { zarvel_frame_free(&frame); }
};
struct BufferDeleter {
  void operator()(zarvel_buffer_t* buffer) const noexcept { zarvel_buffer_free(&buffer); }
};
struct TensorDeleter {
  void operator()(zarvel_tensor_t* tensor) const noexcept { zarvel_tensor_free(&tensor); }
};

// Owns one reference of a frame, buffer or tensor and releases it on every path.
using FramePtr = std::unique_ptr<zarvel_frame_t, FrameDeleter>;
using BufferPtr = std::unique_ptr<zarvel_buffer_t, BufferDeleter>;
using TensorPtr = std::unique_ptr<zarvel_tensor_t, TensorDeleter>;

using SharedFrame = std::shared_ptr<zarvel_frame_t>;
using SharedTensor = std::shared_ptr<zarvel_tensor_t>;

// A shared reference that owns the frame: the frame is freed with the last holder.
inline SharedFrame share_owned(zarvel_frame_t* frame) { return SharedFrame(frame, FrameDeleter{}); }
inline SharedTensor share_owned(zarvel_tensor_t* tensor) {
  return SharedTensor(tensor, TensorDeleter{});
}

// A shared reference that never frees the caller's record.
inline SharedFrame share_borrowed(zarvel_frame_t* frame) {
  return SharedFrame(frame, [](zarvel_frame_t*) noexcept {});
}
inline SharedTensor share_borrowed(zarvel_tensor_t* tensor) {
  return SharedTensor(tensor, [](zarvel_tensor_t*) noexcept {});
}

// Is the 4:2:0 format family (needs even width and height)?
inline bool is_yuv420(uint32_t format) {
  return format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21 ||
         format == ZARVEL_PIXFMT_YU12;
}

}  // namespace zarvel::aux
