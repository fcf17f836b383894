#include "support/LogCapture.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <zorvel/platform/SystemLog.h>

namespace zv_client {
namespace testing {

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<std::string> lines;  // guarded by mutex
  bool keep = true;                // guarded by mutex
  const bool echo = std::getenv("ZORVEL_TEST_LOG") != nullptr;
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  // The sink shares the state: a line being written while the capture goes
  // away still has somewhere to go.
  platform::SetLogSink([state = state_](platform::LogBuffer, platform::LogPriority, const char* tag, const char* text) {
    std::string line = std::string("[") + tag + "] " + text;
    if (state->echo) std::fprintf(stderr, "%s\n", line.c_str());
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->keep) state->lines.push_back(std::move(line));
  });
}

LogCapture::~LogCapture() { platform::SetLogSink({}); }

void LogCapture::SetKeepLines(bool keep) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->keep = keep;
}

std::string LogCapture::Dump() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::string text;
  for (const std::string& line : state_->lines) text += line + "\n";
  return text;
}

}  // namespace testing
}  // namespace zv_client
