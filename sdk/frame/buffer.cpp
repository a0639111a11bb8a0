// Reference-counted host and device buffers.
#include <cstring>
#include <new>

#include "internal.h"

namespace zarvel::frame_internal {

namespace {

constexpr std::align_val_t kHostAlignment{64};

// Zero-filled storage of `size` bytes in the given memory type; null on failure.
uint8_t* allocate(uint32_t mem_type, int64_t size) {
  if (size > kMaxBufferBytes) return nullptr;
  const auto bytes = static_cast<size_t>(size);
  if (mem_type == ZARVEL_MEM_DEVICE) return static_cast<uint8_t*>(device::alloc(bytes));
  // operator new gives a unique pointer for 0 bytes too, so an empty buffer still has one.
  void* data = ::operator new(bytes, kHostAlignment, std::nothrow);
  if (data == nullptr) {
    ZARVEL_FAIL("host allocation of %zu bytes failed\n", bytes);
    return nullptr;
  }
  std::memset(data, 0, bytes);
  return static_cast<uint8_t*>(data);
}

// Gives the buffer's storage back to whoever provided it.
void dispose_storage(zarvel_buffer& buffer) {
  switch (buffer.owner) {
    case zarvel_buffer::Owner::kHost:
      ::operator delete(buffer.data, kHostAlignment);
      break;
    case zarvel_buffer::Owner::kDevice:
      device::release(buffer.data);
      break;
    case zarvel_buffer::Owner::kAdopted:
      if (buffer.release != nullptr) buffer.release(buffer.release_arg);
      break;
  }
  buffer.data = nullptr;
  buffer.release = nullptr;
  buffer.release_arg = nullptr;
}

}  // namespace

uint8_t* buffer_host_data(const zarvel_buffer* buffer) noexcept {
  if (buffer == nullptr) return nullptr;
  return host_access(buffer->mem_type, buffer->data, static_cast<size_t>(buffer->size));
}

}  // namespace zarvel::frame_internal

using zarvel::frame_internal::buffer_host_data;
using zarvel::frame_internal::kMaxBufferBytes;
using zarvel::frame_internal::valid_mem_type;
namespace device = zarvel::frame_internal::device;

extern "C" zarvel_buffer_t* zarvel_buffer_alloc(int64_t size, uint32_t mem_type) {
  if (size < 0 || !valid_mem_type(mem_type)) {
    ZARVEL_FAIL("buffer_alloc: bad size %lld or memory type %u\n", static_cast<long long>(size),
                mem_type);
    return nullptr;
  }
  auto* buffer = new (std::nothrow) zarvel_buffer;
  if (buffer == nullptr) return nullptr;
  buffer->data = zarvel::frame_internal::allocate(mem_type, size);
  if (buffer->data == nullptr) {
    delete buffer;
    return nullptr;
  }
  buffer->mem_type = mem_type;
  buffer->owner =
      mem_type == ZARVEL_MEM_DEVICE ? zarvel_buffer::Owner::kDevice : zarvel_buffer::Owner::kHost;
  buffer->size = size;
  return buffer;
}

extern "C" zarvel_buffer_t* zarvel_buffer_make(void* data, int64_t size, uint32_t mem_type,
                                               void (*release)(void*), void* release_arg) {
  if (data == nullptr || size < 0 || size > kMaxBufferBytes || !valid_mem_type(mem_type)) {
    ZARVEL_FAIL("buffer_make: bad data, size %lld or memory type %u\n",
                static_cast<long long>(size), mem_type);
    return nullptr;
  }
  // Device memory must come from the library's device allocator so that transfers can reach
  // it; host memory must not be device memory, which the host cannot touch.
  const auto bytes = static_cast<size_t>(size);
  const bool reachable = mem_type == ZARVEL_MEM_DEVICE ? device::translate(data, bytes) != nullptr
                                                       : !device::overlaps(data, bytes);
  if (!reachable) {
    ZARVEL_FAIL("buffer_make: %lld bytes at %p are not %s memory\n", static_cast<long long>(size),
                data, mem_type == ZARVEL_MEM_DEVICE ? "device" : "host");
    return nullptr;
  }
  auto* buffer = new (std::nothrow) zarvel_buffer;
  if (buffer == nullptr) return nullptr;
  buffer->mem_type = mem_type;
  buffer->owner = zarvel_buffer::Owner::kAdopted;
  buffer->data = static_cast<uint8_t*>(data);
  buffer->size = size;
  buffer->release = release;
  buffer->release_arg = release_arg;
  return buffer;
}

extern "C" int32_t zarvel_buffer_copy(const zarvel_buffer_t* src, zarvel_buffer_t* dst) {
  if (src == nullptr || dst == nullptr || dst->size < src->size) {
    ZARVEL_FAIL("buffer_copy: null buffer or destination too small\n");
    return ZARVEL_EINVAL;
  }
  if (src->size == 0) return ZARVEL_OK;
  const uint8_t* from = buffer_host_data(src);
  uint8_t* to = buffer_host_data(dst);
  if (from == nullptr || to == nullptr) {
    ZARVEL_FAIL("buffer_copy: buffer memory is not reachable\n");
    return ZARVEL_EINVAL;
  }
  // The two buffers may view overlapping memory (one adopted from inside the other).
  std::memmove(to, from, static_cast<size_t>(src->size));
  return ZARVEL_OK;
}

extern "C" int64_t zarvel_buffer_size(const zarvel_buffer_t* buffer) {
  return buffer != nullptr ? buffer->size : ZARVEL_EINVAL;
}

extern "C" int32_t zarvel_buffer_resize(zarvel_buffer_t* buffer, int64_t size) {
  if (buffer == nullptr || size < 0) {
    ZARVEL_FAIL("buffer_resize: null buffer or negative size\n");
    return ZARVEL_EINVAL;
  }
  // Shrinking keeps the storage; only the visible size changes.
  if (size <= buffer->size) {
    buffer->size = size;
    return ZARVEL_OK;
  }
  // Growing moves into new zeroed library storage of the same memory type.
  uint8_t* grown = zarvel::frame_internal::allocate(buffer->mem_type, size);
  if (grown == nullptr) return ZARVEL_EFAIL;
  const uint8_t* from = buffer_host_data(buffer);
  uint8_t* to =
      zarvel::frame_internal::host_access(buffer->mem_type, grown, static_cast<size_t>(size));
  if (from == nullptr || to == nullptr) {
    zarvel_buffer moved;  // disposes of `grown` through the usual path
    moved.owner = buffer->mem_type == ZARVEL_MEM_DEVICE ? zarvel_buffer::Owner::kDevice
                                                        : zarvel_buffer::Owner::kHost;
    moved.data = grown;
    zarvel::frame_internal::dispose_storage(moved);
    ZARVEL_FAIL("buffer_resize: buffer memory is not reachable\n");
    return ZARVEL_EINVAL;
  }
  if (buffer->size > 0) std::memcpy(to, from, static_cast<size_t>(buffer->size));
  zarvel::frame_internal::dispose_storage(*buffer);
  buffer->owner = buffer->mem_type == ZARVEL_MEM_DEVICE ? zarvel_buffer::Owner::kDevice
                                                        : zarvel_buffer::Owner::kHost;
  buffer->data = grown;
  buffer->size = size;
  return ZARVEL_OK;
}

extern "C" void* zarvel_buffer_raw_pointer(const zarvel_buffer_t* buffer) {
  return buffer != nullptr ? buffer->data : nullptr;
}

extern "C" uint32_t zarvel_buffer_mem_type(const zarvel_buffer_t* buffer) {
  return buffer != nullptr ? buffer->mem_type : zarvel::frame_internal::kInvalidMemType;
}

extern "C" int32_t zarvel_buffer_set(zarvel_buffer_t* buffer, int32_t value) {
  if (buffer == nullptr) return ZARVEL_EINVAL;
  if (buffer->size == 0) return ZARVEL_OK;
  uint8_t* data = buffer_host_data(buffer);
  if (data == nullptr) {
    ZARVEL_FAIL("buffer_set: buffer memory is not reachable\n");
    return ZARVEL_EINVAL;
  }
  std::memset(data, static_cast<uint8_t>(value), static_cast<size_t>(buffer->size));
  return ZARVEL_OK;
}

extern "C" zarvel_buffer_t* zarvel_buffer_ref(zarvel_buffer_t* buffer) {
  if (buffer != nullptr) buffer->refs.fetch_add(1, std::memory_order_relaxed);
  return buffer;
}

extern "C" void zarvel_buffer_free(zarvel_buffer_t** buffer) {
  if (buffer == nullptr || *buffer == nullptr) return;
  zarvel_buffer* doomed = *buffer;
  *buffer = nullptr;
  // acq_rel: every holder's writes happen before the storage is released.
  if (doomed->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  zarvel::frame_internal::dispose_storage(*doomed);
  delete doomed;
}
