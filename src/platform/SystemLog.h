#pragma once

/// \file
/// \brief The library's log: where its lines go (the systemd journal, or a
/// sink of your own) and which of them are kept.

#include <functional>

#include <zorvel/platform/Export.h>

namespace zv_client {
/// \brief The system log layer and the export macro; the lowest layer.
namespace platform {

/// \brief The log a line belongs to (the journal field ZORVEL_LOG_BUFFER
/// says main or system): kMain or kSystem.
enum class LogBuffer { kMain, kSystem };
/// \brief A line's priority, lowest first (SetLogLevel): kInfo, kWarning,
/// kError.
enum class LogPriority { kInfo, kWarning, kError };

/// \var LogBuffer::kMain
/// The main log.
/// \var LogBuffer::kSystem
/// The system log.
/// \var LogPriority::kInfo
/// Information; the lowest priority.
/// \var LogPriority::kWarning
/// A warning.
/// \var LogPriority::kError
/// An error; the highest priority.

/// \brief Writes one formatted line to the system log (the systemd journal),
/// or to the sink installed with SetLogSink.
///
/// A line below the level (SetLogLevel), or one for the system log while no
/// journal listens, is dropped before it is formatted. The journal gets the
/// line from a thread of the library's, so the caller does not wait for it
/// (for an error line, at most 50 ms); lines that come faster than the
/// journal takes them are dropped, and a later line says how many.
///
/// Where no sink is installed, the environment variable ZORVEL_LOG_TARGET,
/// read once, when the first line is written, says where lines go:
/// "journal" (also when unset) or "stderr", in any case. With "stderr" each
/// line is written to standard error in a single write(2) as
/// "[<priority>] <tag>: <text>" (priority info, warning or error), ending in
/// exactly one newline (newlines that end the text are left out), even when
/// no journal listens. Any other value means the journal, and one line on
/// standard error says that the value was not understood.
///
/// Any thread. A sink runs on the calling thread. Nothing is reported back:
/// a line that cannot be written is dropped.
/// \param buffer the log the line belongs to.
/// \param priority the line's priority.
/// \param tag the line's tag (such as "zorvel.zorvel"); borrowed; null is
///        taken as empty.
/// \param format a printf format, followed by its arguments; borrowed.
ZORVEL_API void LogPrint(LogBuffer buffer, LogPriority priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// \brief Receives every line instead of the system log. `text` is the whole
/// formatted line; both pointers are valid only during the call.
///
/// It runs on the thread that logs the line, which may be any thread of the
/// application or of the library, and on several at once: it must be
/// thread-safe, must not throw and should return quickly.
using LogSink = std::function<void(LogBuffer buffer, LogPriority priority, const char* tag, const char* text)>;

/// \brief Installs `sink`; an empty sink restores the system log.
///
/// Safe while other threads log: a line being written when the sink is
/// replaced goes to either the old or the new sink, and the old sink is
/// destroyed only once no thread is still running it (a sink may even
/// replace itself). Any thread.
/// \param sink stored (moved) by the library until it is replaced.
ZORVEL_API void SetLogSink(LogSink sink);

/// \brief Sets the least priority logged.
///
/// Lines of a priority below `minimum` are dropped before they are
/// formatted, whether they would go to the system log or to a sink: a sink
/// receives what the system log would. Until this is first called, the level
/// comes from the environment variable ZORVEL_LOG_LEVEL, read once, when the
/// first line is logged: "info" (every line), "warning" or "error", in any
/// case; unset or any other value means info. Safe while other threads log;
/// a line being logged meanwhile may still be judged by the previous level.
/// Any thread.
/// \param minimum the least priority kept.
ZORVEL_API void SetLogLevel(LogPriority minimum);

}  // namespace platform
}  // namespace zv_client
