// Status codes returned by every operation of the component.
#pragma once

#include <cstdint>

namespace zarvel::aux {

inline constexpr int32_t kOk = 0;
inline constexpr int32_t kInvalidArgument = -1;   // null pointer, mismatched output, odd 4:2:0 size
inline constexpr int32_t kHostTensorFailed = -3;  // intermediate host tensor not allocated
inline constexpr int32_t kFailed = -4;            // resource or underlying operation failed
inline constexpr int32_t kUnsupported = -1000;    // format, type, memory type or request
inline constexpr int32_t kTensorArgument = 75;    // refused argument of tensor-to-frames

}  // namespace zarvel::aux
