// Message checks for the component's log output: each captured message as one line of text
// "<level> <tag> <text>", so a whole sequence compares (and prints) at once.
#pragma once

#include "log_capture.h"

namespace zarvel::test {

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
