// Captures every message sent to zarvel_log while in scope.
#pragma once

#include <gtest/gtest.h>
#include <zarvel/core.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace zarvel::test {

struct LogMessage {
  uint32_t level;
  std::string tag;
  uint32_t line;
  std::string text;
  bool tag_padded;  // every byte after the tag's text is NUL
};

class LogCapture {
 public:
  LogCapture() { zarvel_log_set_sink(&LogCapture::sink, this); }
  ~LogCapture() { zarvel_log_set_sink(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

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
  struct Expected {
    uint32_t level;
    std::string tag, text;
  };
  void expect(const std::vector<Expected>& want, const std::string& only_tag = "") {
    auto got = messages();
    if (!only_tag.empty()) std::erase_if(got, [&](const auto& m) { return m.tag != only_tag; });
    EXPECT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size() && i < want.size(); ++i) {
      EXPECT_EQ(got[i].level, want[i].level) << got[i].text;
      EXPECT_EQ(got[i].tag, want[i].tag) << got[i].text;
      EXPECT_EQ(got[i].text, want[i].text);
    }
    clear();
  }

 private:
  static void sink(void* user, const zarvel_log_record_t* record, const char* text) {
    auto* self = static_cast<LogCapture*>(user);
    const size_t len = strnlen(record->tag, sizeof record->tag);
    bool padded = true;
    for (size_t i = len; i < sizeof record->tag; ++i) padded = padded && record->tag[i] == '\0';
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back(
        {record->level, std::string(record->tag, len), record->line, text, padded});
  }

  mutable std::mutex mutex_;
  std::vector<LogMessage> messages_;
};

}  // namespace zarvel::test
