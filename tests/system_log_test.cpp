// The log sink: what a sink receives, replacing and removing it, and swapping
// it while other threads log.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <platform/SystemLog.h>

namespace {

namespace platform = zv_client::platform;
using platform::LogBuffer;
using platform::LogPriority;

struct Received {
  LogBuffer buffer;
  LogPriority priority;
  std::string tag;
  std::string text;
};

// A sink that records what it receives into shared state, so the state can
// be inspected (and its owners counted) after the sink is gone.
struct Recorder {
  std::mutex mutex;
  std::vector<Received> lines;  // guarded by mutex

  static platform::LogSink SinkInto(const std::shared_ptr<Recorder>& recorder) {
    return [recorder](LogBuffer buffer, LogPriority priority, const char* tag, const char* text) {
      std::lock_guard<std::mutex> lock(recorder->mutex);
      recorder->lines.push_back(Received{buffer, priority, tag, text});
    };
  }
  std::size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return lines.size();
  }
};

class SystemLog : public ::testing::Test {
 protected:
  void TearDown() override { platform::SetLogSink({}); }
};

TEST_F(SystemLog, SinkReceivesEachFormattedLine) {
  auto recorder = std::make_shared<Recorder>();
  platform::SetLogSink(Recorder::SinkInto(recorder));

  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", "%s: %s(%d) > numValues[%zu]",
                     "GLibUtils.cpp", "VariantToProfiles", 104, static_cast<std::size_t>(1));
  platform::LogPrint(LogBuffer::kMain, LogPriority::kWarning, "zorvel.dbus_client", "plain");
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kError, "zorvel.zorvel", "ends in \"%s\" \n", "quotes");
  // Longer than any fixed buffer the formatting might start with.
  const std::string longText(5000, 'x');
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", "[%s]%d", longText.c_str(), 42);

  ASSERT_EQ(recorder->size(), 4U);
  const std::vector<Received>& lines = recorder->lines;
  EXPECT_EQ(lines[0].text, "GLibUtils.cpp: VariantToProfiles(104) > numValues[1]");
  EXPECT_EQ(lines[0].tag, "zorvel.common");
  EXPECT_EQ(lines[0].buffer, LogBuffer::kSystem);
  EXPECT_EQ(lines[0].priority, LogPriority::kInfo);
  EXPECT_EQ(lines[1].buffer, LogBuffer::kMain);
  EXPECT_EQ(lines[1].priority, LogPriority::kWarning);
  EXPECT_EQ(lines[1].tag, "zorvel.dbus_client");
  EXPECT_EQ(lines[2].text, "ends in \"quotes\" \n");
  EXPECT_EQ(lines[2].priority, LogPriority::kError);
  EXPECT_EQ(lines[3].text, "[" + longText + "]42");
}

TEST_F(SystemLog, ReplacedOrRemovedSinkGetsNothingMoreAndIsReleased) {
  auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  platform::SetLogSink(Recorder::SinkInto(first));
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "one");
  platform::SetLogSink(Recorder::SinkInto(second));
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "two");
  EXPECT_EQ(first->size(), 1U);
  EXPECT_EQ(second->size(), 1U);
  EXPECT_EQ(first.use_count(), 1) << "the replaced sink is still alive";

  // The empty sink puts the system log back: the last sink hears nothing more.
  platform::SetLogSink({});
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "three");
  EXPECT_EQ(second->size(), 1U);
  EXPECT_EQ(second.use_count(), 1) << "the removed sink is still alive";
}

TEST_F(SystemLog, SinkMayReplaceItselfWhileRunning) {
  auto after = std::make_shared<Recorder>();
  auto calls = std::make_shared<int>(0);
  // The replacing sink's captures are destroyed by the SetLogSink it calls,
  // unless the library keeps the running sink alive until it returns.
  platform::SetLogSink([after, calls](LogBuffer, LogPriority, const char*, const char*) {
    platform::SetLogSink(Recorder::SinkInto(after));
    ++*calls;
    EXPECT_GE(after.use_count(), 2);
  });
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "first");
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "second");
  EXPECT_EQ(*calls, 1);
  EXPECT_EQ(calls.use_count(), 1);
  ASSERT_EQ(after->size(), 1U);
  EXPECT_EQ(after->lines[0].text, "second");
}

TEST_F(SystemLog, SwappingTheSinkWhileThreadsLogLosesNoLine) {
  constexpr int kThreads = 4;
  constexpr int kLinesPerThread = 2000;
  std::atomic<int> received{0};
  std::atomic<int> sinksAlive{0};

  // Each sink owns a token that counts live sinks; a sink that ran after its
  // destruction would be caught by the sanitizer builds.
  auto makeSink = [&]() -> platform::LogSink {
    struct Token {
      explicit Token(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
      ~Token() { --alive_; }
      std::atomic<int>& alive_;
    };
    auto token = std::make_shared<Token>(sinksAlive);
    return [token, &received](LogBuffer, LogPriority, const char*, const char* text) {
      if (text[0] == 'l') ++received;
    };
  };

  platform::SetLogSink(makeSink());
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&running, t] {
      for (int i = 0; i < kLinesPerThread; ++i) {
        platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "zorvel.test", "line %d/%d", t, i);
      }
      --running;
    });
  }
  int swaps = 0;
  while (running.load() > 0 || swaps < 50) {
    platform::SetLogSink(makeSink());
    ++swaps;
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(received.load(), kThreads * kLinesPerThread);
  EXPECT_EQ(sinksAlive.load(), 1);
  platform::SetLogSink({});
  EXPECT_EQ(sinksAlive.load(), 0);
}

}  // namespace
