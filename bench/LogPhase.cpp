// Log lines: what one line costs the thread that writes it (no journal
// listening, formatting only, back to back, and with a journal listening),
// and how many lines a command and a signal write.

#include <cstdio>
#include <thread>

#include <zorvel/common/GLibUtils.h>
#include <zorvel/platform/SystemLog.h>

#include "ForkedChild.h"
#include "Phases.h"
#include "harness/PrivateJournal.h"

namespace zv_bench {
namespace {

namespace platform = zv_client::platform;

// A typical line of the command layer, through the library's own entry.
void LogOneLine(const std::string& thread) {
  platform::LogPrint(platform::LogBuffer::kSystem, platform::LogPriority::kInfo, "zorvel.dbus_client",
                     "%s: %s(%d) > thd: %s \"ExecuteCommand[%s] STARTED IsReady[%d] IsConnected[%d] cmdPool[%zu]\"",
                     "DBusClientAsync.cpp", "ExecuteCommand", 182, thread.c_str(), "startBroadcast", 1, 1,
                     static_cast<std::size_t>(0));
}

// Lines back to back: the mean cost per line when logging is all a thread does.
double TimeLogLines(int lines) {
  const std::string thread = logt::thread_id();
  const Ns start = NowNs();
  for (int i = 0; i < lines; ++i) LogOneLine(thread);
  return static_cast<double>(NowNs() - start) / 1e3 / lines;
}

// Lines one at a time, as the library writes them between other work: the
// median time the logging thread spends on one line.
double TimeSpacedLogLines(int lines) {
  const std::string thread = logt::thread_id();
  std::vector<double> costs;
  costs.reserve(static_cast<std::size_t>(lines));
  for (int i = 0; i < lines; ++i) {
    const Ns start = NowNs();
    LogOneLine(thread);
    costs.push_back(static_cast<double>(NowNs() - start) / 1e3);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return Summarise(costs).median;
}

}  // namespace

double MeasureLiveJournalLine(int lines) {
  // The child enters a mount namespace where the journal's socket is one of
  // its own, drained by a thread as journald would, and times the library's
  // lines to it.
  const ChildResult result = RunInChild(std::chrono::seconds(60), [lines](const ChildPipe& out) {
    std::string why = zv_client::testing::EnterPrivateJournalDir();
    if (why.empty()) {
      JournalListener listener;
      why = listener.failure();
      if (why.empty() && !AwaitJournalVerdict(true)) why = "the library sees no journal";
      if (why.empty()) {
        TimeLogLines(1000);  // warm-up
        const double perLine = TimeSpacedLogLines(lines);
        if (listener.received() == 0) {
          why = "no line reached the socket";
        } else {
          out.Send("per_line", perLine);
        }
      }
    }
    if (!why.empty()) {
      std::fprintf(stderr, "zorvel-bench: no journal of our own (%s); log_live_us_per_line not measured\n",
                   why.c_str());
    }
  });
  const auto perLine = result.figures.find("per_line");
  return perLine != result.figures.end() ? perLine->second : -1;
}

void LogPhase(Bench& bench) {
  const int lines = bench.options.logLines;
  DefaultLog();
  TimeLogLines(1000);  // warm-up
  const double perLine = TimeSpacedLogLines(lines / 10);
  const double backToBack = TimeLogLines(lines);
  SilenceLog();
  const double formatOnly = TimeSpacedLogLines(lines / 10);

  // How many lines each kind of work writes.
  const auto counted = CountLines();
  const int n = 50;
  std::uint64_t start = counted->load();
  for (int i = 0; i < n; ++i) bench.LibRunNext();
  SleepMs(20);
  const double perCall = static_cast<double>(counted->load() - start) / n;
  start = counted->load();
  for (int i = 0; i < n; ++i) LibSignalSample(bench);
  SleepMs(20);
  const double perSignal = static_cast<double>(counted->load() - start) / n;
  DefaultLog();

  Report& report = bench.report;
  report.Line("  %-34s %9.2f us (default output, median); %.2f us formatting only; %.2f us each back to back",
              "one log line", perLine, formatOnly, backToBack);
  if (bench.liveLogLine >= 0) {
    report.Line("  %-34s %9.2f us (median)", "one log line, journal listening", bench.liveLogLine);
    report.Set("log_live_us_per_line", bench.liveLogLine);
  } else {
    report.Line("  %-34s %9s (no journal of our own could be set up)", "one log line, journal listening", "-");
  }
  report.Line("  %-34s %9.1f per command (call + echo), %.1f per signal delivered", "log lines", perCall, perSignal);
  report.Set("log_us_per_line", perLine);
  report.Set("log_format_us_per_line", formatOnly);
  report.Set("log_back_to_back_us_per_line", backToBack);
  report.Set("log_lines_per_call", perCall);
  report.Set("log_lines_per_signal", perSignal);
}

}  // namespace zv_bench
