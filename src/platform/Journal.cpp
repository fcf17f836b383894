#include <zorvel/platform/Journal.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
// Otherwise sd_journal_sendv adds CODE_* fields naming this file; the fields
// name the line's own site.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

#include <pthread.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <utility>

#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/platform/Thread.h>

// libsystemd owns the journal's wire protocol (framing, large entries through
// a memfd, its socket). What stays here is knowing when nobody listens, so
// that a process without a journal (containers, tests) does not format and
// send every line only to have it refused.

namespace zv_client {
namespace platform {
namespace detail {
namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";
constexpr std::int64_t kProbeIntervalNs = 250 * 1000 * 1000;

// The last verdict and until when it stands. Hints only: no data is
// published through them, so relaxed accesses do.
std::atomic<bool> listening{false};
std::atomic<std::int64_t> verdictUntilNs{0};  // 0: look at the next line

// Coarse is precise enough to space probes 250 ms apart, and the cheapest
// clock to read on every line.
std::int64_t CoarseNowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// A datagram connect() succeeds only while a socket is bound at the path:
// a socket file left behind by a journald that is gone is refused.
bool JournalListens() {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kJournalSocket, sizeof kJournalSocket);
  const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

void SendNow(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
             std::size_t length) {
  static const char* const kPriorities[] = {"PRIORITY=6", "PRIORITY=4", "PRIORITY=3"};  // by LogPriority
  iovec fields[7];
  int count = 0;
  auto add = [&](const char* data, std::size_t size) { fields[count++] = {const_cast<char*>(data), size}; };
  add(message, length);
  const char* fixed = kPriorities[static_cast<int>(priority)];
  add(fixed, std::strlen(fixed));
  fixed = buffer == LogBuffer::kMain ? "ZORVEL_LOG_BUFFER=main" : "ZORVEL_LOG_BUFFER=system";
  add(fixed, std::strlen(fixed));

  // The "KEY=value" fields of variable text are joined in one block, so that
  // libsystemd gets every field ready and runs no printf pass over them.
  char lineText[16] = "";
  if (site.file != nullptr) *std::to_chars(lineText, lineText + sizeof lineText - 1, site.line).ptr = '\0';
  const struct {
    const char* key;
    const char* value;
  } variable[] = {{"SYSLOG_IDENTIFIER=", tag},
                  {"CODE_FILE=", site.file},
                  {"CODE_LINE=", site.file != nullptr ? lineText : nullptr},
                  {"CODE_FUNC=", site.function}};
  std::size_t size = 0;
  for (const auto& field : variable) {
    if (field.value != nullptr) size += std::strlen(field.key) + std::strlen(field.value);
  }
  char stackBlock[256];
  std::string heapBlock;
  char* out = stackBlock;
  if (size > sizeof stackBlock) {
    heapBlock.resize(size);
    out = &heapBlock[0];
  }
  for (const auto& field : variable) {
    if (field.value == nullptr) continue;
    const std::size_t keyLength = std::strlen(field.key), valueLength = std::strlen(field.value);
    std::memcpy(out, field.key, keyLength);
    std::memcpy(out + keyLength, field.value, valueLength);
    add(out, keyLength + valueLength);
    out += keyLength + valueLength;
  }

  // Refused: journald may have gone away; the next line looks again.
  if (sd_journal_sendv(fields, count) < 0) verdictUntilNs.store(0, std::memory_order_relaxed);
}

// Lines reach the journal from a writer thread of the library's own: an
// application thread pays for formatting and queueing a line, not for the
// datagram, a system call that also wakes journald (several microseconds, a
// dozen times per command). One writer, first in first out, keeps the order.
// A journal that stops reading (journald under I/O pressure) blocks only the
// writer: lines that find the queue full are dropped and counted, an error
// line waits at most kErrorWait for itself and the lines before it, and exit
// waits at most kDrainWait. Lines still queued when the process crashes or
// the drain gives up are the price. Only where no thread can be started does
// a logging thread send, and then it may wait.
//
// The writer sends in batches. A command or a signal writes several lines
// within microseconds: woken for each, the writer (and journald after it)
// would take a core from the very threads that are delivering, and each
// line would cost its thread a futex wake. So the writer, once it has lines,
// gathers for kGather before sending them all, and after a batch it stays
// awake for kGather more, taking what comes meanwhile. Only a writer that
// sleeps without a deadline needs waking; an error line or the exit drain
// hurries it, and a queue of kBatchLines lines does not wait for the rest.
// A line thus reaches the journal at most kGather (plus the sending) late.
class Writer {
 public:
  static Writer& Get() {
    static Writer* const writer = new Writer;  // never destroyed: lines are logged until the very end
    return *writer;
  }

  void Send(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
            std::size_t length) {
    Entry entry{buffer, priority, tag, site, std::string(message, length)};  // built before taking the lock
    State& state = *state_;
    common::MutexLock lock(state.mutex);
    if (!state.started && !Start(state)) {  // no thread to be had: the line goes out from here
      lock.unlock();
      SendNow(buffer, priority, tag, site, message, length);
      return;
    }
    if (state.queue.size() >= kCapacity) {
      ++state.dropped;
      return;
    }
    state.queue.push_back(std::move(entry));
    const std::uint64_t mine = ++state.queued;
    const bool urgent = priority == LogPriority::kError;
    if (urgent) state.hurry = true;
    if (state.idle || urgent || state.queue.size() == kBatchLines) state.wake.notify_one();
    if (!urgent) return;
    const auto deadline = std::chrono::steady_clock::now() + kErrorWait;
    while (state.done < mine) {
      if (state.sent.wait_until(lock.native(), deadline) == std::cv_status::timeout) break;
    }
  }

 private:
  struct Entry {
    LogBuffer buffer;
    LogPriority priority;
    std::string tag;  // a caller's tag need not outlive the call
    CodeSite site;    // static text: the macros' file and function names
    std::string message;
  };

  // Everything the writer shares with the threads that log, in one place, so
  // that a forked child can swap it whole for a fresh one.
  struct State {
    common::Mutex mutex;           // a leaf: nothing is called under it that logs or locks
    std::condition_variable wake;  // the queue got a line
    std::condition_variable sent;  // `done` moved
    std::deque<Entry> queue ZV_GUARDED_BY(mutex);
    std::uint64_t queued ZV_GUARDED_BY(mutex) = 0;   // lines ever queued
    std::uint64_t done ZV_GUARDED_BY(mutex) = 0;     // of those, sent
    std::uint64_t dropped ZV_GUARDED_BY(mutex) = 0;  // refused by a full queue since the last notice
    bool started ZV_GUARDED_BY(mutex) = false;       // whether the writer thread runs
    bool idle ZV_GUARDED_BY(mutex) = false;          // the writer sleeps until woken: a line wakes it
    bool hurry ZV_GUARDED_BY(mutex) = false;         // an error line or the drain waits: no gathering
    std::deque<Entry> sending;                       // the writer thread's own
    const State* parents = nullptr;  // a forked child's: the parent's, never used, kept for leak checkers
  };

  static constexpr std::size_t kCapacity = 8192;
  static constexpr std::size_t kBatchLines = 256;
  static constexpr std::chrono::milliseconds kGather{1};
  static constexpr std::chrono::milliseconds kErrorWait{50};
  static constexpr std::chrono::seconds kDrainWait{1};
  // The drop notice's tag: the writer's area, as kLogTag would be.
  static constexpr char kTag[] = "zorvel.platform";

  Writer() {
    // The child of a fork has no writer thread, and its parent's may have
    // left the lock, the condition variables and the queue in any state: it
    // starts afresh. The lines queued before the fork are the parent's to send.
    pthread_atfork(nullptr, nullptr, [] {
      Writer& self = Get();
      State* fresh = new State;
      fresh->parents = self.state_;
      self.state_ = fresh;
    });
    std::atexit([] { Get().Drain(); });
  }

  static bool Start(State& state) ZV_REQUIRES(state.mutex) {
    // On a small stack: it sends, nothing more. If no thread can be had, it
    // is tried again with the next line.
    return state.started = StartDetachedThread([&state] { Run(state); }) == 0;
  }

  static void Run(State& state) {
    common::MutexLock lock(state.mutex);
    bool sent = false;  // a batch went out just now
    for (;;) {
      if (state.queue.empty() && !sent) {
        state.idle = true;
        while (state.queue.empty()) state.wake.wait(lock.native());
        state.idle = false;
      }
      // Gathers the lines that follow (after a batch: waits for them) until
      // kGather passed, unless hurried or a batch is full.
      const auto until = std::chrono::steady_clock::now() + kGather;
      while (!state.hurry && state.queue.size() < kBatchLines) {
        if (state.wake.wait_until(lock.native(), until) == std::cv_status::timeout) break;
      }
      state.hurry = false;
      sent = !state.queue.empty();
      if (!sent) continue;  // none came: sleep until one does
      state.sending.swap(state.queue);
      const std::uint64_t last = state.queued;
      // Lines are dropped only while the queue is full: after every line it
      // holds now, before any queued from now on. The notice follows them.
      const std::uint64_t dropped = std::exchange(state.dropped, 0);
      lock.unlock();
      for (const Entry& entry : state.sending) {
        SendNow(entry.buffer, entry.priority, entry.tag.c_str(), entry.site, entry.message.data(),
                entry.message.size());
      }
      state.sending.clear();
      if (dropped != 0) {
        char notice[128];
        const int length =
            std::snprintf(notice, sizeof notice, "MESSAGE=Dropped %llu log lines while the journal did not take them",
                          static_cast<unsigned long long>(dropped));
        SendNow(LogBuffer::kSystem, LogPriority::kInfo, kTag, CodeSite{nullptr, 0, nullptr}, notice,
                static_cast<std::size_t>(length));
      }
      lock.lock();
      state.done = last;
      state.sent.notify_all();
    }
  }

  void Drain() {
    State& state = *state_;
    common::MutexLock lock(state.mutex);
    if (!state.started) return;
    const std::uint64_t all = state.queued;
    state.hurry = true;
    state.wake.notify_one();
    const auto deadline = std::chrono::steady_clock::now() + kDrainWait;
    while (state.done < all) {
      if (state.sent.wait_until(lock.native(), deadline) == std::cv_status::timeout) break;
    }
  }

  // Replaced only in a forked child, while it has a single thread.
  State* state_ = new State;
};

}  // namespace

bool JournalReachable() {
  const std::int64_t now = CoarseNowNs();
  std::int64_t until = verdictUntilNs.load(std::memory_order_relaxed);
  if (now < until) return listening.load(std::memory_order_relaxed);
  // One thread looks; the others keep the previous verdict meanwhile.
  if (!verdictUntilNs.compare_exchange_strong(until, now + kProbeIntervalNs, std::memory_order_relaxed)) {
    return listening.load(std::memory_order_relaxed);
  }
  const bool found = JournalListens();
  listening.store(found, std::memory_order_relaxed);
  return found;
}

void PrepareJournalWriter() { Writer::Get(); }

void JournalSend(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
                 std::size_t length) {
  Writer::Get().Send(buffer, priority, tag, site, message, length);
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
