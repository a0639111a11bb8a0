// Captures every message sent to zarvel_log while in scope.
#pragma once

#include <gtest/gtest.h>
#include <zarvel/core.h>

#include <mutex>
#include <string>
#include <string_view>
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
    const std::string_view rest(record->tag + len, sizeof record->tag - len);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back({record->level, record->line, std::string(record->tag, len), text,
                               rest.find_first_not_of('\0') == rest.npos});
  }

  mutable std::mutex mutex_;
  std::vector<LogMessage> messages_;
};

}  // namespace zarvel::test
