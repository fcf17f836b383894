#include <platform/Journal.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

// The journal's native protocol: one datagram per entry on an AF_UNIX
// datagram socket, each field either "KEY=value\n" (value without a line
// feed) or "KEY\n" + little-endian 64-bit length + value + "\n". An entry too
// large for a datagram travels as a sealed memfd passed in an otherwise empty
// datagram.
//
// One socket serves the whole process. It is created on first use and
// connected to the journal's path, so a send does no path lookup, and it is
// never closed: other threads may be sending on it, and closing it would let
// its number be reused under them. Moving it to another peer is a connect()
// on the same socket. Sends take no lock (concurrent sends of whole
// datagrams on one socket do not mix); only connecting is serialised.
//
// The socket is blocking, as the journal client's is: when journald falls
// behind and its queue is full, a logging thread waits for it rather than
// losing the line. It never sees EAGAIN then; ENOBUFS (no kernel memory for
// the datagram) and EAGAIN are treated like EMSGSIZE, as the journal client
// does: the entry goes through a memfd, and is dropped if that fails too.
//
// After fork() the child shares the connected socket with its parent. That
// is fine for datagrams: each entry is one message, and journald learns the
// sender's pid from the credentials of each message, not from the socket.

namespace zv_client {
namespace platform {
namespace detail {
namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";
constexpr std::int64_t kProbeIntervalNs = 250 * 1000 * 1000;
// Larger entries go through a memfd: a datagram would need that much
// contiguous kernel memory, and three more syscalls are noise next to
// copying it.
constexpr std::size_t kMaxDatagram = 128 * 1024;
constexpr int kSendBuffer = 8 * 1024 * 1024;

struct Writer {
  // A leaf: nothing called under it logs or takes another lock.
  std::mutex connectMutex;
  int socket = -1;                  // guarded by connectMutex; published through `fd`
  std::string path = kJournalSocket;  // guarded by connectMutex
  std::atomic<int> fd{-1};          // the socket once created; never changes afterwards
  std::atomic<bool> reachable{false};
  // Connect attempts so far (written under connectMutex). A thread whose send
  // failed reconnects only if nobody has tried since it last looked, so a
  // journald restart costs one connect, not one per logging thread.
  std::atomic<std::uint64_t> attempts{0};
  std::atomic<std::int64_t> nextProbeNs{0};  // while unreachable: no probe before this
};

// Never destroyed: static destructors at exit still log.
Writer& State() {
  static Writer* const writer = new Writer;
  return *writer;
}

// Coarse is precise enough to space probes 250 ms apart, and the cheapest
// clock to read on every line while the journal is away.
std::int64_t CoarseNowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void RaiseSendBuffer(int fd) {
  // Best effort: SO_SNDBUFFORCE passes the system limit but needs
  // CAP_NET_ADMIN; SO_SNDBUF is capped by net.core.wmem_max.
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  }
}

// Called with connectMutex held.
bool ConnectLocked(Writer& writer) {
  writer.attempts.store(writer.attempts.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  bool connected = false;
  if (writer.socket < 0) {
    writer.socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (writer.socket >= 0) {
      RaiseSendBuffer(writer.socket);
      writer.fd.store(writer.socket, std::memory_order_release);
    }
  }
  if (writer.socket >= 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (writer.path.size() < sizeof address.sun_path) {
      std::memcpy(address.sun_path, writer.path.c_str(), writer.path.size() + 1);
      const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + writer.path.size() + 1);
      connected = ::connect(writer.socket, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }
    if (!connected) {
      // A failed connect keeps the previous peer; forget it, so that a socket
      // left over at the old path does not go on receiving lines.
      sockaddr unspecified{};
      unspecified.sa_family = AF_UNSPEC;
      ::connect(writer.socket, &unspecified, sizeof unspecified);
    }
  }
  if (!connected) writer.nextProbeNs.store(CoarseNowNs() + kProbeIntervalNs, std::memory_order_relaxed);
  writer.reachable.store(connected, std::memory_order_release);
  return connected;
}

// Connects unless another thread has tried since `*seen`; then its verdict
// stands. A thread that comes while another connects waits for it: connecting
// to a local socket takes microseconds, and the line is then not lost.
bool Reconnect(Writer& writer, std::uint64_t* seen) {
  std::lock_guard<std::mutex> lock(writer.connectMutex);
  if (writer.attempts.load(std::memory_order_relaxed) == *seen) ConnectLocked(writer);
  *seen = writer.attempts.load(std::memory_order_relaxed);
  return writer.reachable.load(std::memory_order_relaxed);
}

bool Reachable(Writer& writer, std::uint64_t* seen) {
  *seen = writer.attempts.load(std::memory_order_acquire);
  if (writer.reachable.load(std::memory_order_acquire)) return true;
  if (CoarseNowNs() < writer.nextProbeNs.load(std::memory_order_relaxed)) return false;
  return Reconnect(writer, seen);
}

// 0, or the errno of the failed send.
int SendMessage(int fd, msghdr* message) {
  while (::sendmsg(fd, message, MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

bool WriteAll(int fd, iovec* fields, int count) {
  while (count > 0) {
    const ssize_t written = ::writev(fd, fields, count);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    auto left = static_cast<std::size_t>(written);
    while (count > 0 && left >= fields->iov_len) {
      left -= fields->iov_len;
      ++fields;
      --count;
    }
    if (count > 0) {
      fields->iov_base = static_cast<char*>(fields->iov_base) + left;
      fields->iov_len -= left;
    }
  }
  return true;
}

// The entry in a sealed memfd: journald reads a file that can no longer
// change under it, whatever its size.
int SendAsMemfd(int fd, const iovec* fields, int count) {
  const int memfd = ::memfd_create("journal-data", MFD_ALLOW_SEALING | MFD_CLOEXEC);
  if (memfd < 0) return errno;
  iovec remaining[8];
  std::memcpy(remaining, fields, sizeof(iovec) * static_cast<std::size_t>(count));
  int result = EIO;
  if (WriteAll(memfd, remaining, count) &&
      ::fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0) {
    union {
      cmsghdr header;
      char space[CMSG_SPACE(sizeof(int))];
    } control{};
    msghdr message{};
    message.msg_control = control.space;
    message.msg_controllen = sizeof control.space;
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &memfd, sizeof memfd);
    result = SendMessage(fd, &message);
  }
  ::close(memfd);
  return result;
}

int SendEntry(int fd, iovec* fields, int count, std::size_t size) {
  if (size <= kMaxDatagram) {
    msghdr message{};
    message.msg_iov = fields;
    message.msg_iovlen = static_cast<std::size_t>(count);
    const int error = SendMessage(fd, &message);
    if (error != EMSGSIZE && error != ENOBUFS && error != EAGAIN) return error;
  }
  return SendAsMemfd(fd, fields, count);
}

void LittleEndian64(std::uint64_t value, unsigned char (&bytes)[8]) {
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(value & 0xff);
    value >>= 8;
  }
}

}  // namespace

bool JournalReachable() {
  std::uint64_t seen = 0;
  return Reachable(State(), &seen);
}

void JournalSend(LogBuffer buffer, LogPriority priority, const char* tag, const char* text, std::size_t length) {
  Writer& writer = State();
  std::uint64_t seen = 0;
  if (!Reachable(writer, &seen)) return;
  const int fd = writer.fd.load(std::memory_order_acquire);

  // The line feed that ends one field starts the next one's text. MESSAGE is
  // always binary: a line may hold line feeds and any bytes. The tag only
  // when it has a line feed, which the plain form cannot carry.
  unsigned char messageLength[8];
  LittleEndian64(length, messageLength);
  const char* priorityField = priority == LogPriority::kError     ? "\nPRIORITY=3\n"
                              : priority == LogPriority::kWarning ? "\nPRIORITY=4\n"
                                                                  : "\nPRIORITY=6\n";
  const char* bufferField = buffer == LogBuffer::kMain ? "\nZORVEL_LOG_BUFFER=main\n" : "\nZORVEL_LOG_BUFFER=system\n";
  if (tag == nullptr) tag = "";
  const std::size_t tagLength = std::strlen(tag);
  const bool binaryTag = std::memchr(tag, '\n', tagLength) != nullptr;
  unsigned char tagLengthBytes[8];
  LittleEndian64(tagLength, tagLengthBytes);

  iovec fields[8];
  int count = 0;
  auto add = [&](const void* data, std::size_t size) { fields[count++] = {const_cast<void*>(data), size}; };
  add("MESSAGE\n", 8);
  add(messageLength, sizeof messageLength);
  add(text, length);
  add(priorityField, std::strlen(priorityField));
  if (binaryTag) {
    add("SYSLOG_IDENTIFIER\n", 18);
    add(tagLengthBytes, sizeof tagLengthBytes);
  } else {
    add("SYSLOG_IDENTIFIER=", 18);
  }
  add(tag, tagLength);
  add(bufferField, std::strlen(bufferField));
  std::size_t size = 0;
  for (int i = 0; i < count; ++i) size += fields[i].iov_len;

  const int error = SendEntry(fd, fields, count, size);
  // ECONNREFUSED: journald went away (the kernel then disconnects the socket;
  // sends racing with that see ENOTCONN). If it restarted, its new socket is
  // already there: connect to it once and resend. Otherwise the line is
  // dropped and the journal is probed again later.
  if ((error == ECONNREFUSED || error == ENOTCONN) && Reconnect(writer, &seen)) {
    SendEntry(fd, fields, count, size);
  }
}

void SetJournalPathForTesting(const char* path) {
  Writer& writer = State();
  std::lock_guard<std::mutex> lock(writer.connectMutex);
  writer.path = path != nullptr ? path : kJournalSocket;
  ConnectLocked(writer);
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
