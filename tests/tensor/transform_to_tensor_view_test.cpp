// The fused region-resize path writing into a tensor view: rows and batch items follow the
// parent's strides, items narrower or shorter than the view are padded, and nothing outside
// the view changes. Checked against crop, resize and to-tensor composed into the same view.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"

namespace za = zarvel::aux;

namespace {

std::vector<uint8_t> bytes_of(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return std::vector<uint8_t>(p, p + zarvel_buffer_size(t->buffer));
}

TEST(TransformToTensorView, FusedIntoStridedViewEqualsComposed) {
  std::mt19937 rng(31);
  za::FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_BGR24, 97, 61, nullptr, 0));
  for (int64_t i = 0; i < int64_t{97} * 61 * 3; ++i) frame->plane[0][i] = uint8_t(rng());
  const float mean[3] = {100.0f, 90.5f, 80.0f}, std[3] = {40.0f, 0.75f, 3.0f};
  const float pads[6] = {-2.0f, 7.0f, 300.0f, 0.5f, 1.0f, -1.0f};
  // A region scaled down past the view's size, and one scaled up into part of it.
  const Area2D rois[2] = {{5, 3, 90, 57}, {-3, 40, 9, 30}};
  zarvel_frame_t* frames[2] = {frame.get(), frame.get()};
  const int32_t start[4] = {1, 0, 3, 5}, shape[4] = {2, 3, 17, 21};
  for (uint32_t mask : {0u, ~0u}) {
    za::set_cpu_feature_mask(mask);
    for (uint32_t elem : {ZARVEL_ELEM_F32, ZARVEL_ELEM_U8}) {
      for (int mode : {0, 1}) {
        za::TensorPtr fused(zarvel_tensor_alloc(0, elem, 4, 3, 24, 30));
        za::TensorPtr composed(zarvel_tensor_alloc(0, elem, 4, 3, 24, 30));
        std::memset(zarvel_buffer_raw_pointer(fused->buffer), 0x5A,
                    zarvel_buffer_size(fused->buffer));
        std::memset(zarvel_buffer_raw_pointer(composed->buffer), 0x5A,
                    zarvel_buffer_size(composed->buffer));
        za::TensorPtr view(zarvel_tensor_roi(fused.get(), start, shape));
        za::TensorPtr expected(zarvel_tensor_roi(composed.get(), start, shape));
        ASSERT_TRUE(view && expected);
        zarvel_buffer_t* scratch = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
        float sy[2], sx[2];
        ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(view.get(), 1, 2, frames, rois, mode, mean,
                                                         std, pads, &scratch, sy, sx),
                  0);
        zarvel_buffer_free(&scratch);
        for (int i = 0; i < 2; ++i) {
          const Size2D size = {std::max(1, int(std::lround(double(rois[i].width) / sx[i]))),
                               std::max(1, int(std::lround(double(rois[i].height) / sy[i])))};
          zarvel_frame_t* cut = nullptr;
          ASSERT_EQ(zarvel_frame_crop(frame.get(), &cut, rois[i]), 0);
          za::FramePtr cut_owned(cut);
          zarvel_frame_t* resized = nullptr;
          ASSERT_EQ(zarvel_frame_resize(cut, &resized, size), 0);
          za::FramePtr resized_owned(resized);
          const auto offset =
              static_cast<int32_t>(zarvel_tensor_calc_offset(expected.get(), i, 0, 0, 0));
          ASSERT_EQ(
              zarvel_frame_to_tensor(expected.get(), offset, 1, resized, mean, std, &pads[3 * i]),
              0);
        }
        ASSERT_EQ(bytes_of(fused.get()), bytes_of(composed.get()))
            << "mask " << mask << " elem " << elem << " mode " << mode;
      }
    }
  }
  za::set_cpu_feature_mask(~0u);
}

}  // namespace
