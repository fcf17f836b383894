#pragma once

#include <string>

namespace zv_client {
namespace testing {

// Makes /run/systemd/journal, where libsystemd sends journal entries, an
// empty directory that only this process sees: enters a mount namespace of
// its own (with a user namespace unless root) and mounts a tmpfs there. The
// namespaces are the whole process's, so call it while the process has one
// thread, as a child just forked does. Empty when done, else why not.
std::string EnterPrivateJournalDir();

// Binds a datagram socket at /run/systemd/journal/socket, as journald does:
// its descriptor, or -1 with errno set.
int ListenAsJournal();

}  // namespace testing
}  // namespace zv_client
