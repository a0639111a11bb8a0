// Log helper: every message of the component goes through zarvel_log with a fresh record
// carrying level, tag and the call site's line.
#pragma once

#include <zarvel/core.h>
#include <zarvel/frame.h>

#include <cstdint>
#include <cstring>

namespace zarvel::aux {

inline constexpr const char kTagAux[] = "aux";        // exported entry points, shared checks
inline constexpr const char kTagHost[] = "aux.host";  // host device API and its kernels

inline zarvel_log_record_t make_log_record(const char* tag, uint32_t level, uint32_t line) {
  zarvel_log_record_t record;
  record.level = level;
  std::memset(record.tag, 0, sizeof record.tag);
  std::strncpy(record.tag, tag, sizeof record.tag - 1);
  record.line = line;
  return record;
}

// Printable name of a memory type: "host", the device's name, or "unknown".
inline const char* mem_type_name(uint32_t mem_type) {
  if (mem_type == ZARVEL_MEM_HOST) return "host";
  if (mem_type == ZARVEL_MEM_DEVICE) return zarvel_device_get_name();
  return "unknown";
}

}  // namespace zarvel::aux

// The format and its arguments go to zarvel_log unformatted.
#define ZA_LOG_TAGGED(tag, level, ...)                                                   \
  do {                                                                                   \
    const zarvel_log_record_t za_record_ =                                               \
        ::zarvel::aux::make_log_record((tag), (level), static_cast<uint32_t>(__LINE__)); \
    (void)zarvel_log(&za_record_, __VA_ARGS__);                                          \
  } while (0)

#define ZA_LOG(level, ...) ZA_LOG_TAGGED(::zarvel::aux::kTagAux, level, __VA_ARGS__)
#define ZA_HOST_LOG(level, ...) ZA_LOG_TAGGED(::zarvel::aux::kTagHost, level, __VA_ARGS__)
