// Device memory (memory type 1). Each allocation is a memfd mapped twice: a PROT_NONE
// mapping whose addresses are handed out as device addresses, so that host code touching
// device memory faults at once instead of silently working, and a read/write shadow mapping
// that only the library's own transfers use. A registry maps device ranges to shadows.
#include <sys/mman.h>
#include <unistd.h>
#include <zarvel/core.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "internal.h"

namespace zarvel::frame_internal::device {

namespace {

struct Allocation {
  size_t size;    // bytes requested: the valid device range
  size_t mapped;  // bytes mapped in each of the two views (whole pages, at least one)
  uint8_t* shadow;
};

struct Registry {
  std::mutex mutex;
  std::map<uintptr_t, Allocation> allocations;  // keyed by device base address
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: frames may outlive static teardown
  return *r;
}

// The allocation containing `address`, or end(). Caller holds the mutex.
std::map<uintptr_t, Allocation>::iterator find_locked(Registry& r, uintptr_t address) {
  auto it = r.allocations.upper_bound(address);
  if (it == r.allocations.begin()) return r.allocations.end();
  --it;
  if (address - it->first >= it->second.mapped) return r.allocations.end();
  return it;
}

size_t page_rounded(size_t size) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (size == 0) return page;
  if (size > SIZE_MAX - page) return 0;
  return (size + page - 1) / page * page;
}

}  // namespace

void* alloc(size_t size) noexcept {
  const size_t mapped = page_rounded(size);
  if (mapped == 0 || mapped > static_cast<size_t>(INT64_MAX)) return nullptr;
  const int fd = memfd_create("zarvel-device", MFD_CLOEXEC);
  if (fd < 0) {
    ZARVEL_FAIL("%s: cannot create device memory: %s\n", zarvel_device_get_name(),
                std::strerror(errno));
    return nullptr;
  }
  void* device = MAP_FAILED;
  void* shadow = MAP_FAILED;
  if (ftruncate(fd, static_cast<off_t>(mapped)) == 0) {
    device = mmap(nullptr, mapped, PROT_NONE, MAP_SHARED, fd, 0);
    shadow = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  const int saved_errno = errno;
  close(fd);  // the mappings keep the memory alive
  if (device != MAP_FAILED && shadow != MAP_FAILED) {
    try {
      Registry& r = registry();
      std::lock_guard<std::mutex> lock(r.mutex);
      r.allocations.emplace(reinterpret_cast<uintptr_t>(device),
                            Allocation{size, mapped, static_cast<uint8_t*>(shadow)});
      return device;
    } catch (...) {
    }
  }
  if (device != MAP_FAILED) munmap(device, mapped);
  if (shadow != MAP_FAILED) munmap(shadow, mapped);
  ZARVEL_FAIL("%s: device allocation of %zu bytes failed: %s\n", zarvel_device_get_name(), size,
              std::strerror(saved_errno));
  return nullptr;
}

void release(void* address) noexcept {
  if (address == nullptr) return;
  Allocation allocation{};
  try {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.allocations.find(reinterpret_cast<uintptr_t>(address));
    if (it == r.allocations.end()) return;
    allocation = it->second;
    r.allocations.erase(it);
  } catch (...) {
    return;
  }
  munmap(address, allocation.mapped);
  munmap(allocation.shadow, allocation.mapped);
}

uint8_t* translate(const void* address, size_t length) noexcept {
  if (address == nullptr) return nullptr;
  const auto begin = reinterpret_cast<uintptr_t>(address);
  try {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = find_locked(r, begin);
    if (it == r.allocations.end()) return nullptr;
    const size_t start = begin - it->first;
    if (start > it->second.size || length > it->second.size - start) return nullptr;
    return it->second.shadow + start;
  } catch (...) {
    return nullptr;
  }
}

bool overlaps(const void* address, size_t length) noexcept {
  if (address == nullptr) return false;
  const auto begin = reinterpret_cast<uintptr_t>(address);
  const uintptr_t end = length > UINTPTR_MAX - begin ? UINTPTR_MAX : begin + length;
  try {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    // The first allocation starting at or after `end` cannot overlap; check the one before.
    auto it = r.allocations.lower_bound(end == begin ? end + 1 : end);
    if (it == r.allocations.begin()) return false;
    --it;
    return it->first + it->second.mapped > begin;
  } catch (...) {
    return false;
  }
}

}  // namespace zarvel::frame_internal::device

namespace zarvel::frame_internal {

uint8_t* host_access(uint32_t mem_type, const void* address, size_t length) noexcept {
  if (address == nullptr) return nullptr;
  if (mem_type == ZARVEL_MEM_HOST) return static_cast<uint8_t*>(const_cast<void*>(address));
  if (mem_type == ZARVEL_MEM_DEVICE) return device::translate(address, length);
  return nullptr;
}

}  // namespace zarvel::frame_internal
