#include "support/PrivateJournal.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zv_client {
namespace testing {
namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

bool WriteFile(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  const bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) close(fd);
  return written;
}

std::string Failed(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

std::string EnterPrivateJournalDir() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid != 0 || unshare(CLONE_NEWNS) != 0) {
    // Without privileges, a user namespace grants them over the mount
    // namespace it owns; files made there need our ids mapped in it.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return Failed("unshare(CLONE_NEWUSER | CLONE_NEWNS)");
    const std::string uidMap = std::to_string(uid) + " " + std::to_string(uid) + " 1";
    const std::string gidMap = std::to_string(gid) + " " + std::to_string(gid) + " 1";
    if (!WriteFile("/proc/self/uid_map", uidMap) || !WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/gid_map", gidMap)) {
      return Failed("writing the user namespace's id maps");
    }
  }
  // Nothing mounted here may reach the namespace we came from.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Failed("making / private");
  // A tmpfs over the deepest of these folders that exists, the rest made in it.
  const char* const folders[] = {"/run", "/run/systemd", "/run/systemd/journal"};
  int deepest = 0;
  while (deepest < 2 && access(folders[deepest + 1], F_OK) == 0) ++deepest;
  if (mount("tmpfs", folders[deepest], "tmpfs", 0, "mode=0755") != 0) {
    return Failed(std::string("mounting a tmpfs on ") + folders[deepest]);
  }
  for (int i = deepest + 1; i < 3; ++i) {
    if (mkdir(folders[i], 0755) != 0) return Failed(std::string("mkdir ") + folders[i]);
  }
  return "";
}

int ListenAsJournal() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kJournalSocket, sizeof kJournalSocket);
  if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  if (fd >= 0) close(fd);
  errno = error;
  return -1;
}

}  // namespace testing
}  // namespace zv_client
