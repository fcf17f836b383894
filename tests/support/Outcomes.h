#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>
#include <zorvel/dbus/client/DBusClientAsync.h>
#include <zorvel/dbus/client/TestHooks.h>

#include "support/Wait.h"

namespace zv_client {
namespace testing {

// Installs a test hook, and removes it however the test ends.
struct ScopedHook {
  explicit ScopedHook(std::function<void(dbus::client::testing::Point)> hook) {
    dbus::client::testing::SetHook(std::move(hook));
  }
  ~ScopedHook() { dbus::client::testing::SetHook(nullptr); }
};

// Counts the test points the layer reached (which kind of connect attempt made the link, teardowns
// and the thread of the latest), and can step into the first connect.
class HookCounts {
 public:
  using Point = dbus::client::testing::Point;
  explicit HookCounts(std::function<void()> onConnected = {}) : onConnected_(std::move(onConnected)) {}
  int byTimer() const { return byTimer_; }
  int byNameWatch() const { return byNameWatch_; }
  bool reconnectWaits() const { return reconnectWaits_; }
  int started() const { return started_; }      // connect attempts begun
  int teardowns() const { return teardowns_; }  // client destructors begun
  std::thread::id tornDownOn() const { return tornDownOn_; }

 private:
  std::function<void()> onConnected_;  // run once, on the connect attempt's thread
  std::atomic<int> byTimer_{0}, byNameWatch_{0}, started_{0}, teardowns_{0};
  std::atomic<bool> reconnectWaits_{false};
  std::atomic<std::thread::id> tornDownOn_{};
  ScopedHook hook_{[this](Point point) {  // after what it touches
    if (point == Point::kReconnectAwaitsLink) reconnectWaits_ = true;
    if (point == Point::kAttemptStarts) ++started_;
    if (point == Point::kTeardownBegins) tornDownOn_ = std::this_thread::get_id(), ++teardowns_;
    if (point != Point::kConnectedByTimer && point != Point::kConnectedByNameWatch) return;
    (point == Point::kConnectedByTimer ? byTimer_ : byNameWatch_)++;
    if (onConnected_) std::exchange(onConnected_, nullptr)();
  }};
};

// The client the Launchers share.
inline dbus::client::DBusClientAsync& Client() {
  return *static_cast<dbus::client::DBusClientAsync*>(zorvel::testing::CurrentClient());
}

// Every outcome a Launcher delivered, with the thread it came on.
class Outcomes : public Recorder<std::pair<zorvel::CommandOutcome, std::thread::id>> {
 public:
  using Outcome = zorvel::CommandOutcome;
  using Status = zorvel::CommandStatus;
  // Records each outcome, after running `also` on it (in the callback); a command must end once.
  void Attach(zorvel::Launcher& launcher, std::function<void(const Outcome&)> also = {}) {
    launcher.SetOnCommandOutcome([this, also](const Outcome& outcome) {
      if (also) also(outcome);
      EXPECT_FALSE(outcome.final && Find(outcome.id, true)) << "command " << outcome.id << " told after it ended";
      Add({outcome, std::this_thread::get_id()});
    });
  }
  // The outcome of `id` (final, or "held") with its thread, if it came.
  std::optional<std::pair<Outcome, std::thread::id>> Find(zorvel::CommandId id, bool final = true) const {
    for (const auto& told : Items())
      if (told.first.id == id && told.first.final == final) return told;
    return std::nullopt;
  }
  // The final outcome of `id`, waiting for it; an empty one (and a failure) at the deadline.
  Outcome Final(zorvel::CommandId id) const {
    EXPECT_TRUE(WaitUntil([&] { return Find(id).has_value(); })) << "no outcome for command " << id;
    const auto told = Find(id);
    return told ? told->first : Outcome();
  }
  // Issues a command through `issue(&id)` and waits for its final outcome.
  template <typename Issue>
  Outcome Run(Issue issue) const {
    zorvel::CommandId id = 0;
    issue(&id);
    return Final(id);
  }
  // The statuses `id` was told, in order, once it ended (those told by then at the deadline).
  std::vector<Status> Of(zorvel::CommandId id) const {
    std::vector<Status> statuses;
    WaitUntil([&] { return Find(id).has_value(); });
    for (const auto& told : Items())
      if (told.first.id == id) statuses.push_back(told.first.status);
    return statuses;
  }
};

// Waits until `recorder` holds exactly `expected`; when it does not, says what it holds.
template <typename T>
::testing::AssertionResult Holds(const Recorder<T>& recorder, const std::vector<T>& expected) {
  if (recorder.WaitFor(expected)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "holds " << ::testing::PrintToString(recorder.Items());
}

// The ends one command of the layer was told, in order, and the thread of the latest.
struct Ends : Recorder<dbus::client::DBusClientAsync::CommandEnd::Kind> {
  std::atomic<std::thread::id> thread{};
  dbus::client::DBusClientAsync::CommandObserver Observer() {
    return [this](const dbus::client::DBusClientAsync::CommandEnd& end) {
      thread = std::this_thread::get_id(), Add(end.kind);
    };
  }
};

}  // namespace testing
}  // namespace zv_client
