#include <platform/SystemLog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#if defined(ZORVEL_HAVE_SYSTEMD)
#include <systemd/sd-journal.h>
#else
#include <syslog.h>
#endif

namespace zv_client {
namespace platform {
namespace {

struct SinkState {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;  // guarded by mutex; null: the system log
};

// Never destroyed: clients torn down by static destructors at exit still log.
SinkState& State() {
  static SinkState* const state = new SinkState;
  return *state;
}

std::shared_ptr<const LogSink> Sink() {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.sink;
}

int SyslogPriority(LogPriority priority) {
  switch (priority) {
    case LogPriority::kWarning:
      return 4;  // LOG_WARNING
    case LogPriority::kError:
      return 3;  // LOG_ERR
    case LogPriority::kInfo:
    default:
      return 6;  // LOG_INFO
  }
}

const char* BufferName(LogBuffer buffer) { return buffer == LogBuffer::kMain ? "main" : "system"; }

void WriteToSystemLog(LogBuffer buffer, LogPriority priority, const char* tag, const char* text) {
#if defined(ZORVEL_HAVE_SYSTEMD)
  sd_journal_send("MESSAGE=%s", text, "PRIORITY=%d", SyslogPriority(priority), "SYSLOG_IDENTIFIER=%s", tag,
                  "ZORVEL_LOG_BUFFER=%s", BufferName(buffer), nullptr);
#else
  syslog(SyslogPriority(priority) | LOG_USER, "%s[%s]: %s", tag, BufferName(buffer), text);
#endif
}

}  // namespace

void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...) {
  char stackBuffer[512];
  std::string heapBuffer;
  const char* text = stackBuffer;

  va_list args;
  va_start(args, format);
  va_list retry;
  va_copy(retry, args);
  const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
  va_end(args);
  if (needed < 0) {
    text = format;  // an encoding error: keep at least the format
  } else if (static_cast<std::size_t>(needed) >= sizeof stackBuffer) {
    heapBuffer.resize(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(&heapBuffer[0], heapBuffer.size(), format, retry);
    text = heapBuffer.c_str();
  }
  va_end(retry);

  if (tag == nullptr) tag = "";
  if (const std::shared_ptr<const LogSink> sink = Sink()) {
    (*sink)(buffer, priority, tag, text);
  } else {
    WriteToSystemLog(buffer, priority, tag, text);
  }
}

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement;
  if (sink) replacement = std::make_shared<const LogSink>(std::move(sink));
  {
    SinkState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.sink.swap(replacement);
  }
  // `replacement` now holds the previous sink; it is destroyed here, outside
  // the lock, or later by the last thread still running it.
}

}  // namespace platform
}  // namespace zv_client
