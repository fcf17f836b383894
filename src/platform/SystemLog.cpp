#include <platform/SystemLog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include <platform/Journal.h>
#include <platform/Log.h>

namespace zv_client {
namespace platform {
namespace {

struct SinkState {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;  // guarded by mutex; null: the system log
  // Whether `sink` is set: lets a line bound for the system log skip the
  // mutex and the shared_ptr copy, which every logging thread would contend on.
  std::atomic<bool> installed{false};
};

// Never destroyed: clients torn down by static destructors at exit still log.
SinkState& State() {
  static SinkState* const state = new SinkState;
  return *state;
}

std::shared_ptr<const LogSink> Sink() {
  SinkState& state = State();
  if (!state.installed.load(std::memory_order_acquire)) return nullptr;
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.sink;
}

}  // namespace

void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...) {
  const std::shared_ptr<const LogSink> sink = Sink();
  // With no journal listening nobody would receive the line: skip even
  // formatting it.
  if (!sink && !detail::JournalReachable()) return;

  char stackBuffer[512];
  std::string heapBuffer;
  const char* text = stackBuffer;
  std::size_t length = 0;

  va_list args;
  va_start(args, format);
  va_list retry;
  va_copy(retry, args);
  const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
  va_end(args);
  if (needed < 0) {
    heapBuffer = format;  // an encoding error: keep at least the format
    text = heapBuffer.c_str();
    length = heapBuffer.size();
  } else if (static_cast<std::size_t>(needed) >= sizeof stackBuffer) {
    heapBuffer.resize(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(&heapBuffer[0], heapBuffer.size(), format, retry);
    heapBuffer.resize(static_cast<std::size_t>(needed));
    text = heapBuffer.c_str();
    length = heapBuffer.size();
  } else {
    length = static_cast<std::size_t>(needed);
  }
  va_end(retry);

  if (tag == nullptr) tag = "";
  if (sink) {
    (*sink)(buffer, priority, tag, text);
  } else {
    detail::JournalSend(buffer, priority, tag, text, length);
  }
}

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement;
  if (sink) replacement = std::make_shared<const LogSink>(std::move(sink));
  {
    SinkState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.installed.store(replacement != nullptr, std::memory_order_release);
    state.sink.swap(replacement);
  }
  // `replacement` now holds the previous sink; it is destroyed here, outside
  // the lock, or later by the last thread still running it.
}

namespace detail {

const char* ThreadIdText() {
  // A thread's id never changes, so it is formatted once per thread.
  thread_local char text[32] = "";
  if (text[0] == '\0') {
    std::ostringstream stream;
    stream.setf(std::ios_base::hex, std::ios_base::basefield);
    stream << std::this_thread::get_id();
    std::snprintf(text, sizeof text, "%s", stream.str().c_str());
  }
  return text;
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
