#include "support/LogCapture.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "support/Wait.h"

namespace zv_client {
namespace testing {

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<LogLine> lines;  // guarded by mutex
  bool keep = true;            // guarded by mutex
  const bool echo = std::getenv("ZORVEL_TEST_LOG") != nullptr;
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  // The sink shares the state: a line being written while the capture goes
  // away still has somewhere to go.
  platform::SetLogSink(
      [state = state_](platform::LogBuffer buffer, platform::LogPriority priority, const char* tag, const char* text) {
        if (state->echo) std::fprintf(stderr, "[%s] %s\n", tag, text);
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->keep) state->lines.push_back(LogLine{buffer, priority, tag, text});
      });
}

LogCapture::~LogCapture() { platform::SetLogSink({}); }

std::vector<LogLine> LogCapture::Lines(const std::string& substring) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::vector<LogLine> lines;
  for (const LogLine& line : state_->lines) {
    if (line.text.find(substring) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

bool LogCapture::WaitFor(const std::string& substring, std::size_t count, std::chrono::milliseconds deadline) const {
  return WaitUntil([&] { return Count(substring) >= count; }, deadline);
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->lines.clear();
}

void LogCapture::SetKeepLines(bool keep) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->keep = keep;
}

std::string LogCapture::Dump() const {
  std::string text;
  for (const LogLine& line : Lines()) text += "[" + line.tag + "] " + line.text + "\n";
  return text;
}

}  // namespace testing
}  // namespace zv_client
