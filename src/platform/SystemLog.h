#pragma once

#include <functional>

#include <zorvel/platform/Export.h>

namespace zv_client {
namespace platform {

enum class LogBuffer { kMain, kSystem };
enum class LogPriority { kInfo, kWarning, kError };

// Writes one formatted line to the system log (the systemd journal), or to
// the sink installed with SetLogSink. A line below the level (SetLogLevel),
// or one for the system log while no journal listens, is dropped before it
// is formatted. The journal gets the line from a thread of the library's,
// so the caller does not wait for it (for an error line, at most 50 ms); lines
// that come faster than the journal takes them are dropped, and a later line
// says how many.
ZORVEL_API void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Receives every line instead of the system log. `text` is the whole
// formatted line; both pointers are valid only during the call.
using LogSink = std::function<void(LogBuffer buffer, LogPriority priority, const char* tag, const char* text)>;

// Installs `sink`; an empty sink restores the system log. Safe while other
// threads log: a line being written when the sink is replaced goes to either
// the old or the new sink, and the old sink is destroyed only once no thread
// is still running it (a sink may even replace itself).
ZORVEL_API void SetLogSink(LogSink sink);

// Lines of a priority below `minimum` are dropped before they are formatted,
// whether they would go to the system log or to a sink: a sink receives what
// the system log would. Until this is first called, the level comes from the
// environment variable ZORVEL_LOG_LEVEL, read once, when the first line is
// logged: "info" (every line), "warning" or "error", in any case; unset or
// any other value means info. Safe while other threads log; a line being
// logged meanwhile may still be judged by the previous level.
ZORVEL_API void SetLogLevel(LogPriority minimum);

}  // namespace platform
}  // namespace zv_client
