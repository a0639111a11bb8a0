// zarvel_frame_transform_to_tensor and zarvel_frame_transform_to_tensor_batch: the one-call
// preprocessing paths from frames to a batch tensor.
#include <zarvel/aux.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "frame_api/frame_api.h"
#include "plugin/device_api.h"
#include "plugin/log.h"
#include "plugin/status.h"
#include "tensor/resize_job.h"
#include "tensor/tensor_color.h"

namespace zarvel::aux {
namespace {

constexpr const char* kExport = "zarvel_frame_transform_to_tensor";
constexpr const char* kBatch = "zarvel_frame_transform_to_tensor_batch";
constexpr const char* kInner = "zarvel_resize_to_tensor_inner";
constexpr const char* kInnerOption = "zarvel_resize_to_tensor_inner_with_option";
constexpr float kZeroPad[3] = {0.0f, 0.0f, 0.0f};

const float* item_pad(const float* pads, uint64_t i) {
  return pads != nullptr ? pads + 3 * i : kZeroPad;
}

TensorPtr alloc_like(const zarvel_tensor_t* t, uint32_t mem_type) {
  return TensorPtr(zarvel_tensor_alloc(mem_type, t->elem_type, t->shape[0], t->shape[1],
                                       t->shape[2], t->shape[3]));
}

int64_t batch_stride(const zarvel_tensor_t* tensor) {
  return zarvel_tensor_calc_offset(tensor, 1, 0, 0, 0);
}

// Runs slot 7 on the jobs, through a host tensor when the caller's tensor is on the device.
int32_t resize_to_tensor_inner(zarvel_tensor_t* tensor, uint32_t color_type, uint64_t count,
                               zarvel_frame_t* const* frames, const ResizeJob* jobs,
                               const float mean[3], const float std[3], zarvel_buffer_t* scratch,
                               uint32_t frames_mem) {
  const auto n = static_cast<int32_t>(count);
  const uint32_t tensor_mem = zarvel_tensor_mem_type(tensor);
  if (tensor_mem != ZARVEL_MEM_DEVICE) {
    return host_device_api().transform_to_tensor(tensor, color_type, n, frames, jobs, mean, std,
                                                 scratch);
  }
  if (frames_mem == ZARVEL_MEM_DEVICE) return kUnsupported;
  ZA_LOG(ZARVEL_LOG_ADVICE,
         "[%s] frame memtype: %s, tensor memtype: %s, it is usually easy to accelerate "
         "preprocessing by uploading frames in advance.\n",
         kInner, "host", zarvel_device_get_name());
  TensorPtr host = alloc_like(tensor, ZARVEL_MEM_HOST);
  if (!host) return kHostTensorFailed;
  const int32_t run = host_device_api().transform_to_tensor(host.get(), color_type, n, frames, jobs,
                                                            mean, std, scratch);
  const int32_t copy = zarvel_tensor_copy(host.get(), tensor);
  return run != kOk || copy != kOk ? kFailed : kOk;
}

int32_t plain_resize_path(const TransformToTensorOption& o, zarvel_tensor_t* tensor,
                          uint32_t frames_mem) {
  if (o.frame_count == 0) return kOk;
  if (o.rois == nullptr || o.sizes == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] regions and sizes are required in resize mode\n", kInner);
    return kInvalidArgument;
  }
  std::vector<ResizeJob> jobs;
  try {
    jobs.resize(o.frame_count);
  } catch (const std::bad_alloc&) {
    return kFailed;
  }
  for (uint64_t i = 0; i < o.frame_count; ++i) {
    const Area2D roi = o.rois[i];
    const Size2D size = o.sizes[i];
    fill_resize_job(&jobs[i], o.frames[i], o.color_type, item_pad(o.pads, i), roi,
                    static_cast<float>(roi.height) / static_cast<float>(size.height),
                    static_cast<float>(roi.width) / static_cast<float>(size.width));
  }
  return resize_to_tensor_inner(tensor, o.color_type, o.frame_count, o.frames, jobs.data(), o.mean,
                                o.std, *o.buffer, frames_mem);
}

// Population mean and standard deviation of each channel of a host frame, in R, G, B order.
void channel_statistics(const zarvel_frame_t* f, float mean[3], float std[3]) {
  const int ps = f->format == ZARVEL_PIXFMT_GREY ? 1 : 3;
  double sum[3] = {0, 0, 0}, sq[3] = {0, 0, 0};
  for (int32_t y = 0; y < f->height; ++y) {
    const uint8_t* row = f->plane[0] + static_cast<int64_t>(y) * f->stride[0];
    for (int32_t x = 0; x < f->width; ++x) {
      for (int c = 0; c < ps; ++c) {
        const double v = row[x * ps + c];
        sum[c] += v;
        sq[c] += v * v;
      }
    }
  }
  const double count = static_cast<double>(f->width) * f->height;
  double m[3], s[3];
  for (int c = 0; c < ps; ++c) {
    m[c] = count > 0 ? sum[c] / count : 0.0;
    s[c] = count > 0 ? std::sqrt(std::max(0.0, sq[c] / count - m[c] * m[c])) : 0.0;
  }
  if (ps == 1) {
    for (int c = 1; c < 3; ++c) m[c] = m[0], s[c] = s[0];
  } else if (f->format == ZARVEL_PIXFMT_BGR24) {
    std::swap(m[0], m[2]);
    std::swap(s[0], s[2]);
  }
  for (int c = 0; c < 3; ++c) {
    mean[c] = static_cast<float>(m[c]);
    std[c] = static_cast<float>(s[c]);
  }
}

// A frame of `format` and `size` over the scratch buffer at byte `at`.
FramePtr scratch_frame(zarvel_buffer_t* scratch, int64_t at, uint32_t format, Size2D size) {
  auto* base = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(scratch));
  return FramePtr(zarvel_frame_make(zarvel_buffer_mem_type(scratch), format, base + at, size.width,
                                    size.height, nullptr, nullptr, nullptr, nullptr));
}

int32_t option_resize_path(const TransformToTensorOption& o, zarvel_tensor_t* tensor) {
  const bool histogram = (o.flags & ZARVEL_TRANSFORM_HISTOGRAM) != 0;
  const bool channel_norm = (o.flags & ZARVEL_TRANSFORM_CHANNEL_NORM) != 0;
  if (histogram && o.color_type != kTensorGray) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "histogram only available in [gray] tensor.\n");
    return kInvalidArgument;
  }
  if (o.frame_count == 0) return kOk;
  if (o.rois == nullptr || o.sizes == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] regions and sizes are required in resize mode\n",
           kInnerOption);
    return kInvalidArgument;
  }
  const int64_t stride = batch_stride(tensor);
  for (uint64_t i = 0; i < o.frame_count; ++i) {
    FramePtr view(zarvel_frame_roi(o.frames[i], o.rois[i]));
    if (!view) {
      const Area2D r = o.rois[i];
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] Illegal RoI Area2D{%d, %d, %d, %d} of frame %d\n",
             kInnerOption, r.x, r.y, r.width, r.height, static_cast<int>(i));
      return kInvalidArgument;
    }
    const Size2D size = o.sizes[i];
    const uint32_t format = view->format;
    const int64_t src_bytes = zarvel_frame_inferred_size(format, size.width, size.height, nullptr);
    const int64_t bgr_bytes =
        zarvel_frame_inferred_size(ZARVEL_PIXFMT_BGR24, size.width, size.height, nullptr);
    const int64_t grey_bytes =
        histogram ? zarvel_frame_inferred_size(ZARVEL_PIXFMT_GREY, size.width, size.height, nullptr)
                  : 0;
    const int64_t norm_bytes = channel_norm ? bgr_bytes : 0;
    zarvel_buffer_t* scratch = *o.buffer;
    if (src_bytes < 0 || bgr_bytes < 0 ||
        zarvel_buffer_resize(scratch, src_bytes + bgr_bytes + grey_bytes + norm_bytes + 24) !=
            kOk) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "buffer resize error.\n");
      return kFailed;
    }

    // Each stage writes its result at its own place in the scratch area.
    FramePtr frame = std::move(view);
    int32_t status = kOk;
    if (frame->width != size.width || frame->height != size.height) {
      FramePtr resized = scratch_frame(scratch, 0, format, size);
      zarvel_frame_t* out = resized.get();
      if (!resized || (status = zarvel_frame_resize(frame.get(), &out, size)) != kOk) {
        return resized ? status : kFailed;
      }
      frame = std::move(resized);
    }
    const int64_t grey_at = src_bytes + bgr_bytes;
    if (histogram) {
      if (frame->format != ZARVEL_PIXFMT_GREY) {
        ZA_LOG(ZARVEL_LOG_ADAPT,
               "[HISTOGRAM] requires gray frame, but got [%s]. Convert color first.\n",
               zarvel_frame_pixfmt_to_string(frame->format));
        FramePtr grey = scratch_frame(scratch, src_bytes, ZARVEL_PIXFMT_GREY, size);
        zarvel_frame_t* out = grey.get();
        if (!grey ||
            (status = zarvel_frame_cvt_color(frame.get(), &out, ZARVEL_PIXFMT_GREY)) != kOk) {
          return grey ? status : kFailed;
        }
        frame = std::move(grey);
      }
      FramePtr equalised = scratch_frame(scratch, grey_at, ZARVEL_PIXFMT_GREY, size);
      zarvel_frame_t* out = equalised.get();
      if (!equalised || (status = zarvel_frame_equalize_hist(frame.get(), &out)) != kOk) {
        return equalised ? status : kFailed;
      }
      frame = std::move(equalised);
    }
    float mean[3] = {o.mean[0], o.mean[1], o.mean[2]};
    float std[3] = {o.std[0], o.std[1], o.std[2]};
    if (channel_norm) {
      if (zarvel_frame_mem_type(frame.get()) == ZARVEL_MEM_DEVICE) {
        const char* device = zarvel_device_get_name();
        if (std::strncmp(device, "hidevice", 8) != 0 && std::strncmp(device, "dvdevice", 8) != 0) {
          ZA_LOG(ZARVEL_LOG_FAILURE, "No support channel norm. on device:[%s]\n", device);
          return kUnsupported;
        }
      }
      if (o.color_type == kTensorGray && frame->format != ZARVEL_PIXFMT_GREY) {
        ZA_LOG(ZARVEL_LOG_ADAPT,
               "[CHANNEL_NORM] gray tensor requires gray frame, but got [%s]. Convert color "
               "first.\n",
               zarvel_frame_pixfmt_to_string(frame->format));
        FramePtr grey = scratch_frame(scratch, grey_at + grey_bytes, ZARVEL_PIXFMT_GREY, size);
        zarvel_frame_t* out = grey.get();
        if (!grey ||
            (status = zarvel_frame_cvt_color(frame.get(), &out, ZARVEL_PIXFMT_GREY)) != kOk) {
          return grey ? status : kFailed;
        }
        frame = std::move(grey);
      }
      // The statistics are taken on the host; a device frame is downloaded for them.
      zarvel_frame_t* host = nullptr;
      if (zarvel_frame_mem_type(frame.get()) == ZARVEL_MEM_DEVICE) {
        if (zarvel_frame_download(frame.get(), &host) != kOk) return kFailed;
      }
      FramePtr host_owned(host);
      channel_statistics(host != nullptr ? host : frame.get(), mean, std);
      // The six floats also sit at the end of the scratch area, as the item's parameters.
      auto* tail = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(scratch)) +
                   (zarvel_buffer_size(scratch) - 24);
      if (zarvel_buffer_mem_type(scratch) != ZARVEL_MEM_DEVICE) {
        std::memcpy(tail, mean, 12);
        std::memcpy(tail + 12, std, 12);
      }
    }
    status = check_tensor_color_pairing(frame->format, o.color_type, kInnerOption);
    if (status != kOk) return status;
    status = zarvel_frame_to_tensor(tensor, static_cast<int32_t>(i * stride), o.color_type,
                                    frame.get(), mean, std, item_pad(o.pads, i));
    if (status != kOk) return status;
  }
  return kOk;
}

void warp_stage(const TransformToTensorOption& o, zarvel_tensor_t* tensor, bool affine) {
  const Size2D size = {tensor->shape[3], tensor->shape[2]};
  zarvel_buffer_t* scratch = *o.buffer;
  const int64_t bytes =
      zarvel_frame_inferred_size(ZARVEL_PIXFMT_BGR24, size.width, size.height, nullptr);
  if (bytes < 0 || zarvel_buffer_resize(scratch, bytes) != kOk) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "buffer resize error\n");
    return;
  }
  if (o.frame_count == 0) return;
  FramePtr target = scratch_frame(scratch, 0, o.frames[0]->format, size);
  if (!target) return;
  const int64_t stride = batch_stride(tensor);
  for (uint64_t i = 0; i < o.frame_count; ++i) {
    const float* m = o.matrices + 9 * i;
    if (affine) {
      zarvel_frame_warpaffine(o.frames[i], target.get(), m);
    } else {
      zarvel_frame_warpperspective(o.frames[i], target.get(), m);
    }
    zarvel_frame_to_tensor(tensor, static_cast<int32_t>(i * stride), o.color_type, target.get(),
                           o.mean, o.std, kZeroPad);
  }
}

int32_t transform_to_tensor(const TransformToTensorOption* option) {
  if (option == nullptr || option->tensor == nullptr || option->frames == nullptr ||
      option->buffer == nullptr || *option->buffer == nullptr) {
    return kInvalidArgument;
  }
  const TransformToTensorOption& o = *option;
  for (uint64_t i = 0; i < o.frame_count; ++i) {
    if (o.frames[i] == nullptr) return kInvalidArgument;
  }
  const uint32_t frames_mem = o.frame_count > 0 ? zarvel_frame_mem_type(o.frames[0]) : 0;
  for (uint64_t i = 0; i < o.frame_count; ++i) {
    if (zarvel_frame_mem_type(o.frames[i]) != frames_mem) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] frames' mem type not the same\n", kExport);
      return kInvalidArgument;
    }
    if (check_tensor_color_pairing(o.frames[i]->format, o.color_type, kExport) != kOk) {
      return kInvalidArgument;
    }
  }
  const uint32_t buffer_mem = zarvel_buffer_mem_type(*o.buffer);
  if (buffer_mem != frames_mem) {
    ZA_LOG(ZARVEL_LOG_NOTE,
           "[%s] frame mem type: %s, buffer mem type: %s, reallocate buffer memory.\n", kExport,
           mem_type_name(frames_mem), mem_type_name(buffer_mem));
    zarvel_buffer_free(o.buffer);
    *o.buffer = zarvel_buffer_alloc(1024, frames_mem);
    if (*o.buffer == nullptr) return kFailed;
  }

  SharedTensor work = share_borrowed(o.tensor);
  const bool via_host =
      zarvel_tensor_mem_type(o.tensor) == ZARVEL_MEM_DEVICE && frames_mem == ZARVEL_MEM_HOST;
  if (via_host) {
    ZA_LOG(ZARVEL_LOG_ADVICE,
           "tensor on device,  frame on host, create a host tensor for intermediate process.\n");
    zarvel_tensor_t* host =
        zarvel_tensor_alloc(ZARVEL_MEM_HOST, o.tensor->elem_type, o.tensor->shape[0],
                            o.tensor->shape[1], o.tensor->shape[2], o.tensor->shape[3]);
    if (host == nullptr) return kHostTensorFailed;
    work = share_owned(host);
  }
  // A host working tensor holds the items until the end; then they go to the device tensor.
  auto finish = [&](int32_t status) {
    if (via_host && zarvel_tensor_copy(work.get(), o.tensor) != kOk && status == kOk) {
      status = kFailed;
    }
    return status;
  };

  const uint32_t mode = o.flags & 0xF;
  switch (mode) {
    case ZARVEL_TRANSFORM_NONE: {
      const int64_t stride = batch_stride(work.get());
      for (uint64_t i = 0; i < o.frame_count; ++i) {
        const int32_t status =
            zarvel_frame_to_tensor(work.get(), static_cast<int32_t>(i * stride), o.color_type,
                                   o.frames[i], o.mean, o.std, item_pad(o.pads, i));
        if (status != kOk) return finish(status);
      }
      return finish(kOk);
    }
    case ZARVEL_TRANSFORM_RESIZE:
      if ((o.flags & ~0xFu) == 0) return plain_resize_path(o, o.tensor, frames_mem);
      return finish(option_resize_path(o, work.get()));
    case ZARVEL_TRANSFORM_AFFINE:
    case ZARVEL_TRANSFORM_PERSPECTIVE:
      if (o.matrices == nullptr) return kInvalidArgument;
      warp_stage(o, work.get(), mode == ZARVEL_TRANSFORM_AFFINE);
      return finish(kOk);
    default:
      return kInvalidArgument;
  }
}

int32_t transform_to_tensor_batch(zarvel_tensor_t* tensor, uint32_t color_type,
                                  uint64_t frame_count, zarvel_frame_t* const* frames,
                                  const Area2D* rois, int32_t resize_mode, const float* mean,
                                  const float* std, const float* pads, zarvel_buffer_t** buffer,
                                  float* scale_y, float* scale_x) {
  if (tensor == nullptr || frame_count == 0 ||
      frame_count != static_cast<uint64_t>(std::max(0, tensor->shape[0])) ||
      zarvel_tensor_raw_pointer(tensor) == nullptr || frames == nullptr || rois == nullptr ||
      buffer == nullptr || mean == nullptr || std == nullptr) {
    return kInvalidArgument;
  }
  for (uint64_t i = 0; i < frame_count; ++i) {
    if (frames[i] == nullptr) return kInvalidArgument;
  }
  std::vector<ResizeJob> jobs;
  try {
    jobs.resize(frame_count);
  } catch (const std::bad_alloc&) {
    return kFailed;
  }
  const uint32_t frames_mem = zarvel_frame_mem_type(frames[0]);
  const float W = static_cast<float>(tensor->shape[3]), H = static_cast<float>(tensor->shape[2]);
  for (uint64_t i = 0; i < frame_count; ++i) {
    const zarvel_frame_t* f = frames[i];
    if (zarvel_frame_mem_type(f) != frames_mem) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] input frame list memory type is not homogeneous\n", kBatch);
      return kInvalidArgument;
    }
    const int32_t pairing = check_tensor_color_pairing(f->format, color_type, kBatch);
    if (pairing != kOk) return pairing;
    const Area2D r = rois[i];
    float sy = 0.0f, sx = 0.0f;
    if (resize_mode == 0) {
      sy = sx = std::max(static_cast<float>(r.width) / W, static_cast<float>(r.height) / H);
    } else if (resize_mode == 1) {
      sy = static_cast<float>(r.height) / H;
      sx = static_cast<float>(r.width) / W;
    }
    if (r.x >= f->width || r.y >= f->height || static_cast<int64_t>(r.x) + r.width < 1 ||
        static_cast<int64_t>(r.y) + r.height < 1) {
      ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] invalid roi: {%d, %d, %d, %d}\n", kBatch, r.x, r.y, r.width,
             r.height);
      return kInvalidArgument;
    }
    fill_resize_job(&jobs[i], f, color_type, item_pad(pads, i), r, sy, sx);
    if (scale_y != nullptr) scale_y[i] = sy;
    if (scale_x != nullptr) scale_x[i] = sx;
  }
  if (zarvel_tensor_mem_type(tensor) != ZARVEL_MEM_HOST) return kUnsupported;
  if (*buffer == nullptr || zarvel_buffer_mem_type(*buffer) != frames_mem) {
    zarvel_buffer_free(buffer);
    *buffer = zarvel_buffer_alloc(1024, frames_mem);
    if (*buffer == nullptr) return kFailed;
  }
  if (frames_mem == ZARVEL_MEM_DEVICE) {
    ZA_LOG(ZARVEL_LOG_NOTE,
           "[%s] tensor memory type: %s, frame memory type: %s, download frame. roi frames "
           "downloading maybe cost a lot of time\xEF\xBC\x8Cspace and bandwidth\n",
           kBatch, "host", zarvel_device_get_name());
  }
  const int32_t status =
      host_device_api().transform_to_tensor(tensor, color_type, static_cast<int32_t>(frame_count),
                                            frames, jobs.data(), mean, std, *buffer);
  return status != kOk ? kFailed : kOk;
}

}  // namespace
}  // namespace zarvel::aux

extern "C" {

ZARVEL_AUX_API int32_t zarvel_frame_transform_to_tensor(const TransformToTensorOption* option) {
  return zarvel::aux::transform_to_tensor(option);
}

ZARVEL_AUX_API int32_t zarvel_frame_transform_to_tensor_batch(
    zarvel_tensor_t* tensor, uint32_t color_type, uint64_t frame_count, zarvel_frame_t** frames,
    const Area2D* rois, int32_t resize_mode, const float* mean, const float* std, const float* pads,
    zarvel_buffer_t** buffer, float* scale_y, float* scale_x) {
  return zarvel::aux::transform_to_tensor_batch(tensor, color_type, frame_count, frames, rois,
                                                resize_mode, mean, std, pads, buffer, scale_y,
                                                scale_x);
}

}  // extern "C"
