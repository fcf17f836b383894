#pragma once

// The systemd journal as the log's default output, through libsystemd.
// Internal: not installed, not exported.

#include <cstddef>

#include <zorvel/platform/SystemLog.h>

namespace zv_client {
namespace platform {
namespace detail {

// Where a line was logged: file name without its folders, line, function.
// All null (and 0) for lines that come without one.
struct CodeSite {
  const char* file;
  int line;
  const char* function;
};

// Whether an entry sent now would find a journal listening. The answer is
// looked up again at most every 250 ms (and at the next line after a failed
// send) and costs a clock read in between, so a caller can skip even
// formatting a line nobody would receive.
bool JournalReachable();

// Sends one entry: `message` is the MESSAGE field, "MESSAGE=" included
// (`length` bytes, any bytes), then PRIORITY (6, 4 or 3), SYSLOG_IDENTIFIER
// (`tag`), ZORVEL_LOG_BUFFER (main or system) and, when known, CODE_FILE,
// CODE_LINE and CODE_FUNC. Dropped silently when the journal refuses it.
// Thread-safe. A writer thread sends the entry (the caller, if no thread can
// be started), so the caller does not wait for the journal: an error entry
// waits at most 50 ms for it and the entries before it to be sent. The
// writer sends entries in batches, each about 1 ms after its first entry
// (an error entry at once), so a burst of entries costs the threads that
// write them no wake-up of the writer beyond the first. Entries
// that find 8,192 waiting are dropped; once the journal takes entries again,
// an info entry tagged zorvel.platform says how many. At exit, queued
// entries get at most 1 s to be sent.
void JournalSend(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
                 std::size_t length);

// Builds the writer of JournalSend. Its drain at exit is registered then, and
// so runs after the destructors of statics built after this call.
void PrepareJournalWriter();

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
