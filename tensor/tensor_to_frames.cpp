// zarvel_tensor_to_frames: one batch item of a dense planar tensor back into a new packed
// 8-bit host frame, for inspection. Samples are taken as pixel values (no de-normalisation).
#include <zarvel/aux.h>

#include <new>

#include "frame_api/frame_api.h"
#include "plugin/log.h"
#include "plugin/status.h"
#include "tensor/tensor_color.h"
#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux {
namespace {

constexpr const char* kName = "zarvel_tensor_to_frames";

int64_t sample_size(uint32_t elem_type) {
  switch (elem_type) {
    case ZARVEL_ELEM_F32:
      return 4;
    case ZARVEL_ELEM_U8:
    case ZARVEL_ELEM_S8:
      return 1;
    default:
      return 0;
  }
}

// Channel c of item pixel (x, y) lies at element c * H * W + y * W + x; it becomes byte c of
// frame pixel (x, y). `to_byte` turns one sample into the stored byte.
template <typename T, typename ToByte>
void write_item(const T* item, int32_t channels, zarvel_frame_t* frame, ToByte to_byte) {
  const int64_t width = frame->width;
  const int64_t height = frame->height;
  const int64_t plane = width * height;
  for (int64_t y = 0; y < height; ++y) {
    uint8_t* row = frame->plane[0] + y * frame->stride[0];
    for (int32_t c = 0; c < channels; ++c) {
      const T* samples = item + c * plane + y * width;
      for (int64_t x = 0; x < width; ++x) row[x * channels + c] = to_byte(samples[x]);
    }
  }
}

// Checks the item against the tensor's buffer and the frame's pixel size; these reads and
// writes would otherwise leave the memory they belong to.
bool item_fits(const zarvel_tensor_t* tensor, int64_t index, int64_t elem_size, uint32_t format) {
  const int32_t channels = tensor->shape[1];
  if (index < 0 || index >= tensor->shape[0]) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Batch index %lld is outside the tensor's %d items\n", kName,
           static_cast<long long>(index), tensor->shape[0]);
    return false;
  }
  if (channels > zarvel_frame_pixel_size(format)) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] A tensor of %d channels does not fit %s pixels\n", kName,
           channels, zarvel_frame_pixfmt_to_string(format));
    return false;
  }
  int64_t item = 0, end = 0;
  const bool fits = !__builtin_mul_overflow(int64_t{channels} * tensor->shape[2],
                                            int64_t{tensor->shape[3]}, &item) &&
                    !__builtin_mul_overflow(index + 1, item, &end) &&
                    !__builtin_mul_overflow(end, elem_size, &end) &&
                    end <= zarvel_buffer_size(tensor->buffer);
  if (!fits) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Item %lld of a %dx%dx%dx%d tensor lies outside its data\n",
           kName, static_cast<long long>(index), tensor->shape[0], channels, tensor->shape[2],
           tensor->shape[3]);
  }
  return fits;
}

int32_t tensor_to_frames(const zarvel_tensor_t* tensor, uint32_t color_type, int64_t index,
                         zarvel_frame_t** out) {
  if (tensor == nullptr && out != nullptr) return kTensorArgument;
  if (tensor == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] No tensor given\n", kName);
    return kTensorArgument;
  }
  const int32_t channels = tensor->shape[1];
  const int32_t height = tensor->shape[2];
  const int32_t width = tensor->shape[3];

  uint32_t format = 0;
  switch (color_type) {
    case kTensorBgr:
      format = ZARVEL_PIXFMT_BGR24;
      break;
    case kTensorRgb:
      format = ZARVEL_PIXFMT_RGB24;
      break;
    case kTensorGray:
      format = ZARVEL_PIXFMT_GREY;
      break;
    default:
      ZA_LOG(ZARVEL_LOG_FAILURE, "Not support tensor color type: %d\n",
             static_cast<int>(color_type));
      return kTensorArgument;
  }
  if (out == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] No output frame slot given\n", kName);
    return kTensorArgument;
  }
  const int64_t elem_size = sample_size(tensor->elem_type);
  if (elem_size != 0 && !item_fits(tensor, index, elem_size, format)) return kTensorArgument;

  BufferPtr scratch(zarvel_buffer_alloc(1024, ZARVEL_MEM_HOST));
  FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, width, height, nullptr, 0));
  if (!scratch || !frame) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Cannot allocate a %dx%d frame\n", kName, width, height);
    return kFailed;
  }

  // A device tensor is copied whole into the host scratch buffer and read from there. Reads
  // start at the buffer's first element: like the strides, a view's origin is not applied.
  const zarvel_buffer_t* source = tensor->buffer;
  if (zarvel_tensor_mem_type(tensor) == ZARVEL_MEM_DEVICE) {
    const int32_t status = zarvel_buffer_resize(scratch.get(), zarvel_buffer_size(tensor->buffer));
    if (status != kOk || zarvel_buffer_copy(tensor->buffer, scratch.get()) != kOk) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Cannot copy the device tensor to the host\n", kName);
      return kFailed;
    }
    source = scratch.get();
  }
  const auto* base = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(source));
  const int64_t item = index * channels * height * width;

  switch (tensor->elem_type) {
    case ZARVEL_ELEM_F32:
      write_item(reinterpret_cast<const float*>(base) + item, channels, frame.get(),
                 to_tensor::low_byte_of_trunc);
      break;
    case ZARVEL_ELEM_U8:
    case ZARVEL_ELEM_S8:
      write_item(base + item, channels, frame.get(), [](uint8_t v) { return v; });
      break;
    default:
      // An unknown element type frees the frame and still succeeds: the caller gets null.
      frame.reset();
      ZA_LOG(ZARVEL_LOG_FAILURE, "Not support tensor element type: %d\n",
             static_cast<int>(tensor->elem_type));
      break;
  }
  *out = frame.release();
  return kOk;
}

}  // namespace
}  // namespace zarvel::aux

extern "C" ZARVEL_AUX_API int32_t zarvel_tensor_to_frames(const zarvel_tensor_t* tensor,
                                                          uint32_t color_type, int64_t index,
                                                          zarvel_frame_t** frame) {
  try {
    return zarvel::aux::tensor_to_frames(tensor, color_type, index, frame);
  } catch (const std::bad_alloc&) {
    return zarvel::aux::kFailed;
  }
}
