#pragma once

#include <functional>

#include <platform/Export.h>

namespace zv_client {
namespace platform {

enum class LogBuffer { kMain, kSystem };
enum class LogPriority { kInfo, kWarning, kError };

// Writes one formatted line to the system log (the systemd journal), or to
// the sink installed with SetLogSink. Without a sink and with no journal
// listening, the line is dropped before it is formatted.
ZORVEL_API void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag,
                         const char* format, ...) __attribute__((format(printf, 4, 5)));

// Receives every line instead of the system log. `text` is the whole
// formatted line; both pointers are valid only during the call.
using LogSink =
    std::function<void(LogBuffer buffer, LogPriority priority, const char* tag, const char* text)>;

// Installs `sink`; an empty sink restores the system log. Safe while other
// threads log: a line being written when the sink is replaced goes to either
// the old or the new sink, and the old sink is destroyed only once no thread
// is still running it (a sink may even replace itself).
ZORVEL_API void SetLogSink(LogSink sink);

}  // namespace platform
}  // namespace zv_client
