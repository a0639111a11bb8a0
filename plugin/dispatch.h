// The shared checks of the frame operations and the dispatch of their pixel work to a
// Device API slot, with the fallback from device memory to the host.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>
#include <type_traits>
#include <utility>

namespace zarvel::aux {

// For "NV12", "NV21" and "YU12": width and height must be even. Logs (tag "aux", level 4)
// under `name` and returns false when they are not; every other format passes.
bool check_even_dimensions(const zarvel_frame_t* frame, const char* name);

// Makes *dst ready to receive `size` pixels of src's format and memory type: allocates it
// when the slot holds null, or validates the caller's frame (a larger one is accepted).
// Returns 0, -1 (null argument, mismatch, odd 4:2:0 size) or -4 (allocation failed).
int32_t prepare_output(const zarvel_frame_t* src, zarvel_frame_t** dst, Size2D size,
                       const char* name);

// Same memory type and pixel format, and both frames pass the even-dimension check.
// Returns 0 or -4; sizes are not compared.
int32_t is_same_frame_fmt_and_memtype(const zarvel_frame_t* required, const zarvel_frame_t* given,
                                      const char* name);

// A non-owning reference to a callable `int32_t(zarvel_frame_t* src, zarvel_frame_t* dst)`.
class SlotRef {
 public:
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, SlotRef>>>
  SlotRef(F&& f)  // NOLINT(google-explicit-constructor): built from lambdas at call sites
      : object_(const_cast<void*>(static_cast<const void*>(&f))),
        call_([](void* object, zarvel_frame_t* src, zarvel_frame_t* dst) -> int32_t {
          return (*static_cast<std::remove_reference_t<F>*>(object))(src, dst);
        }) {}
  int32_t operator()(zarvel_frame_t* src, zarvel_frame_t* dst) const {
    return call_(object_, src, dst);
  }

 private:
  void* object_;
  int32_t (*call_)(void*, zarvel_frame_t*, zarvel_frame_t*);
};

// Runs `slot` on src and *dst. Device frames are downloaded, processed on the host and the
// result uploaded into *dst. On success the output inherits src's metadata words and a
// reference to its extra data; on failure an output that the operation allocated
// (`output_allocated`: the slot held null on entry) is freed and *dst set to null.
int32_t dispatch_frame_op(const char* name, zarvel_frame_t* src, zarvel_frame_t** dst,
                          bool output_allocated, SlotRef slot);

// dispatch_frame_op for slots that write output pixels before they have read all of the
// source: when *dst shares pixels with a host source, it runs on a copy of the source instead,
// after the advice "[name] The output shares pixels with the source, <doing> a copy.".
int32_t dispatch_unshared_frame_op(const char* name, const char* doing, zarvel_frame_t* src,
                                   zarvel_frame_t** dst, bool output_allocated, SlotRef slot);

}  // namespace zarvel::aux
