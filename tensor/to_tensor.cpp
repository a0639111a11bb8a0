// zarvel_frame_to_tensor and its host slot: the colour and grey writers, the clipping of the
// frame to the tensor item and the padding of the rest of the item.
#include "tensor/to_tensor.h"

#include <zarvel/aux.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "frame_api/frame_api.h"
#include "plugin/device_api.h"
#include "plugin/log.h"
#include "plugin/status.h"
#include "tensor/tensor_color.h"
#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux {
namespace {

constexpr const char* kExportName = "zarvel_frame_to_tensor";
constexpr const char* kHostName = "frame_utils_cpu_to_tensor";

// Where one tensor item's planes lie: element `offset` of the tensor, planes `plane_stride`
// elements apart, rows `row_stride` elements apart, `height` rows of `width` samples. Checks
// that all of them lie inside the tensor's buffer; logs and returns -1 when they do not (or
// the tensor has no data).
int32_t locate(const zarvel_tensor_t* tensor, int64_t offset, int planes, int64_t elem_size,
               uint8_t** data, int64_t* plane_stride, int64_t* row_stride) {
  const int32_t height = tensor->shape[2];
  const int32_t width = tensor->shape[3];
  *plane_stride = tensor->stride[1];
  *row_stride = tensor->stride[2];
  auto* raw = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(tensor));
  const int64_t buffer_elems = zarvel_buffer_size(tensor->buffer) / elem_size;

  bool fits = raw != nullptr && height > 0 && width > 0 && *plane_stride >= 0 && *row_stride >= 0;
  int64_t first = 0, span = 0, rows = 0, end = 0;
  fits = fits && !__builtin_add_overflow(tensor->offset, offset, &first) && first >= 0 &&
         !__builtin_mul_overflow(int64_t{planes - 1}, *plane_stride, &span) &&
         !__builtin_mul_overflow(int64_t{height - 1}, *row_stride, &rows) &&
         !__builtin_add_overflow(first, span, &end) && !__builtin_add_overflow(end, rows, &end) &&
         !__builtin_add_overflow(end, int64_t{width}, &end) && end <= buffer_elems;
  if (!fits) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
                "[%s] Tensor of shape %dx%dx%dx%d cannot hold an image at element offset %lld\n",
                kHostName, tensor->shape[0], tensor->shape[1], height, width,
                static_cast<long long>(offset));
    return kInvalidArgument;
  }
  *data = raw + offset * elem_size;
  return kOk;
}

int32_t unsupported_format(uint32_t format) {
  ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
              "[%s] Writing a frame in format [%s] into a tensor is not supported!\n", kHostName,
              zarvel_frame_pixfmt_to_string(format));
  return kUnsupported;
}

}  // namespace

// Colour types 0 and 1: three planes in the tensor's channel order. Colour type 2: one grey
// plane from GREY bytes or from the luma of RGB/BGR pixels.
int32_t ItemWriter::init(zarvel_tensor_t* tensor, int64_t offset, uint32_t color_type,
                         uint32_t format, const float mean[3], const float std[3],
                         const float pad[3]) {
  if (color_type > kTensorGray) return kUnsupported;
  const uint32_t elem = tensor->elem_type;
  if (elem != ZARVEL_ELEM_U8 && elem != ZARVEL_ELEM_F32) return kUnsupported;
  f32_ = elem == ZARVEL_ELEM_F32;
  kernels_ = to_tensor::select_block_kernels();

  if (color_type == kTensorGray) {
    if (format != ZARVEL_PIXFMT_GREY && format != ZARVEL_PIXFMT_RGB24 &&
        format != ZARVEL_PIXFMT_BGR24) {
      return unsupported_format(format);
    }
    kind_ = format == ZARVEL_PIXFMT_GREY ? Kind::kGrey : Kind::kLuma;
    planes_ = 1;
    pixel_size_ = kind_ == Kind::kGrey ? 1 : 3;
    r_byte_ = format == ZARVEL_PIXFMT_RGB24 ? 0 : 2;
    mean_ = mean[1];
    std_ = std[1];
    grey_recip_ = 0.0f;
    float recip = 0.0f;
    if (kind_ == Kind::kGrey && f32_ && !(mean_ == 0.0f && std_ == 1.0f) &&
        kernels_.grey_f32_recip != nullptr &&
        to_tensor::grey_reciprocal_exact(mean_, std_, &recip)) {
      grey_recip_ = recip;
    }
    pad_f32_[0] = pad[1];
    pad_u8_[0] = to_tensor::low_byte_of_trunc(pad[1]);
  } else {
    if (format != ZARVEL_PIXFMT_RGB24 && format != ZARVEL_PIXFMT_BGR24) {
      return unsupported_format(format);
    }
    // The caller's triples are in R, G, B order; a BGR tensor's plane 0 takes the third.
    float m[3] = {mean[0], mean[1], mean[2]};
    float s[3] = {std[0], std[1], std[2]};
    float p[3] = {pad[0], pad[1], pad[2]};
    if (color_type == kTensorBgr) {
      std::swap(m[0], m[2]);
      std::swap(s[0], s[2]);
      std::swap(p[0], p[2]);
    }
    kind_ = Kind::kColor;
    planes_ = 3;
    pixel_size_ = 3;
    // Plane 0 takes byte s0 of each pixel, plane 1 byte 1, plane 2 byte s2: the frame's red
    // and blue bytes swap unless its byte order already is the tensor's channel order.
    const bool same_order = (color_type == kTensorRgb && format == ZARVEL_PIXFMT_RGB24) ||
                            (color_type == kTensorBgr && format == ZARVEL_PIXFMT_BGR24);
    for (int k = 0; k < 3; ++k) {
      plane_of_byte_[k] = same_order || k == 1 ? k : 2 - k;
      byte_mean_[k] = m[plane_of_byte_[k]];
      byte_recip_[k] = 1.0f / s[plane_of_byte_[k]];
      pad_f32_[k] = p[k];
      pad_u8_[k] = to_tensor::low_byte_of_trunc(p[k]);
    }
    // The 8-bit tensor always receives the source bytes (see packed_u8_row_c).
    identity_ = m[0] == 0.0f && m[1] == 0.0f && m[2] == 0.0f && s[0] == 1.0f && s[1] == 1.0f &&
                s[2] == 1.0f;
  }
  height_ = tensor->shape[2];
  width_ = tensor->shape[3];
  return locate(tensor, offset, planes_, f32_ ? 4 : 1, &data_, &plane_stride_, &row_stride_);
}

void ItemWriter::samples(const uint8_t* src, int64_t n, int64_t at) {
  if (kind_ == Kind::kColor) {
    if (f32_) {
      float* const dst[3] = {plane<float>(plane_of_byte_[0]) + at,
                             plane<float>(plane_of_byte_[1]) + at,
                             plane<float>(plane_of_byte_[2]) + at};
      to_tensor::packed_f32_row(kernels_, src, n, dst, byte_mean_, byte_recip_);
    } else {
      uint8_t* const dst[3] = {plane<uint8_t>(plane_of_byte_[0]) + at,
                               plane<uint8_t>(plane_of_byte_[1]) + at,
                               plane<uint8_t>(plane_of_byte_[2]) + at};
      to_tensor::packed_u8_row(kernels_, src, n, dst, identity_, byte_mean_, byte_recip_);
    }
    return;
  }
  if (f32_) {
    float* dst = plane<float>(0) + at;
    if (kind_ == Kind::kGrey) {
      to_tensor::grey_f32_row(kernels_, src, n, dst, mean_, std_, grey_recip_);
    } else {
      to_tensor::luma_f32_row(kernels_, src, n, r_byte_, dst, mean_, std_);
    }
    return;
  }
  // 8-bit grey samples are the values themselves; mean and std do not apply.
  uint8_t* dst = plane<uint8_t>(0) + at;
  if (kind_ == Kind::kGrey) {
    std::memcpy(dst, src, static_cast<size_t>(n));
  } else {
    to_tensor::luma_u8_row(kernels_, src, n, r_byte_, dst);
  }
}

void ItemWriter::pad_run(int64_t at, int64_t n) {
  for (int c = 0; c < planes_; ++c) {
    if (f32_) {
      float* p = plane<float>(c) + at;
      std::fill(p, p + n, pad_f32_[c]);
    } else {
      uint8_t* p = plane<uint8_t>(c) + at;
      std::fill(p, p + n, pad_u8_[c]);
    }
  }
}

void ItemWriter::row(int32_t y, const uint8_t* src, int32_t w) {
  w = std::clamp(w, 0, width_);
  samples(src, w, y * row_stride_);
  if (w < width_) pad_run(y * row_stride_ + w, width_ - w);
}

void ItemWriter::pad_below(int32_t h) {
  h = std::max(h, 0);
  if (h >= height_) return;
  // One fill for the whole remainder when rows are contiguous.
  if (row_stride_ == width_) {
    pad_run(h * row_stride_, (height_ - h) * row_stride_);
    return;
  }
  for (int32_t y = h; y < height_; ++y) pad_run(y * row_stride_, width_);
}

void ItemWriter::frame(const uint8_t* pixels, int64_t stride, int32_t w, int32_t h) {
  w = std::clamp(w, 0, width_);
  h = std::clamp(h, 0, height_);
  // Frame rows and tensor rows both contiguous: one row of w * h pixels.
  if (w == width_ && row_stride_ == width_ && stride == int64_t{w} * pixel_size_) {
    if (h > 0) samples(pixels, int64_t{w} * h, 0);
  } else {
    for (int32_t y = 0; y < h; ++y) row(y, pixels + y * stride, w);
  }
  pad_below(h);
}

namespace {

int32_t frame_to_tensor(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                        zarvel_frame_t* frame, const float* mean, const float* std,
                        const float* pad) {
  if (tensor == nullptr || frame == nullptr || frame->plane[0] == nullptr) return kInvalidArgument;
  if (mean == nullptr || std == nullptr || pad == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] mean, std and pad must all be given\n", kExportName);
    return kInvalidArgument;
  }
  const uint32_t tensor_mem = zarvel_tensor_mem_type(tensor);
  const SharedFrame source = share_borrowed(frame);
  const int32_t status = check_tensor_color_pairing(frame->format, color_type, kExportName);
  if (status != kOk) return status;
  if (tensor_mem == ZARVEL_MEM_DEVICE) return kUnsupported;
  const float m[3] = {mean[0], mean[1], mean[2]};
  const float s[3] = {std[0], std[1], std[2]};
  const float p[3] = {pad[0], pad[1], pad[2]};
  return host_device_api().to_tensor(tensor, offset, color_type, source.get(), m, s, p);
}

}  // namespace

int32_t host_to_tensor(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                       zarvel_frame_t* frame, const float mean[3], const float std[3],
                       const float pad[3]) {
  if (tensor == nullptr || frame == nullptr || mean == nullptr || std == nullptr ||
      pad == nullptr) {
    return kInvalidArgument;
  }
  try {
    SharedFrame source = share_borrowed(frame);
    if (zarvel_frame_mem_type(frame) != ZARVEL_MEM_HOST) {
      zarvel_frame_t* downloaded = nullptr;
      const int32_t status = zarvel_frame_download(frame, &downloaded);
      FramePtr host(downloaded);
      ZA_HOST_LOG(ZARVEL_LOG_NOTE,
                  "[%s] Memory type not match between frame and tensor, will follow tensor "
                  "memory type: host.\n",
                  kHostName);
      if (status != kOk) return status;
      if (!host) return kFailed;
      source = SharedFrame(std::move(host));
    }
    const zarvel_frame_t* f = source.get();
    ItemWriter writer;
    const int32_t status = writer.init(tensor, offset, color_type, f->format, mean, std, pad);
    if (status != kOk) return status;
    writer.frame(f->plane[0], f->stride[0], f->width, f->height);
    return kOk;
  } catch (const std::bad_alloc&) {
    return kFailed;
  }
}

}  // namespace zarvel::aux

extern "C" ZARVEL_AUX_API int32_t zarvel_frame_to_tensor(zarvel_tensor_t* tensor, int32_t offset,
                                                         uint32_t color_type, zarvel_frame_t* frame,
                                                         const float* mean, const float* std,
                                                         const float* pad) {
  try {
    return zarvel::aux::frame_to_tensor(tensor, offset, color_type, frame, mean, std, pad);
  } catch (const std::bad_alloc&) {
    return zarvel::aux::kFailed;
  }
}
