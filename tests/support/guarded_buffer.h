// A block whose last byte sits right before an inaccessible page, so that any read or write
// past its end faults at once.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <new>

namespace zarvel::test {

// Not to be copied: the mapping is unmapped once, by its owner.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(size_t size) : size_(size) {
    const size_t page = sysconf(_SC_PAGESIZE), data_bytes = (size + page - 1) / page * page;
    total_ = data_bytes + page;
    void* base = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<uint8_t*>(base);
    mprotect(base_ + data_bytes, page, PROT_NONE);
    data_ = base_ + data_bytes - size;
  }
  ~GuardedBuffer() { munmap(base_, total_); }

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  size_t size_, total_;
  uint8_t *base_, *data_;
};

}  // namespace zarvel::test
