// Internals shared by the frame library's translation units. Not installed.
#pragma once

#include <zarvel/frame.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// A reference-counted block of host or device memory. Frames and tensors view it; the
// last zarvel_buffer_free() releases the memory (or runs the adopter's release callback).
struct zarvel_buffer {
  enum class Owner : uint8_t {
    kHost,     // aligned operator new, freed by the library
    kDevice,   // device allocation (device_memory.cpp), unmapped by the library
    kAdopted,  // caller memory: release(release_arg) runs when the last reference goes
  };

  std::atomic<int64_t> refs{1};
  uint32_t mem_type = ZARVEL_MEM_HOST;
  Owner owner = Owner::kHost;
  uint8_t* data = nullptr;  // device address for device buffers
  int64_t size = 0;
  void (*release)(void*) = nullptr;
  void* release_arg = nullptr;
};

namespace zarvel::frame_internal {

// ---- logging ----

// Reports a failure through the core logger with the library's tag.
void log_failure(uint32_t line, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
#define ZARVEL_FAIL(...) ::zarvel::frame_internal::log_failure(__LINE__, __VA_ARGS__)

// What the mem_type queries answer for a null record: matches no memory type.
constexpr uint32_t kInvalidMemType = UINT32_MAX;

// No single allocation can be larger than the 47-bit user address space; refusing such sizes
// up front keeps absurd requests (often negative values gone unsigned) away from allocators.
constexpr int64_t kMaxBufferBytes = int64_t{1} << 47;

inline bool valid_mem_type(uint32_t mem_type) {
  return mem_type == ZARVEL_MEM_HOST || mem_type == ZARVEL_MEM_DEVICE;
}

// ---- device memory ----
//
// Device memory lives in a memfd mapped twice: the device address handed out to callers is
// PROT_NONE, so host code touching it faults at once; a second read/write mapping (the
// shadow) is what the library itself uses to move bytes in and out.
namespace device {

// Zero-filled allocation of `size` bytes (0 allowed); returns the device address or null.
void* alloc(size_t size) noexcept;
// Unmaps an allocation; `address` must be a value returned by alloc(). Null is ignored.
void release(void* address) noexcept;
// Shadow address for device bytes [address, address + length), or null unless that whole
// range lies inside one live allocation.
uint8_t* translate(const void* address, size_t length) noexcept;
// True when [address, address + length) touches any live device allocation.
bool overlaps(const void* address, size_t length) noexcept;

}  // namespace device

// Host-accessible address for `length` bytes at `address` in memory of `mem_type`: the
// address itself for host memory, its shadow for device memory; null when unreachable.
uint8_t* host_access(uint32_t mem_type, const void* address, size_t length) noexcept;

// Host-accessible address of the whole buffer (see host_access); null when unreachable.
uint8_t* buffer_host_data(const zarvel_buffer* buffer) noexcept;

// ---- pixel formats ----

struct FormatInfo {
  uint32_t code;
  const char* name;
  int32_t planes;
  int32_t pixel_size;  // bytes per pixel of plane 0
  bool chroma420;      // chroma planes at half width and half height: even sizes only
};

// Null for an unknown format.
const FormatInfo* find_format(uint32_t code) noexcept;

// Visible bytes per row and number of rows of one plane.
struct PlaneShape {
  int64_t row_bytes;
  int64_t rows;
};
PlaneShape plane_shape(const FormatInfo& info, int32_t plane, int32_t width,
                       int32_t height) noexcept;

// Width and height usable for the format: positive, and even for the 4:2:0 formats.
bool valid_size(const FormatInfo& info, int32_t width, int32_t height) noexcept;

// Contiguous plane layout of a frame: planes back to back from offset 0.
struct Layout {
  int32_t planes = 0;
  int32_t stride[4] = {0, 0, 0, 0};
  uint64_t plane_size[4] = {0, 0, 0, 0};
  uint64_t offset[4] = {0, 0, 0, 0};
  uint64_t total = 0;
};

// Computes the layout for a geometry. Zero (or absent) strides take the tight defaults;
// nonzero strides are honoured when they hold a visible row. False on bad arguments or
// when the size does not fit in int64.
bool compute_layout(uint32_t format, int32_t width, int32_t height, const int32_t* strides,
                    Layout* out) noexcept;

}  // namespace zarvel::frame_internal
