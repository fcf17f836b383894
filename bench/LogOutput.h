#pragma once

// Where the library's log lines go during a run, and a journal of our own
// to send them to.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include <zorvel/platform/SystemLog.h>

namespace zv_bench {

// --trace sends the lines to stderr as they are written, --timeline keeps
// them in memory with their time; either replaces the system log, so the
// figures are then not the default cost. Set once, before the library logs.
void RouteLines(bool trace, bool timeline);
// The route chosen: the system log unless --trace or --timeline.
void DefaultLog();
// Every line dropped once formatted (a sink that does nothing).
void SilenceLog();
// Sends one line where DefaultLog would, for sinks that watch the lines.
void ForwardLine(zv_client::platform::LogBuffer buffer, zv_client::platform::LogPriority priority, const char* tag,
                 const char* text);
// With --timeline: the lines kept so far to `path`.
void WriteTimeline(const std::string& path);

// Installs a sink that counts the library's lines (and drops them); the
// count. The sink shares it, so a thread still running the sink after it
// was replaced counts into live memory.
std::shared_ptr<const std::atomic<std::uint64_t>> CountLines();

// Waits until the library's next line would find a journal listening, or
// none (`listening` false); false when that does not happen within a second.
// The library looks for a journal at most every 250 ms and keeps its verdict
// in between: without this wait the lines after a listener went would still
// be formatted and sent.
bool AwaitJournalVerdict(bool listening);

// A journal listening: a datagram socket bound at the journal's path and
// drained by a thread, as journald would. Only in a mount namespace of our
// own (see EnterPrivateJournalDir), where that path is ours. Going away it
// unbinds the path, and the library finds no journal again.
class JournalListener {
 public:
  JournalListener();
  ~JournalListener();
  JournalListener(const JournalListener&) = delete;
  JournalListener& operator=(const JournalListener&) = delete;

  // Empty when listening, else why not.
  const std::string& failure() const { return failure_; }
  std::uint64_t received() const { return received_; }

 private:
  int fd_ = -1;
  std::string failure_;
  std::atomic<std::uint64_t> received_{0};
  std::thread drain_;
};

}  // namespace zv_bench
