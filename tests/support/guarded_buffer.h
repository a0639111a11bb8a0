// A block whose last byte sits right before an inaccessible page, so that any read or write
// past its end faults at once.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace zarvel::test {

class GuardedBuffer {
 public:
  explicit GuardedBuffer(size_t size) : size_(size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t data_pages = (size + page - 1) / page;
    total_ = (data_pages + 1) * page;
    void* base = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return;
    base_ = static_cast<uint8_t*>(base);
    mprotect(base_ + data_pages * page, page, PROT_NONE);
    data_ = base_ + data_pages * page - size;
  }
  ~GuardedBuffer() {
    if (base_ != nullptr) munmap(base_, total_);
  }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  size_t size_;
  size_t total_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

}  // namespace zarvel::test
