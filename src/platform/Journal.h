#pragma once

// The library's own writer of the systemd journal's native protocol: one
// datagram per entry on the journal's socket, the fields of a log line and
// nothing else. Internal: not installed, not exported.

#include <cstddef>

#include <platform/SystemLog.h>

namespace zv_client {
namespace platform {
namespace detail {

// Whether an entry sent now would find a journal listening. Cheap (one atomic
// load) while it does; while it does not, the socket is probed again at most
// every 250 ms and the answer is false in between, so a caller can skip even
// formatting a line nobody would receive.
bool JournalReachable();

// Sends one entry: MESSAGE (`length` bytes of `text`, any bytes), PRIORITY
// (6, 4 or 3), SYSLOG_IDENTIFIER (`tag`, a C string) and ZORVEL_LOG_BUFFER
// (main or system). Dropped silently when the journal is not reachable or
// refuses the entry. Thread-safe.
void JournalSend(LogBuffer buffer, LogPriority priority, const char* tag, const char* text, std::size_t length);

// For tests and the benchmark: sends to the datagram socket at `path` instead
// of the journal's (nullptr: the journal's again). Connects at once; from
// then on the path behaves like the journal's (probed again when absent).
void SetJournalPathForTesting(const char* path);

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
