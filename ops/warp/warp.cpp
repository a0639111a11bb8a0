// zarvel_frame_warpaffine and zarvel_frame_warpperspective: checks, then slot 2 or 3 of the
// Device API table. The caller supplies the output frame; its size is the output size.
#include "ops/warp/warp.h"

#include <zarvel/aux.h>

#include "plugin/device_api.h"
#include "plugin/dispatch.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr const char* kWarpAffine = "zarvel_frame_warpaffine";
constexpr const char* kWarpPerspective = "zarvel_frame_warpperspective";

using WarpSlot = int32_t (*)(zarvel_frame_t*, zarvel_frame_t*, const float*);

int32_t warp_frame(const char* name, zarvel_frame_t* in, zarvel_frame_t* out, const float* matrix,
                   WarpSlot DeviceApi::*slot) {
  if (in == nullptr || out == nullptr || in->plane[0] == nullptr || out->plane[0] == nullptr) {
    return kInvalidArgument;
  }
  if (matrix == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "[%s] The transform matrix is null!\n", name);
    return kInvalidArgument;
  }
  const int32_t status = is_same_frame_fmt_and_memtype(in, out, name);
  if (status != kOk) return status;
  // The output belongs to the caller: it is never freed here, whatever the slot returns.
  zarvel_frame_t* out_slot = out;
  return dispatch_frame_op(name, in, &out_slot, /*output_allocated=*/false,
                           [matrix, slot](zarvel_frame_t* s, zarvel_frame_t* d) {
                             return (host_device_api().*slot)(s, d, matrix);
                           });
}

}  // namespace
}  // namespace zarvel::aux

extern "C" {

ZARVEL_AUX_API int32_t zarvel_frame_warpaffine(zarvel_frame_t* in, zarvel_frame_t* out,
                                               const float* matrix) {
  return zarvel::aux::warp_frame(zarvel::aux::kWarpAffine, in, out, matrix,
                                 &zarvel::aux::DeviceApi::warp_affine);
}

ZARVEL_AUX_API int32_t zarvel_frame_warpperspective(zarvel_frame_t* in, zarvel_frame_t* out,
                                                    const float* matrix) {
  return zarvel::aux::warp_frame(zarvel::aux::kWarpPerspective, in, out, matrix,
                                 &zarvel::aux::DeviceApi::warp_perspective);
}

}  // extern "C"
