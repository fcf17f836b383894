// The journal writer never makes a logging thread, or exit, wait for a
// journal that stops reading; it counts what it drops, and works in a forked
// child. Each scenario runs in a child process with a journal of its own.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <zorvel/platform/SystemLog.h>

#include "harness/PrivateJournal.h"
#include "support/Wait.h"

#if defined(__SANITIZE_THREAD__)
// The library's writer starts a thread in a child forked from a process with
// threads, which ThreadSanitizer refuses by default.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

namespace {

namespace platform = zv_client::platform;
using platform::LogBuffer;
using platform::LogPriority;
using zv_client::testing::WaitUntil;

constexpr int kNoJournal = 77;
constexpr int kLines = 20000;  // more than the writer queues
// For what a child waits on, within the 20 s its parent gives it, so that it
// still reports what it missed.
constexpr std::chrono::seconds kChildDeadline{10};

void Log(LogPriority priority, const char* text, int number = 0) {
  platform::LogPrint(LogBuffer::kSystem, priority, "zorvel.test", "%s %d", text, number);
}

// Reaps `pid` within `deadline`, else kills it; whether it finished.
bool Reap(pid_t pid, int& status, std::chrono::seconds deadline) {
  if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, deadline)) return true;
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return false;
}

// Runs `scenario` in a child whose journal is `journal`, a socket bound at
// the journal's path, and expects exit status 0 in good time. The child
// leaves through exit(), so that the writer's drain at exit runs too.
void ExpectChildSucceeds(int (*scenario)(int journal)) {
  const pid_t child = fork();  // with one thread, as new namespaces need
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string why = zv_client::testing::EnterPrivateJournalDir();
    const int journal = why.empty() ? zv_client::testing::ListenAsJournal() : -1;
    if (journal < 0) {
      std::fprintf(stderr, "no journal of our own: %s\n", why.empty() ? std::strerror(errno) : why.c_str());
      _exit(kNoJournal);
    }
    std::exit(scenario(journal));
  }
  int status = -1;
  ASSERT_TRUE(Reap(child, status, std::chrono::seconds(20))) << "the child still ran: it waited for the journal";
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoJournal) GTEST_SKIP() << "no journal of our own: see above why";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << " (reasons above)";
}

// Reads the journal on a thread of its own, handing every entry (with "\n"
// before it, so that each field reads "\nKEY=value\n") to `onEntry` until
// that returns false or the reader is destroyed.
class JournalReader {
 public:
  JournalReader(int journal, std::function<bool(const std::string&)> onEntry)
      : thread_([this, journal, onEntry] {
          static char entry[64 * 1024];
          while (!stop_) {
            pollfd ready{journal, POLLIN, 0};
            if (poll(&ready, 1, 20) != 1) continue;
            const ssize_t size = recv(journal, entry, sizeof entry, 0);
            if (size > 0 && !onEntry("\n" + std::string(entry, static_cast<std::size_t>(size)))) return;
          }
        }) {}
  ~JournalReader() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A journal that never reads: threads log all their lines, errors among
// them, and the process exits.
int LogIntoAStalledJournal(int) {
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t)
    loggers.emplace_back([] {
      for (int i = 0; i < kLines / 3; ++i) Log(i % 1000 == 0 ? LogPriority::kError : LogPriority::kInfo, "line", i);
    });
  for (std::thread& logger : loggers) logger.join();
  return 0;
}

// A journal that reads again after lines were dropped: every line is either
// received or counted in a notice (one per stall) sent after the lines before it.
int CountWhatAStalledJournalMissed(int journal) {
  for (int i = 0; i < kLines; ++i) Log(LogPriority::kInfo, "line", i);
  std::atomic<unsigned long long> received{0}, dropped{0};
  const auto accounted = [&] { return dropped != 0 && received + dropped >= kLines + 1; };
  {
    JournalReader reader(journal, [&](const std::string& entry) {
      static constexpr char kNotice[] = "\nMESSAGE=Dropped ";
      const std::size_t notice = entry.find(kNotice);
      if (notice != std::string::npos) dropped += std::strtoull(&entry[notice + sizeof kNotice - 1], nullptr, 10);
      if (entry.find("\nMESSAGE=line ") != std::string::npos) ++received;
      return !accounted();
    });
    Log(LogPriority::kInfo, "line", kLines);  // while the journal reads again: dropped or received
    WaitUntil(accounted, kChildDeadline);
  }
  if (dropped == 0 || received + dropped != kLines + 1) {
    std::fprintf(stderr, "received %llu lines, %llu dropped, of %d\n", received.load(), dropped.load(), kLines + 1);
    return 1;
  }
  return 0;
}

// Whether a thread of ours sleeps on a futex in the kernel: here, only the
// writer waiting for lines.
bool WriterSleeps() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string wchan;
    if (std::ifstream(task.path() / "wchan") >> wchan && wchan.rfind("futex", 0) == 0) return true;
  }
  return false;
}

// The writer ran and waits for lines when the process forks: the new child
// logs (its lines arrive) and exits.
int LogAfterAFork(int journal) {
  std::atomic<bool> arrived{false};
  JournalReader reader(journal, [&](const std::string& entry) {
    arrived = arrived || entry.find("\nMESSAGE=from the forked child 2\n") != std::string::npos;
    return true;
  });
  for (int i = 0; i < 3; ++i) Log(LogPriority::kError, "before the fork", i);
  WaitUntil(WriterSleeps, kChildDeadline);  // forks with the writer idle, as it mostly is
  const pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // hung, it goes with the process that gives up on it
    for (int i = 0; i < 3; ++i) Log(LogPriority::kError, "from the forked child", i);
    std::exit(0);
  }
  int status = -1;
  const bool reaped = Reap(child, status, kChildDeadline);
  const bool ok = reaped && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                  WaitUntil([&] { return arrived.load(); }, kChildDeadline);
  if (!ok)
    std::fprintf(stderr, "forked child: %s, status %d, line arrived: %d\n", reaped ? "reaped" : "still ran", status,
                 arrived.load());
  return ok ? 0 : 1;
}

TEST(JournalWriter, LoggingAndExitDoNotWaitForAStalledJournal) { ExpectChildSucceeds(&LogIntoAStalledJournal); }

TEST(JournalWriter, CountsTheLinesDroppedWhileTheJournalStalled) {
  ExpectChildSucceeds(&CountWhatAStalledJournalMissed);
}

TEST(JournalWriter, AForkedChildLogs) { ExpectChildSucceeds(&LogAfterAFork); }

}  // namespace
