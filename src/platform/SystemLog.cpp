#include <platform/SystemLog.h>

#include <sys/uio.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
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

#if !defined(ZORVEL_HAVE_SYSTEMD)
int SyslogPriority(LogPriority priority) {
  switch (priority) {
    case LogPriority::kWarning:
      return LOG_WARNING;
    case LogPriority::kError:
      return LOG_ERR;
    case LogPriority::kInfo:
    default:
      return LOG_INFO;
  }
}

const char* BufferName(LogBuffer buffer) { return buffer == LogBuffer::kMain ? "main" : "system"; }
#endif

constexpr char kMessageField[] = "MESSAGE=";
constexpr std::size_t kMessageFieldLength = sizeof kMessageField - 1;

// `entry` is "MESSAGE=<text>". The fields are handed over as they are: no
// printf pass per field, no allocation.
void WriteToSystemLog(LogBuffer buffer, LogPriority priority, const char* tag, const char* entry,
                      std::size_t length) {
#if defined(ZORVEL_HAVE_SYSTEMD)
  static const char* const kPriorityField[] = {"PRIORITY=6", "PRIORITY=4", "PRIORITY=3"};
  const char* priorityField = kPriorityField[priority == LogPriority::kWarning ? 1 : priority == LogPriority::kError ? 2 : 0];
  const char* bufferField = buffer == LogBuffer::kMain ? "ZORVEL_LOG_BUFFER=main" : "ZORVEL_LOG_BUFFER=system";
  char identifier[96];
  const int identifierLength = std::snprintf(identifier, sizeof identifier, "SYSLOG_IDENTIFIER=%s", tag);
  iovec fields[4] = {
      {const_cast<char*>(entry), length},
      {const_cast<char*>(priorityField), std::strlen(priorityField)},
      {identifier, static_cast<std::size_t>(std::min<int>(identifierLength, sizeof identifier - 1))},
      {const_cast<char*>(bufferField), std::strlen(bufferField)},
  };
  sd_journal_sendv(fields, 4);
#else
  (void)length;
  syslog(SyslogPriority(priority) | LOG_USER, "%s[%s]: %s", tag, BufferName(buffer), entry + kMessageFieldLength);
#endif
}

}  // namespace

void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...) {
  // The text is formatted once, behind the journal's field name.
  char stackBuffer[512];
  std::memcpy(stackBuffer, kMessageField, kMessageFieldLength);
  std::string heapBuffer;
  const char* entry = stackBuffer;
  std::size_t length = kMessageFieldLength;

  va_list args;
  va_start(args, format);
  va_list retry;
  va_copy(retry, args);
  const int needed = std::vsnprintf(stackBuffer + kMessageFieldLength, sizeof stackBuffer - kMessageFieldLength,
                                    format, args);
  va_end(args);
  if (needed < 0) {
    heapBuffer = std::string(kMessageField) + format;  // an encoding error: keep at least the format
    entry = heapBuffer.c_str();
    length = heapBuffer.size();
  } else if (static_cast<std::size_t>(needed) >= sizeof stackBuffer - kMessageFieldLength) {
    heapBuffer.resize(kMessageFieldLength + static_cast<std::size_t>(needed) + 1);
    std::memcpy(&heapBuffer[0], kMessageField, kMessageFieldLength);
    std::vsnprintf(&heapBuffer[kMessageFieldLength], static_cast<std::size_t>(needed) + 1, format, retry);
    heapBuffer.resize(kMessageFieldLength + static_cast<std::size_t>(needed));
    entry = heapBuffer.c_str();
    length = heapBuffer.size();
  } else {
    length += static_cast<std::size_t>(needed);
  }
  va_end(retry);

  if (tag == nullptr) tag = "";
  if (const std::shared_ptr<const LogSink> sink = Sink()) {
    (*sink)(buffer, priority, tag, entry + kMessageFieldLength);
  } else {
    WriteToSystemLog(buffer, priority, tag, entry, length);
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

}  // namespace platform
}  // namespace zv_client
