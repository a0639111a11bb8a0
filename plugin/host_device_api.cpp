// The host implementation of the Device API table: each slot is its family's host function.
#include "ops/color/color.h"
#include "ops/crop_resize/crop_resize.h"
#include "ops/hist/hist.h"
#include "ops/rotate/rotate.h"
#include "ops/warp/warp.h"
#include "plugin/device_api.h"
#include "tensor/resize_job.h"
#include "tensor/to_tensor.h"

namespace zarvel::aux {

namespace {
constexpr DeviceApi kHostDeviceApi = {
    /*resize=*/host_resize,
    /*rotate=*/host_rotate,
    /*warp_affine=*/host_warp_affine,
    /*warp_perspective=*/host_warp_perspective,
    /*cvt_color=*/host_cvt_color,
    /*equalize_hist=*/host_equalize_hist,
    /*to_tensor=*/host_to_tensor,
    /*transform_to_tensor=*/host_transform_to_tensor,
};
}  // namespace

const DeviceApi& host_device_api() { return kHostDeviceApi; }

}  // namespace zarvel::aux
