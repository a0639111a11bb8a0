// Frame to tensor: the host slot that the export and the transform-to-tensor paths call.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>

#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux {

// Writes rows of packed RGB/BGR or GREY pixels into the planes of one tensor item, with the
// arithmetic of host to-tensor: channel order, normalisation, clipping to the item and
// padding of the samples the pixels do not cover. Rows can arrive one at a time (the
// region-resize path writes each resized row while it is still in cache).
class ItemWriter {
 public:
  // Prepares writing pixels of `format` into the item at element `offset`. Returns 0; -1000
  // for an unsupported colour type, element type or format (the format is logged); -1 when
  // the item does not fit the tensor's buffer (logged).
  int32_t init(zarvel_tensor_t* tensor, int64_t offset, uint32_t color_type, uint32_t format,
               const float mean[3], const float std[3], const float pad[3]);
  int32_t height() const { return height_; }
  int32_t width() const { return width_; }
  // Row y (below height()) from w pixels, clipped to the width; the rest of the row is padded.
  void row(int32_t y, const uint8_t* src, int32_t w);
  // Pads rows h .. height() - 1.
  void pad_below(int32_t h);
  // A whole frame of w x h pixels with rows `stride` bytes apart, from the item's top-left
  // corner, then the padding below it.
  void frame(const uint8_t* pixels, int64_t stride, int32_t w, int32_t h);

 private:
  enum class Kind { kColor, kLuma, kGrey };
  template <typename T>
  T* plane(int c) const {
    return reinterpret_cast<T*>(data_) + c * plane_stride_;
  }
  void samples(const uint8_t* src, int64_t n, int64_t at);
  void pad_run(int64_t at, int64_t n);

  Kind kind_ = Kind::kColor;
  bool f32_ = false;
  bool identity_ = false;
  int planes_ = 0, pixel_size_ = 0, r_byte_ = 0;
  uint8_t* data_ = nullptr;
  int64_t plane_stride_ = 0, row_stride_ = 0;
  int32_t height_ = 0, width_ = 0;
  int plane_of_byte_[3] = {0, 1, 2};
  float byte_mean_[3] = {}, byte_recip_[3] = {};
  float mean_ = 0.0f, std_ = 1.0f;
  float grey_recip_ = 0.0f;  // 1 / std where it gives every grey sample exactly, else 0
  float pad_f32_[3] = {};
  uint8_t pad_u8_[3] = {};
  to_tensor::BlockKernels kernels_{};
};

// Slot 6 of the host Device API table: writes a packed RGB/BGR or GREY frame into the planes
// of one tensor item starting at element `offset`. A frame outside host memory is downloaded
// first. mean, std and pad are in R, G, B order whatever the colour type.
int32_t host_to_tensor(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                       zarvel_frame_t* frame, const float mean[3], const float std[3],
                       const float pad[3]);

}  // namespace zarvel::aux
