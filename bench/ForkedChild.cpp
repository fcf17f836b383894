#include "ForkedChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Report.h"
#include "Timing.h"

namespace zv_bench {

void ChildPipe::Send(const std::string& key, double value) const {
  char line[256];
  const int n = std::snprintf(line, sizeof line, "%s %.17g\n", key.c_str(), value);
  // One short write per figure: the parent never sees half a line.
  if (n > 0 && n < static_cast<int>(sizeof line) && write(fd_, line, static_cast<std::size_t>(n)) != n) {
    std::fprintf(stderr, "zorvel-bench: child: cannot send %s\n", key.c_str());
  }
}

void ChildPipe::Done() const { std::_Exit(0); }

ChildResult RunInChild(std::chrono::milliseconds deadline, const std::function<void(const ChildPipe&)>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) Fatal(std::string("pipe2: ") + std::strerror(errno));
  std::fflush(nullptr);  // nothing buffered is written twice
  const pid_t child = fork();
  if (child < 0) Fatal(std::string("fork: ") + std::strerror(errno));
  if (child == 0) {
    close(fds[0]);
    const ChildPipe out(fds[1]);
    body(out);
    out.Done();
  }
  close(fds[1]);

  ChildResult result;
  std::string received;
  const Ns end = NowNs() + static_cast<Ns>(deadline.count()) * 1000000ULL;
  for (;;) {
    const Ns now = NowNs();
    if (now >= end) {
      result.killed = true;
      break;
    }
    pollfd entry{fds[0], POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>((end - now) / 1000000ULL) + 1);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n <= 0) break;  // the child ended
    received.append(buffer, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  if (result.killed) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);

  std::istringstream lines(received);
  std::string key;
  double value = 0;
  while (lines >> key >> value) result.figures[key] = value;
  return result;
}

}  // namespace zv_bench
