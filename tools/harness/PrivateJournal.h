#pragma once

// A journal of our own where libsystemd sends entries, whatever the
// machine runs: for a child process, since it takes namespaces.

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

namespace zv_client {
namespace testing {

// Makes /run/systemd/journal an empty directory that only this process sees:
// a mount namespace of its own (with a user namespace unless root, mapping
// only our ids) and a tmpfs over /run. Namespaces are the whole process's, so
// call it while the process has one thread, as a child just forked does.
// Empty when done, else why not.
inline std::string EnterPrivateJournalDir() {
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  auto write = [](const char* path, const std::string& text) { return !(std::ofstream(path) << text).fail(); };
  if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) {
    // EINVAL: another thread runs, such as a sanitizer's in a forked child.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
      return std::string("unshare(CLONE_NEWUSER): ") + std::strerror(errno);
    if (!write("/proc/self/uid_map", uid + " " + uid + " 1") || !write("/proc/self/setgroups", "deny") ||
        !write("/proc/self/gid_map", gid + " " + gid + " 1"))
      return "writing the user namespace's id maps failed";
  }
  // Nothing mounted here may reach the namespace we came from.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0 || mkdir("/run/systemd", 0755) != 0 ||
      mkdir("/run/systemd/journal", 0755) != 0)
    return std::string("a tmpfs over /run: ") + std::strerror(errno);
  return "";
}

// Binds a datagram socket at /run/systemd/journal/socket, as journald does:
// its descriptor, or -1 with errno set.
inline int ListenAsJournal() {
  sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);  // leaves bind's errno: close succeeds
  return -1;
}

}  // namespace testing
}  // namespace zv_client
