#include "LogOutput.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <utility>
#include <vector>

#include <zorvel/platform/Journal.h>

#include "Timing.h"
#include "harness/PrivateJournal.h"

namespace zv_bench {

namespace platform = zv_client::platform;

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

bool gTrace = false;

// --timeline: cheap enough to show where the time of a command goes between
// its log lines.
struct Timeline {
  std::mutex mutex;
  std::vector<std::pair<Ns, std::string>> lines;  // guarded by mutex
};
Timeline* gTimeline = nullptr;  // set once, before the library logs

void Record(const char* tag, const char* text) {
  const Ns now = NowNs();
  std::string line = std::string(tag) + ": " + text;
  std::lock_guard<std::mutex> lock(gTimeline->mutex);
  gTimeline->lines.emplace_back(now, std::move(line));
}

void Trace(const char* tag, const char* text) {
  std::fprintf(stderr, "%.6f %s: %s\n", static_cast<double>(NowNs()) / 1e9, tag, text);
}

}  // namespace

void RouteLines(bool trace, bool timeline) {
  gTrace = trace;
  if (timeline && gTimeline == nullptr) gTimeline = new Timeline;
}

void DefaultLog() {
  if (gTimeline != nullptr) {
    platform::SetLogSink(
        [](platform::LogBuffer, platform::LogPriority, const char* tag, const char* text) { Record(tag, text); });
  } else if (gTrace) {
    platform::SetLogSink(
        [](platform::LogBuffer, platform::LogPriority, const char* tag, const char* text) { Trace(tag, text); });
  } else {
    platform::SetLogSink(nullptr);
  }
}

void SilenceLog() {
  platform::SetLogSink([](platform::LogBuffer, platform::LogPriority, const char*, const char*) {});
}

void ForwardLine(platform::LogBuffer buffer, platform::LogPriority priority, const char* tag, const char* text) {
  if (gTimeline != nullptr) {
    Record(tag, text);
  } else if (gTrace) {
    Trace(tag, text);
  } else if (platform::detail::JournalReachable()) {
    // Sent as the default output sends it. The cost is not quite the
    // default's: with a sink installed the library formats every line, even
    // while no journal listens, where the default output drops it unformatted.
    const std::string message = std::string("MESSAGE=") + text;
    platform::detail::JournalSend(buffer, priority, tag, {nullptr, 0, nullptr}, message.data(), message.size());
  }
}

void WriteTimeline(const std::string& path) {
  if (gTimeline == nullptr) return;
  std::ofstream out(path);
  std::lock_guard<std::mutex> lock(gTimeline->mutex);
  for (const auto& [at, line] : gTimeline->lines) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%.6f ", static_cast<double>(at) / 1e9);
    out << stamp << line << '\n';
  }
}

bool AwaitJournalVerdict(bool listening) {
  const Ns deadline = NowNs() + 1000000000ULL;
  while (platform::detail::JournalReachable() != listening) {
    if (NowNs() > deadline) return false;
    SleepMs(10);
  }
  return true;
}

std::shared_ptr<const std::atomic<std::uint64_t>> CountLines() {
  auto lines = std::make_shared<std::atomic<std::uint64_t>>(0);
  platform::SetLogSink([lines](platform::LogBuffer, platform::LogPriority, const char*, const char*) { ++*lines; });
  return lines;
}

JournalListener::JournalListener() {
  fd_ = zv_client::testing::ListenAsJournal();
  if (fd_ < 0) {
    failure_ = std::string("cannot bind the journal's socket: ") + std::strerror(errno);
    return;
  }
  drain_ = std::thread([this] {
    std::vector<char> datagram(256 * 1024);
    // Ends when the socket is shut down (recv then returns 0).
    while (recv(fd_, datagram.data(), datagram.size(), 0) > 0) ++received_;
  });
}

JournalListener::~JournalListener() {
  if (fd_ < 0) return;
  shutdown(fd_, SHUT_RDWR);
  drain_.join();
  close(fd_);
  unlink(kJournalSocket);
}

}  // namespace zv_bench
