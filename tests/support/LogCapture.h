#pragma once

#include <memory>
#include <string>

namespace zv_client {
namespace testing {

// Collects every library log line while it lives (from any thread) and puts
// the system log back when it goes; echoes them to stderr when
// ZORVEL_TEST_LOG is set. Lines are "[<tag>] <file>: <function>(<line>) > <message>".
// The lines are for failure messages: tests wait on behaviour (outcomes, the
// link state, call records, test points), and read wording only in the log
// contract's own test.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void SetKeepLines(bool keep);  // off: lines are taken but dropped, for long runs
  std::string Dump() const;      // every line, for failure messages

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace testing
}  // namespace zv_client
