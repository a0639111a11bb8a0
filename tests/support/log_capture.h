// Captures every message sent to zarvel_log while in scope, and compares them with the
// expected ones.
#pragma once

#include <gtest/gtest.h>
#include <zarvel/core.h>

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace zarvel::test {

struct LogMessage {
  uint32_t level, line;
  std::string tag, text;
  bool tag_padded;  // every byte after the tag's text is NUL
};

// Not copyable (it holds a mutex): the sink points at this object.
class LogCapture {
 public:
  LogCapture() { zarvel_log_set_sink(&LogCapture::sink, this); }
  ~LogCapture() { zarvel_log_set_sink(nullptr, nullptr); }

  std::vector<LogMessage> messages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
  }
  // Expects exactly these {level, tag, text} messages since the last clear, in order (only
  // those with tag `only_tag` when one is given); clears.
  using Expected = std::tuple<uint32_t, std::string, std::string>;
  void expect(const std::vector<Expected>& want, const std::string& only_tag = "") {
    std::vector<Expected> got;
    for (const LogMessage& m : messages())
      if (only_tag.empty() || m.tag == only_tag) got.emplace_back(m.level, m.tag, m.text);
    EXPECT_EQ(got, want);
    clear();
  }

 private:
  static void sink(void* user, const zarvel_log_record_t* record, const char* text) {
    auto* self = static_cast<LogCapture*>(user);
    const size_t len = strnlen(record->tag, sizeof record->tag);
    const std::string tag(record->tag, sizeof record->tag);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back({record->level, record->line, tag.substr(0, len), text,
                               tag.find_first_not_of('\0', len) == std::string::npos});
  }

  mutable std::mutex mutex_;
  std::vector<LogMessage> messages_;
};

// Message checks for the component's log output: each captured message as one line of text
// "<level> <tag> <text>", so a whole sequence compares (and prints) at once.
using LogLines = std::vector<std::string>;

// The messages captured so far, then clears them. A tag not padded with NULs, or a message
// without a source line, shows as "<tag>!" so that it never equals an expected line.
inline LogLines drain(LogCapture& log) {
  LogLines lines;
  for (const LogMessage& m : log.messages())
    lines.push_back(std::to_string(m.level) + " " + m.tag +
                    (m.tag_padded && m.line > 0 ? " " : "! ") + m.text);
  log.clear();
  return lines;
}

// The fallback messages of an operation on device frames.
inline LogLines device_fallback(const std::string& name) {
  return {"4 aux No device api found, pls rebuild with specific device on!\n",
          "0 aux Device api not support, fallback to CPU - [" + name + "]!\n"};
}

}  // namespace zarvel::test
