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
// elements apart, rows `row_stride` elements apart, `height` rows of `width` samples.
template <typename T>
struct Target {
  T* data;
  int64_t plane_stride;
  int64_t row_stride;
  int32_t height;
  int32_t width;

  T* plane(int c) const { return data + c * plane_stride; }
};

// Finds the item's planes in the tensor and checks that all of them lie inside its buffer;
// logs and returns -1 when they do not (or the tensor has no data).
template <typename T>
int32_t locate(const zarvel_tensor_t* tensor, int32_t offset, int planes, Target<T>* target) {
  const int32_t height = tensor->shape[2];
  const int32_t width = tensor->shape[3];
  const int64_t plane_stride = tensor->stride[1];
  const int64_t row_stride = tensor->stride[2];
  auto* raw = static_cast<T*>(zarvel_tensor_raw_pointer(tensor));
  const int64_t buffer_elems = zarvel_buffer_size(tensor->buffer) / static_cast<int64_t>(sizeof(T));

  bool fits = raw != nullptr && height > 0 && width > 0 && plane_stride >= 0 && row_stride >= 0;
  int64_t first = 0, span = 0, rows = 0, end = 0;
  fits = fits && !__builtin_add_overflow(tensor->offset, int64_t{offset}, &first) && first >= 0 &&
         !__builtin_mul_overflow(int64_t{planes - 1}, plane_stride, &span) &&
         !__builtin_mul_overflow(int64_t{height - 1}, row_stride, &rows) &&
         !__builtin_add_overflow(first, span, &end) && !__builtin_add_overflow(end, rows, &end) &&
         !__builtin_add_overflow(end, int64_t{width}, &end) && end <= buffer_elems;
  if (!fits) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
                "[%s] Tensor of shape %dx%dx%dx%d cannot hold an image at element offset %d\n",
                kHostName, tensor->shape[0], tensor->shape[1], height, width, offset);
    return kInvalidArgument;
  }
  *target = {raw + offset, plane_stride, row_stride, height, width};
  return kOk;
}

template <typename T>
void fill(T* p, int64_t n, T value) {
  std::fill(p, p + n, value);
}

// The samples right of the frame in row y of one plane.
template <typename T>
void pad_right(const Target<T>& t, int c, int32_t y, int32_t w, T value) {
  if (w < t.width) fill(t.plane(c) + y * t.row_stride + w, t.width - w, value);
}

// Rows h .. height-1 of one plane: one fill for the whole remainder when rows are contiguous.
template <typename T>
void pad_bottom(const Target<T>& t, int c, int32_t h, T value) {
  if (h >= t.height) return;
  T* plane = t.plane(c);
  if (t.row_stride == t.width) {
    fill(plane + h * t.row_stride, (t.height - h) * t.row_stride, value);
    return;
  }
  for (int32_t y = h; y < t.height; ++y) fill(plane + y * t.row_stride, t.width, value);
}

// The part of the frame that the item covers, from the frame's top-left corner.
struct Region {
  int32_t w;
  int32_t h;
  bool merged;  // frame rows and tensor rows are both contiguous: one row of w * h pixels
};

template <typename T>
Region clip(const zarvel_frame_t* frame, const Target<T>& t, int32_t pixel_size) {
  Region r;
  r.w = std::max(0, std::min(t.width, frame->width));
  r.h = std::max(0, std::min(t.height, frame->height));
  r.merged = r.w == t.width && t.row_stride == t.width &&
             int64_t{frame->stride[0]} == int64_t{r.w} * pixel_size;
  return r;
}

// Runs row(src, n, y) over the covered rows, as one long row when they are contiguous, and
// pads each row on the right after it is written.
template <typename T, typename Row, typename PadRow>
void for_each_row(const zarvel_frame_t* frame, const Target<T>& t, const Region& r, Row row,
                  PadRow pad_row) {
  if (r.merged) {
    if (r.h > 0) row(frame->plane[0], int64_t{r.w} * r.h, 0);
    return;
  }
  for (int32_t y = 0; y < r.h; ++y) {
    row(frame->plane[0] + int64_t{y} * frame->stride[0], r.w, y);
    pad_row(y);
  }
}

int32_t unsupported_format(const zarvel_frame_t* frame) {
  ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
              "[%s] Writing a frame in format [%s] into a tensor is not supported!\n", kHostName,
              zarvel_frame_pixfmt_to_string(frame->format));
  return kUnsupported;
}

// Colour types 0 and 1: three planes in the tensor's channel order.
int32_t write_color(zarvel_tensor_t* tensor, int32_t offset, uint32_t color_type,
                    const zarvel_frame_t* frame, float mean[3], float std[3], float pad[3]) {
  if (color_type == kTensorBgr) {
    std::swap(mean[0], mean[2]);
    std::swap(std[0], std[2]);
    std::swap(pad[0], pad[2]);
  }
  const uint32_t elem = tensor->elem_type;
  if (elem != ZARVEL_ELEM_U8 && elem != ZARVEL_ELEM_F32) return kUnsupported;
  const uint32_t format = frame->format;
  if (format != ZARVEL_PIXFMT_RGB24 && format != ZARVEL_PIXFMT_BGR24) {
    return unsupported_format(frame);
  }

  // Plane 0 takes byte s0 of each pixel, plane 1 byte 1, plane 2 byte s2: the frame's red and
  // blue bytes swap unless its byte order already is the tensor's channel order.
  const bool same_order = (color_type == kTensorRgb && format == ZARVEL_PIXFMT_RGB24) ||
                          (color_type == kTensorBgr && format == ZARVEL_PIXFMT_BGR24);
  const int s0 = same_order ? 0 : 2;
  const int plane_of_byte[3] = {s0 == 0 ? 0 : 2, 1, s0 == 0 ? 2 : 0};
  float byte_mean[3], byte_recip[3];
  for (int k = 0; k < 3; ++k) {
    byte_mean[k] = mean[plane_of_byte[k]];
    byte_recip[k] = 1.0f / std[plane_of_byte[k]];
  }
  const to_tensor::BlockKernels kernels = to_tensor::select_block_kernels();

  auto run = [&](auto zero, auto pad_value, auto row_kernel) -> int32_t {
    using T = decltype(zero);
    Target<T> t;
    const int32_t status = locate(tensor, offset, 3, &t);
    if (status != kOk) return status;
    const T pads[3] = {pad_value(pad[0]), pad_value(pad[1]), pad_value(pad[2])};
    const Region r = clip(frame, t, 3);
    for_each_row(
        frame, t, r,
        [&](const uint8_t* src, int64_t n, int32_t y) {
          T* const dst[3] = {t.plane(plane_of_byte[0]) + y * t.row_stride,
                             t.plane(plane_of_byte[1]) + y * t.row_stride,
                             t.plane(plane_of_byte[2]) + y * t.row_stride};
          row_kernel(src, n, dst);
        },
        [&](int32_t y) {
          for (int c = 0; c < 3; ++c) pad_right(t, c, y, r.w, pads[c]);
        });
    for (int c = 0; c < 3; ++c) pad_bottom(t, c, r.h, pads[c]);
    return kOk;
  };

  if (elem == ZARVEL_ELEM_F32) {
    return run(
        0.0f, [](float p) { return p; },
        [&](const uint8_t* src, int64_t n, float* const dst[3]) {
          to_tensor::packed_f32_row(kernels, src, n, dst, byte_mean, byte_recip);
        });
  }
  // The 8-bit tensor always receives the source bytes (see packed_u8_row_c).
  const bool identity = mean[0] == 0.0f && mean[1] == 0.0f && mean[2] == 0.0f && std[0] == 1.0f &&
                        std[1] == 1.0f && std[2] == 1.0f;
  return run(uint8_t{0}, to_tensor::low_byte_of_trunc,
             [&](const uint8_t* src, int64_t n, uint8_t* const dst[3]) {
               to_tensor::packed_u8_row(kernels, src, n, dst, identity, byte_mean, byte_recip);
             });
}

// Colour type 2: one grey plane from GREY bytes or from the luma of RGB/BGR pixels.
int32_t write_grey(zarvel_tensor_t* tensor, int32_t offset, const zarvel_frame_t* frame, float mean,
                   float std, float pad) {
  const uint32_t elem = tensor->elem_type;
  if (elem != ZARVEL_ELEM_U8 && elem != ZARVEL_ELEM_F32) return kUnsupported;
  const uint32_t format = frame->format;
  if (format != ZARVEL_PIXFMT_GREY && format != ZARVEL_PIXFMT_RGB24 &&
      format != ZARVEL_PIXFMT_BGR24) {
    return unsupported_format(frame);
  }
  const bool grey = format == ZARVEL_PIXFMT_GREY;
  const int r_byte = format == ZARVEL_PIXFMT_RGB24 ? 0 : 2;
  const to_tensor::BlockKernels kernels = to_tensor::select_block_kernels();

  auto run = [&](auto pad_value, auto row_kernel) -> int32_t {
    using T = decltype(pad_value);
    Target<T> t;
    const int32_t status = locate(tensor, offset, 1, &t);
    if (status != kOk) return status;
    const Region r = clip(frame, t, grey ? 1 : 3);
    for_each_row(
        frame, t, r,
        [&](const uint8_t* src, int64_t n, int32_t y) {
          row_kernel(src, n, t.data + y * t.row_stride);
        },
        [&](int32_t y) { pad_right(t, 0, y, r.w, pad_value); });
    pad_bottom(t, 0, r.h, pad_value);
    return kOk;
  };

  if (elem == ZARVEL_ELEM_F32) {
    return run(pad, [&](const uint8_t* src, int64_t n, float* dst) {
      if (grey) {
        to_tensor::grey_f32_row(kernels, src, n, dst, mean, std);
      } else {
        to_tensor::luma_f32_row(kernels, src, n, r_byte, dst, mean, std);
      }
    });
  }
  // 8-bit grey samples are the values themselves; mean and std do not apply.
  return run(to_tensor::low_byte_of_trunc(pad), [&](const uint8_t* src, int64_t n, uint8_t* dst) {
    if (grey) {
      std::memcpy(dst, src, static_cast<size_t>(n));
    } else {
      to_tensor::luma_u8_row(kernels, src, n, r_byte, dst);
    }
  });
}

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
    float m[3] = {mean[0], mean[1], mean[2]};
    float s[3] = {std[0], std[1], std[2]};
    float p[3] = {pad[0], pad[1], pad[2]};
    if (color_type == kTensorGray)
      return write_grey(tensor, offset, source.get(), m[1], s[1], p[1]);
    if (color_type > kTensorGray) return kUnsupported;
    return write_color(tensor, offset, color_type, source.get(), m, s, p);
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
