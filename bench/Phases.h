#pragma once

// The scenario families, one file each. Each prints its table lines and sets
// its figures in the report.

#include "Bench.h"

namespace zv_bench {

// Whether a journal listens while the library logs (see JournalListener).
// Figures measured with one carry the prefix "journal_".
enum class Journal { kAbsent, kListening };

// Calls: from the application's call to the daemon's echo in its callback.
void CallPhase(Bench& bench, Journal journal);
// Signals: from the daemon's emission to the application's callback.
void SignalPhase(Bench& bench, Journal journal);
// One signal to the library's connection; its latency in us.
double LibSignalSample(Bench& bench);
// Stored profiles read, one callback per profile and as one list.
void ProfilesPhase(Bench& bench);
// A thousand commands back to back.
void BurstPhase(Bench& bench);
// The daemon's name vanishing and coming back with a command held meanwhile.
void RecoveryPhase(Bench& bench);
// What one log line costs, and how many lines each kind of work writes.
void LogPhase(Bench& bench);

// One log line's cost with a journal listening, measured in a child process
// with a mount namespace of its own: the median in us, or -1 (with the
// reason on stderr). Call it while this process has no other thread.
double MeasureLiveJournalLine(int lines);
// How long the application's main loop stalls because of the library, and
// a command thread's stack: each scenario in a child process of its own,
// with its own bus and daemon (their complaints to `errFd`). Call it while
// this process has no other thread.
Liveness MeasureLiveness(const Options& options, int errFd);
// Prints and reports what MeasureLiveness found.
void LivenessPhase(Bench& bench);

}  // namespace zv_bench
