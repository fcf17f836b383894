#include <zorvel/platform/SystemLog.h>

#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/platform/Journal.h>
#include <zorvel/platform/Log.h>

namespace zv_client {
namespace platform {
namespace {

struct SinkState {
  common::Mutex mutex;
  std::shared_ptr<const LogSink> sink ZV_GUARDED_BY(mutex);  // null: the system log
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
  common::MutexLock lock(state.mutex);
  return state.sink;
}

// "[<priority>] <tag>: <text>" and one newline, in a single write(2) so that
// lines from several threads do not interleave. Newlines that end the text
// are dropped: the line ends with exactly one whatever the text ends with.
void WriteToStderr(LogPriority priority, const char* tag, const char* text, std::size_t length) {
  static const char* const kNames[] = {"info", "warning", "error"};  // by LogPriority
  while (length > 0 && text[length - 1] == '\n') --length;
  std::string line = std::string("[") + kNames[static_cast<int>(priority)] + "] " + tag + ": ";
  line.append(text, length).push_back('\n');
  // Only an interrupted or partial write (a full pipe, a signal) takes more than one.
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t written = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // nowhere to report it
    done += static_cast<std::size_t>(written);
  }
}

enum class Target { kJournal, kStderr };

// ZORVEL_LOG_TARGET, any case: unset or "journal", or "stderr". Anything else
// is said once on stderr, where whoever set it looks.
Target ReadLogTarget() {
  const char* text = std::getenv("ZORVEL_LOG_TARGET");
  if (text == nullptr || strcasecmp(text, "journal") == 0) return Target::kJournal;
  if (strcasecmp(text, "stderr") == 0) return Target::kStderr;
  const std::string why =
      std::string("ZORVEL_LOG_TARGET=") + text + " not understood (journal or stderr): logging to the journal";
  WriteToStderr(LogPriority::kWarning, "zorvel.platform", why.c_str(), why.size());
  return Target::kJournal;
}

// The line is formatted straight after "MESSAGE=": the journal gets it as a
// ready field, a sink or stderr the text after the key.
void Write(LogBuffer buffer, LogPriority priority, const char* tag, const detail::CodeSite& site, const char* format,
           va_list args) {
  // Read on the first line, whether a sink takes it or not, so that a value
  // not understood is reported all the same.
  static const Target target = ReadLogTarget();
  const std::shared_ptr<const LogSink> sink = Sink();
  const bool toStderr = !sink && target == Target::kStderr;
  // With no journal listening nobody would receive the line: skip even
  // formatting it.
  if (!sink && !toStderr && !detail::JournalReachable()) return;

  static constexpr char kKey[] = "MESSAGE=";
  constexpr std::size_t kKeyLength = sizeof kKey - 1;
  char stackBuffer[512];
  std::memcpy(stackBuffer, kKey, kKeyLength);
  std::string heapBuffer;
  const char* field = stackBuffer;
  std::size_t length = 0;

  va_list retry;
  va_copy(retry, args);
  const int needed = std::vsnprintf(stackBuffer + kKeyLength, sizeof stackBuffer - kKeyLength, format, args);
  if (needed < 0) {
    heapBuffer = std::string(kKey) + format;  // an encoding error: keep at least the format
    field = heapBuffer.c_str();
    length = heapBuffer.size() - kKeyLength;
  } else if (static_cast<std::size_t>(needed) >= sizeof stackBuffer - kKeyLength) {
    heapBuffer.assign(kKey);
    heapBuffer.resize(kKeyLength + static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(&heapBuffer[kKeyLength], heapBuffer.size() - kKeyLength, format, retry);
    heapBuffer.pop_back();
    field = heapBuffer.c_str();
    length = static_cast<std::size_t>(needed);
  } else {
    length = static_cast<std::size_t>(needed);
  }
  va_end(retry);

  if (tag == nullptr) tag = "";
  if (sink) {
    (*sink)(buffer, priority, tag, field + kKeyLength);
  } else if (toStderr) {
    WriteToStderr(priority, tag, field + kKeyLength, length);
  } else {
    detail::JournalSend(buffer, priority, tag, site, field, kKeyLength + length);
  }
}

}  // namespace

void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...) {
  if (!detail::LogWanted(priority)) return;
  va_list args;
  va_start(args, format);
  Write(buffer, priority, tag, detail::CodeSite{nullptr, 0, nullptr}, format, args);
  va_end(args);
}

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement;
  if (sink) replacement = std::make_shared<const LogSink>(std::move(sink));
  {
    SinkState& state = State();
    common::MutexLock lock(state.mutex);
    state.installed.store(replacement != nullptr, std::memory_order_release);
    state.sink.swap(replacement);
  }
  // `replacement` now holds the previous sink; it is destroyed here, outside
  // the lock, or later by the last thread still running it.
}

void SetLogLevel(LogPriority minimum) { detail::logLevel.store(static_cast<int>(minimum), std::memory_order_relaxed); }

namespace detail {

// Constant-initialised: right even for lines logged by static constructors.
std::atomic<int> logLevel{kLevelUnread};

int ReadLogLevel() {
  const int fromEnvironment = static_cast<int>(LogLevelFromText(std::getenv("ZORVEL_LOG_LEVEL"), LogPriority::kInfo));
  int level = kLevelUnread;
  // A SetLogLevel that came meanwhile stands.
  return logLevel.compare_exchange_strong(level, fromEnvironment, std::memory_order_relaxed) ? fromEnvironment : level;
}

LogPriority LogLevelFromText(const char* text, LogPriority fallback) {
  if (text == nullptr) return fallback;
  if (strcasecmp(text, "info") == 0) return LogPriority::kInfo;
  if (strcasecmp(text, "warning") == 0) return LogPriority::kWarning;
  if (strcasecmp(text, "error") == 0) return LogPriority::kError;
  return fallback;
}

void LogWrite(LogBuffer buffer, LogPriority priority, const char* tag, const char* file, int line, const char* function,
              const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write(buffer, priority, tag, CodeSite{file, line, function}, format, args);
  va_end(args);
}

const char* ThreadIdText() {
  // A thread's id never changes, so it is formatted once per thread: on the
  // first line of each command thread, also one that nobody receives (the
  // macros pass it before the line is dropped). std::thread::id prints as its
  // pthread_t (libstdc++), in hexadecimal here; snprintf writes the same
  // text without building a stream and its locale on every new thread.
  static_assert(sizeof(pthread_t) <= sizeof(unsigned long), "pthread_t prints as an unsigned long");
  thread_local char text[32] = "";
  if (text[0] == '\0') std::snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(pthread_self()));
  return text;
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
