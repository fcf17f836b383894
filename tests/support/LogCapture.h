#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <platform/SystemLog.h>

namespace zv_client {
namespace testing {

struct LogLine {
  platform::LogBuffer buffer;
  platform::LogPriority priority;
  std::string tag;
  std::string text;  // whole line, "<file>: <function>(<line>) > " prefix included
};

// Collects every library log line while it lives (from any thread) and puts
// the system log back when it goes. Lines are echoed to stderr when
// ZORVEL_TEST_LOG is set. Match messages by substring: the prefix varies.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> Lines(const std::string& substring = "") const;  // those containing `substring`
  std::size_t Count(const std::string& substring) const { return Lines(substring).size(); }
  bool Contains(const std::string& substring) const { return Count(substring) > 0; }
  // Waits until at least `count` lines contain `substring`.
  bool WaitFor(const std::string& substring, std::size_t count = 1,
               std::chrono::milliseconds deadline = std::chrono::seconds(20)) const;
  void Clear();
  // Lines are still taken from the library but dropped, for long runs.
  void SetKeepLines(bool keep);
  std::string Dump() const;  // every line, one a line, for failure messages

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace testing
}  // namespace zv_client
