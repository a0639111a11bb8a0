// Logging for the whole SDK: one entry point, a replaceable sink, a stderr default.
#include <zarvel/core.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace {

const char* level_name(uint32_t level) {
  switch (level) {
    case ZARVEL_LOG_NOTE:
      return "note";
    case 1:
      return "info";
    case ZARVEL_LOG_ADAPT:
      return "adapt";
    case ZARVEL_LOG_ADVICE:
      return "advice";
    case ZARVEL_LOG_FAILURE:
      return "error";
    default:
      return "log";
  }
}

struct SinkState {
  std::mutex mutex;  // guards sink, user and threshold; held while a message is emitted so
                     // that messages from several threads never interleave
  zarvel_log_sink_t sink = nullptr;
  void* user = nullptr;
  uint32_t threshold = ZARVEL_LOG_ADAPT;
};

SinkState& state() {
  static SinkState s;
  return s;
}

void default_sink(uint32_t threshold, const zarvel_log_record_t* record, const char* text) {
  if (record->level < threshold) return;
  char tag[17];
  std::memcpy(tag, record->tag, 16);
  tag[16] = '\0';
  std::fprintf(stderr, "[%s][%s:%u] %s", level_name(record->level), tag, record->line, text);
  std::fflush(stderr);
}

}  // namespace

extern "C" int32_t zarvel_log(const zarvel_log_record_t* record, const char* fmt, ...) {
  if (record == nullptr || fmt == nullptr) return -1;
  char small[512];
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(small, sizeof small, fmt, args);
  va_end(args);
  if (n < 0) {
    va_end(again);
    return -1;
  }
  std::string large;
  const char* text = small;
  if (static_cast<size_t>(n) >= sizeof small) {
    try {
      large.resize(static_cast<size_t>(n) + 1);
    } catch (...) {
      va_end(again);
      return -1;
    }
    std::vsnprintf(large.data(), large.size(), fmt, again);
    text = large.c_str();
  }
  va_end(again);

  SinkState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.sink != nullptr) {
    s.sink(s.user, record, text);
  } else {
    default_sink(s.threshold, record, text);
  }
  return n;
}

extern "C" void zarvel_log_set_sink(zarvel_log_sink_t sink, void* user) {
  SinkState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sink = sink;
  s.user = sink != nullptr ? user : nullptr;
}

extern "C" void zarvel_log_set_level(uint32_t level) {
  SinkState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.threshold = level;
}
