// Helpers for the operation tests: a scoped processor-feature mask, device copies of frames,
// and the two messages of the host fallback.
#pragma once

#include "frame_api/frame_api.h"
#include "plugin/cpu_features.h"
#include "plugin_test_support.h"

namespace zarvel::test {

// Forces the scalar kernels (mask 0) or allows every variant for the scope.
struct FeatureMask {
  explicit FeatureMask(uint32_t mask) { aux::set_cpu_feature_mask(mask); }
  ~FeatureMask() { aux::set_cpu_feature_mask(~0u); }
};

inline aux::FramePtr to_device(const zarvel_frame_t* host) {
  zarvel_frame_t* dev = nullptr;
  EXPECT_EQ(zarvel_frame_upload(host, &dev), 0);
  return aux::FramePtr(dev);
}
inline aux::FramePtr to_host(const zarvel_frame_t* dev) {
  zarvel_frame_t* host = nullptr;
  EXPECT_EQ(zarvel_frame_download(dev, &host), 0);
  return aux::FramePtr(host);
}

}  // namespace zarvel::test
