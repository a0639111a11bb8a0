// Slot 7 of the host Device API: regions of frames, resized, straight into tensor items.
//
// Each job's region is cut row by row as the resampler asks for rows (parts outside the frame
// read 0, as a crop's background), resampled with the same fixed-point arithmetic as the
// frame resize, and every output row goes straight into the item's planes through the
// to-tensor item writer while it is still in cache. No intermediate frame is made, and the
// values are those of crop, resize and to-tensor done one after the other.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "frame_api/frame_api.h"
#include "ops/crop_resize/resample.h"
#include "plugin/log.h"
#include "plugin/status.h"
#include "tensor/resize_job.h"
#include "tensor/tensor_color.h"
#include "tensor/to_tensor.h"

namespace zarvel::aux {
namespace {

constexpr const char* kHostName = "host_transform_to_tensor";
constexpr int32_t kRowSlack = 32;  // readable bytes past a cut row, for whole vector blocks

// Source rows of a region of a host frame; rows and columns outside the frame are 0. Rows that
// must be cut are made in two scratch rows in turn, so the last two rows returned stay valid.
class RegionRows {
 public:
  RegionRows(const zarvel_frame_t* frame, Area2D roi, int32_t pixel_size, uint8_t* scratch0,
             uint8_t* scratch1)
      : frame_(frame), roi_(roi), ps_(pixel_size), rows_{scratch0, scratch1} {
    x0_ = std::max(0, roi.x);
    x1_ = static_cast<int32_t>(std::min<int64_t>(int64_t{roi.x} + roi.width, frame->width));
    inside_columns_ = roi.x >= 0 && int64_t{roi.x} + roi.width <= frame->width;
  }

  // Bytes readable from each row this returns: the row, plus what the frame row has to the
  // right of the region, up to kRowSlack (cut rows live in a buffer with that much slack).
  int64_t readable() const {
    const int64_t row_bytes = int64_t{roi_.width} * ps_;
    const int64_t right = (int64_t{frame_->width} - roi_.x - roi_.width) * ps_;
    return row_bytes + (inside_columns_ ? std::clamp<int64_t>(right, 0, kRowSlack) : kRowSlack);
  }

  // Where row ry lies in the frame, when it is read from there; null when it is cut.
  const uint8_t* address(int32_t ry) const {
    const int64_t fy = int64_t{roi_.y} + ry;
    if (!inside_columns_ || fy < 0 || fy >= frame_->height) return nullptr;
    return frame_->plane[0] + fy * frame_->stride[0] + static_cast<int64_t>(roi_.x) * ps_;
  }

  const uint8_t* operator()(int32_t ry) {
    const int64_t fy = int64_t{roi_.y} + ry;
    const size_t row_bytes = static_cast<size_t>(roi_.width) * ps_;
    const bool outside = fy < 0 || fy >= frame_->height || x1_ <= x0_;
    if (!outside && inside_columns_) {
      return frame_->plane[0] + fy * frame_->stride[0] + static_cast<int64_t>(roi_.x) * ps_;
    }
    uint8_t* row = rows_[next_];
    next_ ^= 1;
    std::memset(row, 0, row_bytes);
    if (!outside) {
      std::memcpy(row + static_cast<size_t>(x0_ - roi_.x) * ps_,
                  frame_->plane[0] + fy * frame_->stride[0] + static_cast<size_t>(x0_) * ps_,
                  static_cast<size_t>(x1_ - x0_) * ps_);
    }
    return row;
  }

 private:
  const zarvel_frame_t* frame_;
  Area2D roi_;
  int32_t ps_;
  uint8_t* rows_[2];
  int next_ = 0;
  int32_t x0_ = 0, x1_ = 0;
  bool inside_columns_ = false;
};

// A host copy of the part of a device frame that the region covers, with the region moved
// accordingly. The region must overlap the frame.
int32_t download_overlap(zarvel_frame_t* frame, Area2D* roi, FramePtr* host) {
  const int32_t x0 = std::max(0, roi->x), y0 = std::max(0, roi->y);
  const auto x1 =
      static_cast<int32_t>(std::min<int64_t>(int64_t{roi->x} + roi->width, frame->width));
  const auto y1 =
      static_cast<int32_t>(std::min<int64_t>(int64_t{roi->y} + roi->height, frame->height));
  if (x1 <= x0 || y1 <= y0) return kInvalidArgument;
  FramePtr view(zarvel_frame_roi(frame, {x0, y0, x1 - x0, y1 - y0}));
  if (!view) return kInvalidArgument;
  zarvel_frame_t* copy = nullptr;
  const int32_t status = zarvel_frame_download(view.get(), &copy);
  host->reset(copy);
  if (status != kOk) return status;
  roi->x -= x0;
  roi->y -= y0;
  return kOk;
}

int32_t run_job(zarvel_tensor_t* tensor, int64_t item, uint32_t color_type, zarvel_frame_t* frame,
                const ResizeJob& job, const float mean[3], const float std[3],
                std::vector<uint8_t>& scratch) {
  Area2D roi = job.roi;
  const Size2D size = job_target_size(job);
  if (roi.width <= 0 || roi.height <= 0 || size.width <= 0 || size.height <= 0) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "[%s] Empty region Area2D{%d, %d, %d, %d} or item size\n",
                kHostName, roi.x, roi.y, roi.width, roi.height);
    return kInvalidArgument;
  }
  const int32_t ps = job.pixel_size;
  FramePtr downloaded;
  const zarvel_frame_t* source = frame;
  if (zarvel_frame_mem_type(frame) == ZARVEL_MEM_DEVICE) {
    const int32_t status = download_overlap(frame, &roi, &downloaded);
    if (status != kOk) return status;
    source = downloaded.get();
  }

  const int32_t H = tensor->shape[2], C = tensor->shape[1], W = tensor->shape[3];
  if (H <= 0 || W <= 0 || C <= 0) return kInvalidArgument;
  // The item's offset is checked for overflow too: strides are caller-writable fields.
  int64_t offset = 0;
  if (item >= tensor->shape[0] || __builtin_mul_overflow(item, tensor->stride[0], &offset)) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE, "[%s] Item %lld lies outside a tensor of batch %d\n", kHostName,
                static_cast<long long>(item), tensor->shape[0]);
    return kFailed;
  }
  ItemWriter writer;
  int32_t status = writer.init(tensor, offset, color_type, job.format, mean, std, job.pad);
  if (status != kOk) return status;

  // Only the part of the resized region that the item holds is computed.
  const int32_t rows = std::min(size.height, H), cols = std::min(size.width, W);
  // Kept per thread: a stream of same-sized frames and regions builds its tables once.
  thread_local resample::PlaneResampler resampler;
  RegionRows region(source, roi, ps, nullptr, nullptr);
  status = resampler.init(roi.width, roi.height, size.width, size.height, ps, region.readable(),
                          cols, rows);
  if (status != kOk) return status;
  // Two cut source rows (with slack for whole vector loads) and one resized row, which the
  // writer turns into tensor samples while it is still in the first-level cache.
  const size_t cut_row = static_cast<size_t>(roi.width) * ps + kRowSlack;
  try {
    scratch.assign(2 * cut_row + static_cast<size_t>(cols) * ps, 0);
  } catch (const std::bad_alloc&) {
    return kFailed;
  }
  uint8_t* resized = scratch.data() + 2 * cut_row;
  region = RegionRows(source, roi, ps, scratch.data(), scratch.data() + cut_row);
  resampler.run(
      region, [&](int32_t) { return resized; }, [&](int32_t dy) { writer.row(dy, resized, cols); },
      [&](int32_t ry) { return region.address(ry); });
  writer.pad_below(rows);
  return kOk;
}

}  // namespace

void fill_resize_job(ResizeJob* job, const zarvel_frame_t* frame, uint32_t color_type,
                     const float* pad, Area2D roi, float scale_y, float scale_x) {
  const int32_t ps = zarvel_frame_pixel_size(frame->format);
  job->plane = frame->plane[0];
  job->format = frame->format;
  job->pixel_size = ps;
  job->height = frame->height;
  job->width = frame->width;
  job->stride = frame->stride[0];
  const bool rgb = frame->format == ZARVEL_PIXFMT_RGB24, bgr = frame->format == ZARVEL_PIXFMT_BGR24;
  const bool in_order = (color_type == kTensorRgb && rgb) || (color_type == kTensorBgr && bgr) ||
                        (color_type == kTensorGray && rgb);
  for (int c = 0; c < 3; ++c) {
    job->src_map[c] = ps == 3 ? (in_order ? c : 2 - c) : 0;
    job->dst_map[c] = rgb ? c : bgr ? 2 - c : 0;
    job->pad[c] = pad[c];
  }
  job->roi = roi;
  job->scale_y = scale_y;
  job->scale_x = scale_x;
}

Size2D job_target_size(const ResizeJob& job) {
  auto target = [](int32_t extent, float scale) -> int32_t {
    const double t = static_cast<double>(extent) / static_cast<double>(scale);
    if (!(t >= 1.0)) return extent > 0 && scale > 0.0f ? 1 : 0;
    return t < 1 << 30 ? static_cast<int32_t>(std::lround(t)) : 0;
  };
  return {target(job.roi.width, job.scale_x), target(job.roi.height, job.scale_y)};
}

int32_t host_transform_to_tensor(zarvel_tensor_t* tensor, uint32_t color_type, int32_t count,
                                 zarvel_frame_t* const* frames, const ResizeJob* jobs,
                                 const float mean[3], const float std[3],
                                 zarvel_buffer_t* /*scratch*/) {
  if (tensor == nullptr || (count > 0 && (frames == nullptr || jobs == nullptr))) {
    return kInvalidArgument;
  }
  std::vector<uint8_t> scratch;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t status = run_job(tensor, i, color_type, frames[i], jobs[i], mean, std, scratch);
    if (status != kOk) return status;
  }
  return kOk;
}

}  // namespace zarvel::aux
