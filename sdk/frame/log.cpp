// Failure reports of the frame library, sent through the core logger.
#include <zarvel/core.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "internal.h"

namespace zarvel::frame_internal {

void log_failure(uint32_t line, const char* fmt, ...) {
  char text[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  zarvel_log_record_t record{};
  record.level = ZARVEL_LOG_FAILURE;
  std::memcpy(record.tag, "zarvel", 6);  // the rest stays NUL
  record.line = line;
  zarvel_log(&record, "%s", text);
}

}  // namespace zarvel::frame_internal
