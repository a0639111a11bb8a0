// Tensors: strided N, C, H, W views over reference-counted buffers.
#include <cstring>
#include <new>

#include "internal.h"

namespace {

using zarvel::frame_internal::buffer_host_data;
using zarvel::frame_internal::valid_mem_type;

// Bytes per element; 0 for an unknown element type.
int64_t elem_size(uint32_t elem_type) {
  switch (elem_type) {
    case ZARVEL_ELEM_S8:
    case ZARVEL_ELEM_U8:
      return 1;
    case ZARVEL_ELEM_F32:
      return 4;
    default:
      return 0;
  }
}

// True when every element of the tensor lies inside its buffer, so that strided access
// through the buffer's host-reachable address stays in bounds.
bool tensor_in_bounds(const zarvel_tensor_t& t) {
  const int64_t size = elem_size(t.elem_type);
  if (size == 0 || t.buffer == nullptr || t.offset < 0) return false;
  int64_t last = t.offset;
  for (int i = 0; i < 4; ++i) {
    if (t.shape[i] <= 0 || t.stride[i] < 0) return false;
    int64_t span = 0;
    if (__builtin_mul_overflow(int64_t{t.shape[i] - 1}, t.stride[i], &span) ||
        __builtin_add_overflow(last, span, &last)) {
      return false;
    }
  }
  int64_t end = 0;
  if (__builtin_add_overflow(last, 1, &end) || __builtin_mul_overflow(end, size, &end)) {
    return false;
  }
  return end <= t.buffer->size;
}

}  // namespace

extern "C" zarvel_tensor_t* zarvel_tensor_alloc(uint32_t mem_type, uint32_t elem_type, int32_t n,
                                                int32_t c, int32_t h, int32_t w) {
  const int64_t size = elem_size(elem_type);
  int64_t count = 1;
  bool ok = valid_mem_type(mem_type) && size != 0;
  for (int32_t dim : {n, c, h, w}) {
    ok = ok && dim > 0 && !__builtin_mul_overflow(count, int64_t{dim}, &count);
  }
  int64_t bytes = 0;
  if (!ok || __builtin_mul_overflow(count, size, &bytes)) {
    ZARVEL_FAIL("tensor_alloc: bad memory type %u, element type %u or shape %dx%dx%dx%d\n",
                mem_type, elem_type, n, c, h, w);
    return nullptr;
  }
  auto* tensor = new (std::nothrow) zarvel_tensor_t{};
  if (tensor == nullptr) return nullptr;
  tensor->buffer = zarvel_buffer_alloc(bytes, mem_type);
  if (tensor->buffer == nullptr) {
    delete tensor;
    return nullptr;
  }
  tensor->elem_type = elem_type;
  tensor->shape[0] = n;
  tensor->shape[1] = c;
  tensor->shape[2] = h;
  tensor->shape[3] = w;
  tensor->stride[3] = 1;
  tensor->stride[2] = w;
  tensor->stride[1] = int64_t{h} * w;
  tensor->stride[0] = int64_t{c} * h * w;
  tensor->offset = 0;
  return tensor;
}

extern "C" void zarvel_tensor_free(zarvel_tensor_t** tensor) {
  if (tensor == nullptr || *tensor == nullptr) return;
  zarvel_tensor_t* doomed = *tensor;
  *tensor = nullptr;
  zarvel_buffer_free(&doomed->buffer);
  delete doomed;
}

extern "C" int32_t zarvel_tensor_copy(const zarvel_tensor_t* src, zarvel_tensor_t* dst) {
  if (src == nullptr || dst == nullptr || src->elem_type != dst->elem_type ||
      std::memcmp(src->shape, dst->shape, sizeof src->shape) != 0 || !tensor_in_bounds(*src) ||
      !tensor_in_bounds(*dst)) {
    ZARVEL_FAIL("tensor_copy: null tensors or different shapes or element types\n");
    return ZARVEL_EINVAL;
  }
  const uint8_t* from = buffer_host_data(src->buffer);
  uint8_t* to = buffer_host_data(dst->buffer);
  if (from == nullptr || to == nullptr) {
    ZARVEL_FAIL("tensor_copy: tensor memory is not reachable\n");
    return ZARVEL_EINVAL;
  }
  const int64_t size = elem_size(src->elem_type);
  // Rows along W move in one piece when both tensors are dense along W.
  const bool dense_rows = src->stride[3] == 1 && dst->stride[3] == 1;
  const int32_t* shape = src->shape;
  for (int32_t n = 0; n < shape[0]; ++n) {
    for (int32_t c = 0; c < shape[1]; ++c) {
      for (int32_t h = 0; h < shape[2]; ++h) {
        const int64_t s =
            src->offset + n * src->stride[0] + c * src->stride[1] + h * src->stride[2];
        const int64_t d =
            dst->offset + n * dst->stride[0] + c * dst->stride[1] + h * dst->stride[2];
        if (dense_rows) {
          std::memmove(to + d * size, from + s * size, static_cast<size_t>(shape[3] * size));
          continue;
        }
        for (int32_t w = 0; w < shape[3]; ++w) {
          std::memmove(to + (d + w * dst->stride[3]) * size, from + (s + w * src->stride[3]) * size,
                       static_cast<size_t>(size));
        }
      }
    }
  }
  return ZARVEL_OK;
}

extern "C" zarvel_tensor_t* zarvel_tensor_roi(zarvel_tensor_t* tensor, const int32_t start[4],
                                              const int32_t shape[4]) {
  bool ok = tensor != nullptr && start != nullptr && shape != nullptr;
  for (int i = 0; ok && i < 4; ++i) {
    ok = start[i] >= 0 && shape[i] > 0 && int64_t{start[i]} + shape[i] <= tensor->shape[i];
  }
  if (!ok) {
    ZARVEL_FAIL("tensor_roi: region is not inside the tensor\n");
    return nullptr;
  }
  auto* view = new (std::nothrow) zarvel_tensor_t(*tensor);
  if (view == nullptr) return nullptr;
  for (int i = 0; i < 4; ++i) {
    view->shape[i] = shape[i];
    view->offset += start[i] * tensor->stride[i];
  }
  zarvel_buffer_ref(view->buffer);
  return view;
}

extern "C" uint32_t zarvel_tensor_mem_type(const zarvel_tensor_t* tensor) {
  return tensor != nullptr ? zarvel_buffer_mem_type(tensor->buffer)
                           : zarvel::frame_internal::kInvalidMemType;
}

extern "C" void* zarvel_tensor_raw_pointer(const zarvel_tensor_t* tensor) {
  if (tensor == nullptr || tensor->buffer == nullptr) return nullptr;
  return tensor->buffer->data + tensor->offset * elem_size(tensor->elem_type);
}

extern "C" void* zarvel_tensor_data_at(const zarvel_tensor_t* tensor, int32_t n, int32_t c,
                                       int32_t h, int32_t w) {
  if (tensor == nullptr || n >= tensor->shape[0] || c >= tensor->shape[1] ||
      h >= tensor->shape[2] || w >= tensor->shape[3]) {
    return nullptr;
  }
  const int64_t offset = zarvel_tensor_calc_offset(tensor, n, c, h, w);
  auto* base = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(tensor));
  if (offset < 0 || base == nullptr) return nullptr;
  return base + offset * elem_size(tensor->elem_type);
}

extern "C" int64_t zarvel_tensor_calc_offset(const zarvel_tensor_t* tensor, int32_t n, int32_t c,
                                             int32_t h, int32_t w) {
  if (tensor == nullptr) return ZARVEL_EINVAL;
  // Each index may equal its dimension: calc_offset(t, 1, 0, 0, 0) is the batch stride of a
  // tensor of one image, and one-past-the-end offsets bound loops.
  const int32_t index[4] = {n, c, h, w};
  int64_t offset = 0;
  for (int i = 0; i < 4; ++i) {
    if (index[i] < 0 || index[i] > tensor->shape[i]) return ZARVEL_EINVAL;
    offset += index[i] * tensor->stride[i];
  }
  return offset;
}
