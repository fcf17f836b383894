// The library's log: sinks, the level, the fields the journal receives, the
// targets ZORVEL_LOG_TARGET names, and a journal writer that never makes a
// logging thread, or exit, wait for a journal that stops reading; it counts
// what it drops, and works in a forked child. What needs a journal runs in a
// child process with a journal of its own.

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
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <zorvel/common/GLibUtils.h>
#include <zorvel/platform/Log.h>
#include <zorvel/platform/SystemLog.h>

#include "harness/PrivateJournal.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

#if defined(__SANITIZE_THREAD__)
// The library's writer starts a thread in a child forked from a process with
// threads, which ThreadSanitizer refuses by default.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

namespace {

using namespace std::string_literals;
namespace platform = zv_client::platform;
using platform::LogBuffer;
using platform::LogPriority;
using zv_client::testing::WaitUntil;

constexpr char kLogTag[] = "zorvel.test";  // for the library's own logging macros
constexpr int kNoJournal = 77;
constexpr int kLines = 20000;  // more than the writer queues
// For what a child waits on, within the 20 s its parent gives it, so that it
// still reports what it missed.
constexpr std::chrono::seconds kChildDeadline{10};

void Log(const char* text, int number = 0, LogPriority priority = LogPriority::kInfo) {
  platform::LogPrint(LogBuffer::kSystem, priority, kLogTag, "%s %d", text, number);
}

// Reaps `pid` within `deadline`, else kills it; whether it finished.
bool Reap(pid_t pid, int& status, std::chrono::seconds deadline) {
  if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, deadline)) return true;
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return false;
}

// Runs `scenario` in a child whose journal is `journal`, a socket bound at
// the journal's path (`unheard`, if given, runs just before it is bound), and
// expects exit status 0 in good time. The child leaves through exit(), so
// that the writer's drain at exit runs too.
void ExpectChildSucceeds(int (*scenario)(int journal), void (*unheard)() = nullptr) {
  const pid_t child = fork();  // with one thread, as new namespaces need
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string why = zv_client::testing::EnterPrivateJournalDir();
    if (why.empty() && unheard != nullptr) unheard();
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

// The next journal entry within `timeoutMs`, with "\n" before it so that
// every field reads "\nKEY=value\n"; empty when none came.
std::string Receive(int journal, int timeoutMs) {
  char entry[64 * 1024];
  pollfd ready{journal, POLLIN, 0};
  const ssize_t size = poll(&ready, 1, timeoutMs) == 1 ? recv(journal, entry, sizeof entry, 0) : -1;
  return size < 0 ? ""s : "\n" + std::string(entry, static_cast<std::size_t>(size));
}

// Reads the journal on a thread of its own, handing every entry to `onEntry`
// until that returns false or the reader is destroyed.
class JournalReader {
 public:
  JournalReader(int journal, std::function<bool(const std::string&)> onEntry)
      : thread_([this, journal, onEntry] {
          while (!stop_) {
            const std::string entry = Receive(journal, 20);
            if (!entry.empty() && !onEntry(entry)) return;
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

std::string Shown(const std::string& tag, const std::string& text, LogBuffer buffer = LogBuffer::kSystem,
                  LogPriority priority = LogPriority::kInfo) {
  return std::to_string(static_cast<int>(buffer)) + "/" + std::to_string(static_cast<int>(priority)) + " " + tag +
         ": " + text;
}

// Records what it receives into shared state that outlives the sink.
using Lines = zv_client::testing::Recorder<std::string>;
platform::LogSink SinkInto(const std::shared_ptr<Lines>& recorder) {
  return [recorder](LogBuffer buffer, LogPriority priority, const char* tag, const char* text) {
    recorder->Add(Shown(tag, text, buffer, priority));
  };
}

class SystemLog : public ::testing::Test {
 protected:
  void TearDown() override { platform::SetLogSink({}); }
};

TEST_F(SystemLog, SinksMayBeReplacedAnyTime) {
  auto first = std::make_shared<Lines>(), second = std::make_shared<Lines>();
  platform::SetLogSink(SinkInto(first));
  const std::string longText(5000, 'x');  // longer than any fixed buffer the formatting might start with
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", "[%s]%d", longText.c_str(), 42);
  platform::SetLogSink(SinkInto(second));
  platform::LogPrint(LogBuffer::kMain, LogPriority::kError, "zorvel.zorvel", "ends in \"%s\" \n", "quotes");
  platform::SetLogSink({});  // the system log again
  Log("three");
  EXPECT_EQ(first->Items(), std::vector<std::string>{Shown("zorvel.common", "[" + longText + "]42")});
  EXPECT_EQ(second->Items(), std::vector<std::string>{Shown("zorvel.zorvel", "ends in \"quotes\" \n", LogBuffer::kMain,
                                                            LogPriority::kError)});
  EXPECT_EQ(first.use_count() + second.use_count(), 2) << "a replaced or removed sink is still alive";

  // A sink replacing itself keeps its captures until it returns.
  auto calls = std::make_shared<int>(0);
  platform::SetLogSink([first, calls](LogBuffer, LogPriority, const char*, const char*) {
    platform::SetLogSink(SinkInto(first));
    ++*calls;
    EXPECT_GE(first.use_count(), 2);
  });
  Log("four");
  Log("five");
  EXPECT_EQ(*calls, 1);
  EXPECT_EQ(calls.use_count(), 1);
  EXPECT_EQ(first->Items().back(), Shown(kLogTag, "five 0"));

  // Swapped while other threads log, until both sinks have run.
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int i = 0; i < 4; ++i)
    loggers.emplace_back([&] {
      while (!stop) Log("busy");
    });
  const std::size_t before = first->Items().size();
  for (int round = 0; round < 2000 || first->Items().size() == before || second->Items().size() == 1; ++round) {
    platform::SetLogSink(SinkInto(round % 2 ? first : second));
  }
  stop = true;
  for (std::thread& logger : loggers) logger.join();
  platform::SetLogSink({});
  EXPECT_EQ(first.use_count() + second.use_count(), 2) << "a replaced sink outlived the threads that ran it";
}

// The log's contract as the journal receives it; problems go to stderr.
int CheckJournalContract(int journal) {
  int problems = 0;
  auto expect = [&](const std::string& entry, const std::vector<std::string>& fields, const char* absent = nullptr) {
    for (const std::string& field : fields)
      if (entry.find("\n" + field + "\n") == std::string::npos || (absent && entry.find(absent) != std::string::npos))
        problems += std::fprintf(stderr, "wanted %s%s%s, got:%s\n", field.c_str(), absent ? " without " : "",
                                 absent ? absent : "", entry.c_str()) > 0;
  };
  std::string entry;
  int line = 0;
  // Found within the 250 ms the library waits before looking again.
  const bool arrived = WaitUntil([&] {
    line = __LINE__ + 1;  // the next line logs
    ZV_LOGI("anybody?");
    return !(entry = Receive(journal, 0)).empty();
  });
  expect(entry, {"MESSAGE=logging_test.cpp: operator()(" + std::to_string(line) + ") > anybody?"});
  // Lines are sent by a writer thread: the other tries may still be on their way.
  const auto receive = [journal] {
    std::string got;
    while ((got = Receive(journal, 5000)).find("> anybody?\n") != std::string::npos) {
    }
    return got;
  };

  const std::string site = "logging_test.cpp: CheckJournalContract(";
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGI_MAIN("duplicate command[%s]", "connect");
  expect(receive(), {"MESSAGE=" + site + std::to_string(line) + ") > duplicate command[connect]", "PRIORITY=6",
                     "SYSLOG_IDENTIFIER=zorvel.test", "ZORVEL_LOG_BUFFER=main", "CODE_FILE=logging_test.cpp",
                     "CODE_LINE=" + std::to_string(line), "CODE_FUNC=CheckJournalContract"});
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGW("nullptr, return");
  expect(receive(), {"MESSAGE=" + site + std::to_string(line) + ") > nullptr, return", "PRIORITY=4",
                     "ZORVEL_LOG_BUFFER=system", "CODE_LINE=" + std::to_string(line)});
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGE("failed: %d", -1);
  expect(receive(), {"MESSAGE=" + site + std::to_string(line) + ") > failed: -1", "PRIORITY=3"});
  [&] {
    line = __LINE__ + 1;  // the next line logs
    ZV_LOGI_THD("ExecuteCommand[%s] FINISHED", "connect");
  }();
  expect(receive(), {"MESSAGE=logging_test.cpp: operator()(" + std::to_string(line) + ") > thd: " + logt::thread_id() +
                         " \"ExecuteCommand[connect] FINISHED\"",
                     "CODE_FUNC=operator()", "PRIORITY=6"});
  // The exported entry knows no site: the prefix is the caller's, and no CODE_* fields.
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kWarning, "zorvel.zorvel", "%s: %s(%d) > plain", "a.cpp", "f", 3);
  expect(receive(), {"MESSAGE=a.cpp: f(3) > plain", "PRIORITY=4", "SYSLOG_IDENTIFIER=zorvel.zorvel"}, "\nCODE_");
  // Below the level nothing is sent: the next line to arrive is the one at it.
  platform::SetLogLevel(LogPriority::kError);
  ZV_LOGW("below the level");
  ZV_LOGE("at the level");
  expect(receive(), {"PRIORITY=3"}, "below the level");
  return problems == 0 && arrived ? 0 : 1;
}

TEST_F(SystemLog, JournalEntriesCarryTheFieldsOfTheLogContract) {
  using platform::detail::LogLevelFromText;  // ZORVEL_LOG_LEVEL's values
  EXPECT_EQ(
      std::make_tuple(LogLevelFromText("warning", LogPriority::kInfo), LogLevelFromText("ERROR", LogPriority::kInfo),
                      LogLevelFromText("debug", LogPriority::kWarning), LogLevelFromText(nullptr, LogPriority::kInfo)),
      std::make_tuple(LogPriority::kWarning, LogPriority::kError, LogPriority::kWarning, LogPriority::kInfo));
  {  // A sink gets what the system log would.
    zv_client::testing::LogCapture log;
    platform::SetLogLevel(LogPriority::kWarning);
    Log("below the level");
    platform::LogPrint(LogBuffer::kSystem, LogPriority::kWarning, "t", "at the level");
    platform::SetLogLevel(LogPriority::kInfo);
    EXPECT_EQ(log.Dump(), "[t] at the level\n");
  }
  // Logged before the journal listens: dropped, and the library looks again later.
  ExpectChildSucceeds(&CheckJournalContract, [] { ZV_LOGI("nobody listens yet"); });
}

// ZORVEL_LOG_TARGET is read once per process, so each case runs in a new run
// of this program ("threadsafe" death tests), whose whole stderr is compared.
constexpr int kStderrInfoLine = __LINE__ + 3;  // where LogToStderr's ZV_LOGI is
[[noreturn]] void LogToStderr() {
  setenv("ZORVEL_LOG_TARGET", "stderr", 1);
  ZV_LOGI("Initialize %s\n", "FINISHED");
  platform::LogPrint(LogBuffer::kMain, LogPriority::kError, "zorvel.zorvel", "failed: %d\n\n", -1);
  platform::SetLogLevel(LogPriority::kError);
  Log("below the level", 0, LogPriority::kWarning);
  platform::SetLogSink([](LogBuffer, LogPriority, const char*, const char*) {});  // a sink wins over stderr
  Log("to the sink", 0, LogPriority::kError);
  std::exit(0);
}

TEST_F(SystemLog, TheTargetIsTheJournalOrStderrAndAnyOtherIsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LogToStderr(), ::testing::ExitedWithCode(0),
              ::testing::Eq("[info] zorvel.test: logging_test.cpp: LogToStderr(" + std::to_string(kStderrInfoLine) +
                            ") > Initialize FINISHED\n[error] zorvel.zorvel: failed: -1\n"));
  // The lines go to the journal, not to stderr, which says once why.
  EXPECT_EXIT((setenv("ZORVEL_LOG_TARGET", "syslog", 1), Log("one"), Log("two"), std::exit(0)),
              ::testing::ExitedWithCode(0),
              ::testing::Eq("[warning] zorvel.platform: ZORVEL_LOG_TARGET=syslog not understood (journal or stderr): "
                            "logging to the journal\n"s));
}

// A journal that never reads: threads log all their lines, errors among
// them, and the process exits.
int LogIntoAStalledJournal(int) {
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t)
    loggers.emplace_back([] {
      for (int i = 0; i < kLines / 3; ++i) Log("line", i, i % 1000 == 0 ? LogPriority::kError : LogPriority::kInfo);
    });
  for (std::thread& logger : loggers) logger.join();
  return 0;
}

// A journal that reads again after lines were dropped: every line is either
// received or counted in a notice (one per stall) sent after the lines before it.
int CountWhatAStalledJournalMissed(int journal) {
  for (int i = 0; i < kLines; ++i) Log("line", i);
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
    Log("line", kLines);  // while the journal reads again: dropped or received
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
  for (int i = 0; i < 3; ++i) Log("before the fork", i, LogPriority::kError);
  WaitUntil(WriterSleeps, kChildDeadline);  // forks with the writer idle, as it mostly is
  const pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // hung, it goes with the process that gives up on it
    for (int i = 0; i < 3; ++i) Log("from the forked child", i, LogPriority::kError);
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
