#include "plugin/dispatch.h"

#include "frame_api/frame_api.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {

bool check_even_dimensions(const zarvel_frame_t* frame, const char* name) {
  if (!is_yuv420(frame->format)) return true;
  if (frame->width % 2 == 0 && frame->height % 2 == 0) return true;
  ZA_LOG(ZARVEL_LOG_FAILURE,
         "[%s] Width and height should be even numbers for NV21/12 or YU12, current frame:\n"
         "\twidth: %d\n\theight: %d\n",
         name, frame->width, frame->height);
  return false;
}

int32_t prepare_output(const zarvel_frame_t* src, zarvel_frame_t** dst, Size2D size,
                       const char* name) {
  if (src == nullptr || dst == nullptr) return kInvalidArgument;
  if (!check_even_dimensions(src, name)) return kInvalidArgument;

  const uint32_t src_mem = zarvel_frame_mem_type(src);
  if (*dst == nullptr) {
    // An odd 4:2:0 size is refused before allocating, so that nothing is left in the slot.
    zarvel_frame_t required = *src;
    required.width = size.width;
    required.height = size.height;
    if (!check_even_dimensions(&required, name)) return kInvalidArgument;
    const int32_t default_strides[4] = {0, 0, 0, 0};
    *dst = zarvel_frame_alloc(src_mem, src->format, size.width, size.height, default_strides,
                              src->meta_word1);
    if (*dst == nullptr) return kFailed;
  } else {
    const zarvel_frame_t* given = *dst;
    const uint32_t given_mem = zarvel_frame_mem_type(given);
    if (given_mem != src_mem || given->format != src->format || given->width < size.width ||
        given->height < size.height) {
      ZA_LOG(ZARVEL_LOG_FAILURE,
             "[%s] Required_frame and given_frame not match:\n\treq:\tgiven:\nmem:\t%d\t%d\n"
             "fmt:\t%s\t%s\nwidth:\t%d\t%d\nheight:\t%d\t%d\n",
             name, static_cast<int>(src_mem), static_cast<int>(given_mem),
             zarvel_frame_pixfmt_to_string(src->format),
             zarvel_frame_pixfmt_to_string(given->format), size.width, given->width, size.height,
             given->height);
      return kInvalidArgument;
    }
  }
  return check_even_dimensions(*dst, name) ? kOk : kInvalidArgument;
}

int32_t is_same_frame_fmt_and_memtype(const zarvel_frame_t* required, const zarvel_frame_t* given,
                                      const char* name) {
  const uint32_t required_mem = zarvel_frame_mem_type(required);
  const uint32_t given_mem = zarvel_frame_mem_type(given);
  if (required_mem == given_mem && required->format == given->format) {
    // Both frames are checked, so that each odd one is reported.
    const bool required_even = check_even_dimensions(required, "is_same_frame_fmt_and_memtype");
    const bool given_even = check_even_dimensions(given, "is_same_frame_fmt_and_memtype");
    return required_even && given_even ? kOk : kFailed;
  }
  ZA_LOG(ZARVEL_LOG_FAILURE,
         "[%s] Required_frame and given_frame not match:\n\treq:\tgiven:\nmem:\t%d\t%d\n"
         "fmt:\t%s\t%s\n",
         name, static_cast<int>(required_mem), static_cast<int>(given_mem),
         zarvel_frame_pixfmt_to_string(required->format),
         zarvel_frame_pixfmt_to_string(given->format));
  return kFailed;
}

namespace {

// Do any planes of two host frames overlap in memory? Device frames are processed through
// separate host copies, so their sharing does no harm.
bool shares_pixels(const zarvel_frame_t* a, const zarvel_frame_t* b) {
  if (zarvel_frame_mem_type(a) == ZARVEL_MEM_DEVICE) return false;
  for (uint64_t i = 0; i < a->plane_count && i < 4; ++i) {
    for (uint64_t j = 0; j < b->plane_count && j < 4; ++j) {
      const auto a0 = reinterpret_cast<uintptr_t>(a->plane[i]);
      const auto b0 = reinterpret_cast<uintptr_t>(b->plane[j]);
      if (a0 < b0 + b->plane_size[j] && b0 < a0 + a->plane_size[i]) return true;
    }
  }
  return false;
}

// Frees an output that this operation allocated, leaving the caller's slot null.
void drop_allocated_output(zarvel_frame_t** dst, bool output_allocated) {
  if (output_allocated) zarvel_frame_free(dst);
}

}  // namespace

int32_t dispatch_frame_op(const char* name, zarvel_frame_t* src, zarvel_frame_t** dst,
                          bool output_allocated, SlotRef slot) {
  if (zarvel_frame_mem_type(src) == ZARVEL_MEM_DEVICE) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "No device api found, pls rebuild with specific device on!\n");
  }

  FramePtr host_src;
  FramePtr host_dst;
  int32_t status;
  if (zarvel_frame_mem_type(src) == ZARVEL_MEM_DEVICE) {
    ZA_LOG(ZARVEL_LOG_NOTE, "Device api not support, fallback to CPU - [%s]!\n", name);
    zarvel_frame_t* downloaded_src = nullptr;
    zarvel_frame_t* downloaded_dst = nullptr;
    status = zarvel_frame_download(src, &downloaded_src);
    host_src.reset(downloaded_src);
    if (status == kOk) {
      status = zarvel_frame_download(*dst, &downloaded_dst);
      host_dst.reset(downloaded_dst);
    }
    if (status != kOk) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "Download failed!\n");
    } else {
      status = slot(host_src.get(), host_dst.get());
    }
  } else {
    status = slot(src, *dst);
  }

  if (status == kOk) {
    if (zarvel_frame_mem_type(src) == ZARVEL_MEM_DEVICE) {
      status = zarvel_frame_upload(host_dst.get(), dst);
      host_src.reset();
      host_dst.reset();
      if (status != kOk) {
        ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Upload failed!\n", name);
        drop_allocated_output(dst, output_allocated);
        return status;
      }
    }
    zarvel_frame_t* out = *dst;
    out->meta_word0 = src->meta_word0;
    out->meta_word1 = src->meta_word1;
    // The output's previous attachment is not released here: an output handed in by the
    // caller keeps whatever reference it held.
    out->extra = zarvel_buffer_ref(src->extra);
    return kOk;
  }

  const uint32_t mem = zarvel_frame_mem_type(src);
  if (mem == ZARVEL_MEM_DEVICE) {
    host_src.reset();
    host_dst.reset();
    drop_allocated_output(dst, output_allocated);
  } else if (mem == ZARVEL_MEM_HOST) {
    drop_allocated_output(dst, output_allocated);
  }
  return status;
}

int32_t dispatch_unshared_frame_op(const char* name, const char* doing, zarvel_frame_t* src,
                                   zarvel_frame_t** dst, bool output_allocated, SlotRef slot) {
  if (*dst == nullptr || !shares_pixels(src, *dst)) {
    return dispatch_frame_op(name, src, dst, output_allocated, slot);
  }
  ZA_LOG(ZARVEL_LOG_ADVICE, "[%s] The output shares pixels with the source, %s a copy.\n", name,
         doing);
  FramePtr copy(zarvel_frame_duplicate(src));
  if (!copy) return kFailed;
  return dispatch_frame_op(name, copy.get(), dst, output_allocated, slot);
}

}  // namespace zarvel::aux
