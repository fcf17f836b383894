#include <platform/Journal.h>

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
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

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
// Nothing is dropped on the way: a full queue makes the logging thread wait
// for room, an error line is sent before the call that logs it returns
// (with every line queued before it), and the queue is drained at exit.
// Lines still queued when the process crashes are the price.
class Writer {
 public:
  static Writer& Get() {
    static Writer* const writer = new Writer;  // never destroyed: lines are logged until the very end
    return *writer;
  }

  void Send(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
            std::size_t length) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_ && !Start()) {  // no thread to be had: the line goes out from here
      lock.unlock();
      SendNow(buffer, priority, tag, site, message, length);
      return;
    }
    room_.wait(lock, [this] { return queue_.size() < kCapacity; });
    queue_.push_back(Entry{buffer, priority, tag, site, std::string(message, length)});
    const std::uint64_t mine = ++queued_;
    if (queue_.size() == 1) wake_.notify_one();
    if (priority == LogPriority::kError) sent_.wait(lock, [&] { return done_ >= mine; });
  }

 private:
  struct Entry {
    LogBuffer buffer;
    LogPriority priority;
    std::string tag;  // a caller's tag need not outlive the call
    CodeSite site;    // static text: the macros' file and function names
    std::string message;
  };
  static constexpr std::size_t kCapacity = 8192;

  Writer() {
    // The child of a fork has no writer thread and must not send its
    // parent's lines: the lock is held across fork, then reset in the child.
    pthread_atfork([] { Get().mutex_.lock(); }, [] { Get().mutex_.unlock(); },
                   [] {
                     Writer& self = Get();
                     self.queue_.clear();
                     self.done_ = self.queued_;
                     self.started_ = false;
                     self.mutex_.unlock();
                   });
    std::atexit([] { Get().Drain(); });
  }

  bool Start() {  // mutex_ held
    try {
      std::thread([this] { Run(); }).detach();
    } catch (const std::exception&) {
      return false;  // tried again with the next line
    }
    return started_ = true;
  }

  void Run() {
    std::deque<Entry> batch;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !queue_.empty(); });
      batch.swap(queue_);
      const std::uint64_t last = queued_;
      room_.notify_all();
      lock.unlock();
      for (const Entry& entry : batch) {
        SendNow(entry.buffer, entry.priority, entry.tag.c_str(), entry.site, entry.message.data(),
                entry.message.size());
      }
      batch.clear();
      lock.lock();
      done_ = last;
      sent_.notify_all();
    }
  }

  void Drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_) return;
    const std::uint64_t all = queued_;
    sent_.wait_for(lock, std::chrono::seconds(1), [&] { return done_ >= all; });
  }

  std::mutex mutex_;  // a leaf: nothing is called under it that logs or locks
  std::condition_variable wake_, room_, sent_;
  std::deque<Entry> queue_;   // guarded by mutex_
  std::uint64_t queued_ = 0;  // lines ever queued; guarded by mutex_
  std::uint64_t done_ = 0;    // of those, sent (or dropped by a fork); guarded by mutex_
  bool started_ = false;      // guarded by mutex_
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

void JournalSend(LogBuffer buffer, LogPriority priority, const char* tag, const CodeSite& site, const char* message,
                 std::size_t length) {
  Writer::Get().Send(buffer, priority, tag, site, message, length);
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
