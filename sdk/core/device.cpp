// The name of the current accelerator device, as printed for memory type 1.
#include <zarvel/core.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <string>

namespace {

constexpr const char* kDefaultName = "zdev";

struct DeviceName {
  std::mutex mutex;
  // Every name ever set is kept, so a pointer returned earlier stays valid for the
  // life of the process even after a rename.
  std::deque<std::string> names;
  const char* current = kDefaultName;
};

DeviceName& device() {
  static DeviceName d;
  return d;
}

}  // namespace

extern "C" const char* zarvel_device_get_name(void) {
  DeviceName& d = device();
  std::lock_guard<std::mutex> lock(d.mutex);
  return d.current;
}

extern "C" void zarvel_device_set_name(const char* name) {
  DeviceName& d = device();
  std::lock_guard<std::mutex> lock(d.mutex);
  if (name == nullptr || *name == '\0') {
    d.current = kDefaultName;
    return;
  }
  for (const std::string& known : d.names) {
    if (known == name) {
      d.current = known.c_str();
      return;
    }
  }
  try {
    d.names.emplace_back(name);
    d.current = d.names.back().c_str();
  } catch (...) {
    // Out of memory: keep the previous name.
  }
}
