#pragma once

// Internal logging macros. Every line starts with "<file>: <function>(<line>) > ";
// the *_THD variants continue with "thd: <thread id> " and the quoted message.
// The journal also gets file, line and function as fields of their own.
// A source file defines `kLogTag` (its tag) before using them.

#include <atomic>
#include <cstddef>
#include <type_traits>

#include <zorvel/platform/SystemLog.h>

namespace zv_client {
namespace platform {
namespace detail {

// The calling thread's id as std::thread::id prints it in hexadecimal
// (logt::thread_id() returns the same text). Formatted once per thread; the
// text lives as long as the thread.
const char* ThreadIdText();

// The level in force (SetLogLevel) as a LogPriority value, or kLevelUnread
// until ZORVEL_LOG_LEVEL has been read.
constexpr int kLevelUnread = -1;
extern std::atomic<int> logLevel;
// Reads ZORVEL_LOG_LEVEL unless SetLogLevel came first; the level in force.
int ReadLogLevel();
// The level ZORVEL_LOG_LEVEL's `text` names; `fallback` for any other text
// and for null.
LogPriority LogLevelFromText(const char* text, LogPriority fallback);

// Whether a line of `priority` is written: one relaxed load, after the first.
inline bool LogWanted(LogPriority priority) {
  int level = logLevel.load(std::memory_order_relaxed);
  if (level == kLevelUnread) level = ReadLogLevel();
  return static_cast<int>(priority) >= level;
}

// LogPrint for the macros below, which have checked LogWanted: the same
// line, and where it was logged (`file` without its folders) for the
// journal's CODE_* fields.
void LogWrite(LogBuffer buffer, LogPriority priority, const char* tag, const char* file, int line, const char* function,
              const char* format, ...) __attribute__((format(printf, 7, 8)));

constexpr std::size_t BasenameOffset(const char* path) {
  std::size_t offset = 0;
  for (std::size_t i = 0; path[i] != '\0'; ++i) {
    if (path[i] == '/') offset = i + 1;
  }
  return offset;
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client

#define ZV_LOG_FILE_ \
  (&__FILE__[std::integral_constant<std::size_t, ::zv_client::platform::detail::BasenameOffset(__FILE__)>::value])

// Below the level, not even the arguments are evaluated. `function` and
// `line` name the operation in the prefix: __func__ and __LINE__, unless a
// helper logs for another.
#define ZV_LOG_SITE_(function, line, buffer, priority, fmt, ...)                                           \
  do {                                                                                                     \
    if (::zv_client::platform::detail::LogWanted(::zv_client::platform::LogPriority::priority)) {          \
      ::zv_client::platform::detail::LogWrite(                                                             \
          ::zv_client::platform::LogBuffer::buffer, ::zv_client::platform::LogPriority::priority, kLogTag, \
          ZV_LOG_FILE_, line, function, "%s: %s(%d) > " fmt, ZV_LOG_FILE_, function, line, ##__VA_ARGS__); \
    }                                                                                                      \
  } while (false)
#define ZV_LOG_AT_(function, buffer, priority, fmt, ...) \
  ZV_LOG_SITE_(function, __LINE__, buffer, priority, fmt, ##__VA_ARGS__)
#define ZV_LOG_(buffer, priority, fmt, ...) ZV_LOG_AT_(__func__, buffer, priority, fmt, ##__VA_ARGS__)

#define ZV_LOGI(fmt, ...) ZV_LOG_(kSystem, kInfo, fmt, ##__VA_ARGS__)
#define ZV_LOGW(fmt, ...) ZV_LOG_(kSystem, kWarning, fmt, ##__VA_ARGS__)
#define ZV_LOGE(fmt, ...) ZV_LOG_(kSystem, kError, fmt, ##__VA_ARGS__)
#define ZV_LOGI_MAIN(fmt, ...) ZV_LOG_(kMain, kInfo, fmt, ##__VA_ARGS__)
#define ZV_LOGI_THD(fmt, ...) ZV_LOGI_THD_AT_(__func__, fmt, ##__VA_ARGS__)
// ZV_LOGI_THD for a helper that logs as the operation `function`.
#define ZV_LOGI_THD_AT_(function, fmt, ...)                                                                  \
  ZV_LOG_AT_(function, kSystem, kInfo, "thd: %s \"" fmt "\"", ::zv_client::platform::detail::ThreadIdText(), \
             ##__VA_ARGS__)
