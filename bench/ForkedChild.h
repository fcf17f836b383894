#pragma once

// Work done in a child process forked for it. Namespaces (a journal path of
// our own) belong to the whole process, and a scenario that may leave the
// library stuck must not take the benchmark with it: the child sends its
// figures through a pipe and is killed when it overruns its deadline.

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace zv_bench {

// The child's end: figures sent to the parent as they are measured.
class ChildPipe {
 public:
  explicit ChildPipe(int fd) : fd_(fd) {}
  void Send(const std::string& key, double value) const;
  // Ends the child at once, with nothing torn down: its helper processes die
  // with it, and a library that may be stuck is not waited for.
  [[noreturn]] void Done() const;

 private:
  int fd_;
};

struct ChildResult {
  std::map<std::string, double> figures;  // what arrived, also from a child killed later
  bool killed = false;                    // still running at the deadline
};

// Forks a child that runs `body` and then ends (as Done does). Fork while this
// process has no other thread: the child may then take namespaces and start
// threads and processes of its own. Waits for the child's figures until it
// ends or `deadline` passes, then kills it.
ChildResult RunInChild(std::chrono::milliseconds deadline, const std::function<void(const ChildPipe&)>& body);

}  // namespace zv_bench
