// Frame records: plane geometry over a shared, reference-counted pixel buffer.
#include <cstring>
#include <new>

#include "internal.h"

namespace {

using zarvel::frame_internal::compute_layout;
using zarvel::frame_internal::find_format;
using zarvel::frame_internal::FormatInfo;
using zarvel::frame_internal::host_access;
using zarvel::frame_internal::Layout;
using zarvel::frame_internal::plane_shape;
using zarvel::frame_internal::PlaneShape;
using zarvel::frame_internal::valid_mem_type;
using zarvel::frame_internal::valid_size;

// The record's format when its geometry is sound enough to touch its pixels; null otherwise.
const FormatInfo* checked_format(const zarvel_frame_t* frame) {
  if (frame == nullptr || !valid_mem_type(frame->mem_type)) return nullptr;
  const FormatInfo* info = find_format(frame->format);
  if (info == nullptr || !valid_size(*info, frame->width, frame->height)) return nullptr;
  if (frame->plane_count != static_cast<uint64_t>(info->planes)) return nullptr;
  for (int32_t i = 0; i < info->planes; ++i) {
    const PlaneShape shape = plane_shape(*info, i, frame->width, frame->height);
    if (frame->plane[i] == nullptr || frame->stride[i] < shape.row_bytes) return nullptr;
  }
  return info;
}

// Host-reachable address of plane i, valid over every visible byte of the plane.
uint8_t* plane_access(const zarvel_frame_t& frame, const FormatInfo& info, int32_t i) {
  const PlaneShape shape = plane_shape(info, i, frame.width, frame.height);
  const auto extent = static_cast<size_t>(frame.stride[i] * (shape.rows - 1) + shape.row_bytes);
  return host_access(frame.mem_type, frame.plane[i], extent);
}

// A frame record over the planes of `buffer` laid out as `layout` from its start; takes over
// the caller's reference of the buffer.
void fill_record(zarvel_frame_t* frame, zarvel_buffer* buffer, uint32_t format, int32_t width,
                 int32_t height, const Layout& layout, uint64_t meta_word1) {
  *frame = zarvel_frame_t{};
  frame->mem_type = buffer->mem_type;
  frame->format = format;
  frame->width = width;
  frame->height = height;
  frame->plane_count = static_cast<uint64_t>(layout.planes);
  for (int32_t i = 0; i < layout.planes; ++i) {
    frame->stride[i] = layout.stride[i];
    frame->plane_size[i] = layout.plane_size[i];
    frame->plane[i] = buffer->data + layout.offset[i];
  }
  frame->meta_word1 = meta_word1;
  frame->buffer = buffer;
}

// Copies the visible bytes of every row of every plane; both frames are checked and of the
// same format and size. memmove keeps a copy of a frame onto itself (or onto a view of the
// same rows) well defined.
int32_t copy_pixels(const zarvel_frame_t& src, zarvel_frame_t& dst, const FormatInfo& info) {
  for (int32_t i = 0; i < info.planes; ++i) {
    const uint8_t* from = plane_access(src, info, i);
    uint8_t* to = plane_access(dst, info, i);
    if (from == nullptr || to == nullptr) {
      ZARVEL_FAIL("frame copy: plane %d is not reachable\n", i);
      return ZARVEL_EINVAL;
    }
    const PlaneShape shape = plane_shape(info, i, src.width, src.height);
    for (int64_t row = 0; row < shape.rows; ++row) {
      std::memmove(to + row * dst.stride[i], from + row * src.stride[i],
                   static_cast<size_t>(shape.row_bytes));
    }
  }
  return ZARVEL_OK;
}

// Copies `src` into *dst, first allocating *dst in `target_mem` (default strides, src's meta
// words) when it is null; a given *dst must have src's format and at least its size, in any
// memory type, and receives the pixels in its top-left corner.
// Serves copy, download, upload and duplicate.
int32_t transfer(const zarvel_frame_t* src, zarvel_frame_t** dst, uint32_t target_mem,
                 const char* what) {
  const FormatInfo* info = checked_format(src);
  if (info == nullptr || dst == nullptr) {
    ZARVEL_FAIL("%s: bad source frame or null destination slot\n", what);
    return ZARVEL_EINVAL;
  }
  if (*dst != nullptr) {
    zarvel_frame_t* given = *dst;
    if (checked_format(given) == nullptr || given->format != src->format ||
        given->width < src->width || given->height < src->height) {
      ZARVEL_FAIL("%s: destination is not a %s frame of at least %dx%d\n", what, info->name,
                  src->width,
                  src->height);
      return ZARVEL_EINVAL;
    }
    return copy_pixels(*src, *given, *info);
  }
  zarvel_frame_t* out = zarvel_frame_alloc(target_mem, src->format, src->width, src->height,
                                           nullptr, src->meta_word1);
  if (out == nullptr) return ZARVEL_EFAIL;
  out->meta_word0 = src->meta_word0;
  const int32_t status = copy_pixels(*src, *out, *info);
  if (status != ZARVEL_OK) {
    zarvel_frame_free(&out);
    return status;
  }
  *dst = out;
  return ZARVEL_OK;
}

}  // namespace

extern "C" zarvel_frame_t* zarvel_frame_alloc(uint32_t mem_type, uint32_t format, int32_t width,
                                              int32_t height, const int32_t strides[4],
                                              uint64_t meta_word1) {
  Layout layout;
  if (!valid_mem_type(mem_type) || !compute_layout(format, width, height, strides, &layout)) {
    ZARVEL_FAIL("frame_alloc: bad memory type %u, format %s, size %dx%d or strides\n", mem_type,
                zarvel_frame_pixfmt_to_string(format), width, height);
    return nullptr;
  }
  auto* frame = new (std::nothrow) zarvel_frame_t;
  if (frame == nullptr) return nullptr;
  zarvel_buffer_t* buffer = zarvel_buffer_alloc(static_cast<int64_t>(layout.total), mem_type);
  if (buffer == nullptr) {
    delete frame;
    return nullptr;
  }
  fill_record(frame, buffer, format, width, height, layout, meta_word1);
  return frame;
}

extern "C" zarvel_frame_t* zarvel_frame_make(uint32_t mem_type, uint32_t format, void* data,
                                             int32_t width, int32_t height,
                                             const int32_t strides[4], void* reserved,
                                             void (*release)(void*), void* release_arg) {
  Layout layout;
  if (data == nullptr || !valid_mem_type(mem_type) ||
      !compute_layout(format, width, height, strides, &layout)) {
    ZARVEL_FAIL("frame_make: bad data, memory type %u, format %s, size %dx%d or strides\n",
                mem_type, zarvel_frame_pixfmt_to_string(format), width, height);
    return nullptr;
  }
  // The record first: once the buffer adopts the pixels, failing would run `release`.
  auto* frame = new (std::nothrow) zarvel_frame_t;
  if (frame == nullptr) return nullptr;
  zarvel_buffer_t* buffer =
      zarvel_buffer_make(data, static_cast<int64_t>(layout.total), mem_type, release, release_arg);
  if (buffer == nullptr) {
    delete frame;
    return nullptr;
  }
  fill_record(frame, buffer, format, width, height, layout, 0);
  return frame;
}

extern "C" zarvel_frame_t* zarvel_frame_ref(zarvel_frame_t* frame) {
  if (frame == nullptr) return nullptr;
  auto* copy = new (std::nothrow) zarvel_frame_t(*frame);
  if (copy == nullptr) return nullptr;
  zarvel_buffer_ref(copy->buffer);
  zarvel_buffer_ref(copy->extra);
  return copy;
}

extern "C" zarvel_frame_t* zarvel_frame_roi(zarvel_frame_t* frame, Area2D area) {
  const FormatInfo* info = checked_format(frame);
  const bool inside = area.x >= 0 && area.y >= 0 && area.width > 0 && area.height > 0 &&
                      int64_t{area.x} + area.width <= (info ? frame->width : 0) &&
                      int64_t{area.y} + area.height <= (info ? frame->height : 0);
  const bool aligned =
      info == nullptr || !info->chroma420 ||
      (area.x % 2 == 0 && area.y % 2 == 0 && area.width % 2 == 0 && area.height % 2 == 0);
  if (info == nullptr || !inside || !aligned) {
    ZARVEL_FAIL("frame_roi: region (%d,%d %dx%d) is not a valid region of the frame\n", area.x,
                area.y, area.width, area.height);
    return nullptr;
  }
  auto* view = new (std::nothrow) zarvel_frame_t(*frame);
  if (view == nullptr) return nullptr;
  view->width = area.width;
  view->height = area.height;
  for (int32_t i = 0; i < info->planes; ++i) {
    // Chroma planes of the 4:2:0 formats advance one row per two luma rows; NV12/NV21 rows
    // hold U,V pairs (x bytes up to column x), YU12 chroma rows one sample per two columns.
    const int64_t x_bytes = i == 0              ? int64_t{area.x} * info->pixel_size
                            : info->planes == 2 ? area.x
                                                : area.x / 2;
    const int64_t y_rows = i == 0 ? area.y : area.y / 2;
    view->plane[i] = frame->plane[i] + y_rows * frame->stride[i] + x_bytes;
    const PlaneShape shape = plane_shape(*info, i, area.width, area.height);
    view->plane_size[i] = static_cast<uint64_t>(frame->stride[i]) * shape.rows;
  }
  zarvel_buffer_ref(view->buffer);
  zarvel_buffer_ref(view->extra);
  return view;
}

extern "C" int32_t zarvel_frame_copy(const zarvel_frame_t* src, zarvel_frame_t** dst) {
  return transfer(src, dst, src != nullptr ? src->mem_type : ZARVEL_MEM_HOST, "frame_copy");
}

extern "C" zarvel_frame_t* zarvel_frame_duplicate(const zarvel_frame_t* frame) {
  zarvel_frame_t* out = nullptr;
  if (transfer(frame, &out, frame != nullptr ? frame->mem_type : ZARVEL_MEM_HOST,
               "frame_duplicate") != ZARVEL_OK) {
    return nullptr;
  }
  out->extra = zarvel_buffer_ref(frame->extra);
  return out;
}

extern "C" int32_t zarvel_frame_download(const zarvel_frame_t* dev, zarvel_frame_t** host) {
  return transfer(dev, host, ZARVEL_MEM_HOST, "frame_download");
}

extern "C" int32_t zarvel_frame_upload(const zarvel_frame_t* host, zarvel_frame_t** dev) {
  return transfer(host, dev, ZARVEL_MEM_DEVICE, "frame_upload");
}

extern "C" void zarvel_frame_free(zarvel_frame_t** frame) {
  if (frame == nullptr || *frame == nullptr) return;
  zarvel_frame_t* doomed = *frame;
  *frame = nullptr;
  zarvel_buffer_free(&doomed->buffer);
  zarvel_buffer_free(&doomed->extra);
  delete doomed;
}

extern "C" int32_t zarvel_frame_reset(zarvel_frame_t* frame, int32_t value) {
  const FormatInfo* info = checked_format(frame);
  if (info == nullptr) {
    ZARVEL_FAIL("frame_reset: bad frame\n");
    return ZARVEL_EINVAL;
  }
  for (int32_t i = 0; i < info->planes; ++i) {
    uint8_t* plane = plane_access(*frame, *info, i);
    if (plane == nullptr) {
      ZARVEL_FAIL("frame_reset: plane %d is not reachable\n", i);
      return ZARVEL_EINVAL;
    }
    const PlaneShape shape = plane_shape(*info, i, frame->width, frame->height);
    for (int64_t row = 0; row < shape.rows; ++row) {
      std::memset(plane + row * frame->stride[i], static_cast<uint8_t>(value),
                  static_cast<size_t>(shape.row_bytes));
    }
  }
  return ZARVEL_OK;
}

extern "C" uint32_t zarvel_frame_mem_type(const zarvel_frame_t* frame) {
  return frame != nullptr ? frame->mem_type : zarvel::frame_internal::kInvalidMemType;
}

extern "C" bool zarvel_frame_is_contiguous(const zarvel_frame_t* frame) {
  const FormatInfo* info = checked_format(frame);
  if (info == nullptr) return false;
  for (int32_t i = 0; i < info->planes; ++i) {
    const PlaneShape shape = plane_shape(*info, i, frame->width, frame->height);
    if (frame->stride[i] != shape.row_bytes) return false;
    if (i > 0) {
      const PlaneShape prev = plane_shape(*info, i - 1, frame->width, frame->height);
      if (frame->plane[i] != frame->plane[i - 1] + prev.row_bytes * prev.rows) return false;
    }
  }
  return true;
}
