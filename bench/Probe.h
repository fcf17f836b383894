#pragma once

// What the application observes, one probe per side: the callbacks record
// when each event reached them, and the measuring thread waits on the probe.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "Timing.h"

namespace zv_bench {

class Probe {
 public:
  struct Event {
    Ns at = 0;
    int id = 0;
    std::string name;
  };

  // Callbacks, from whatever thread delivers them.
  void Found(int id, const std::string& name) {
    const Ns at = NowNs();
    std::lock_guard<std::mutex> lock(mutex_);
    ++found_;
    lastFound_ = Event{at, id, name};
    if (profileTarget_ != 0 && ++profiles_ == profileTarget_) profilesDoneAt_ = at;
    changed_.notify_all();
  }
  void ConnectionAvailable(int id) {
    const Ns at = NowNs();
    std::lock_guard<std::mutex> lock(mutex_);
    ++available_;
    lastAvailable_ = Event{at, id, {}};
    changed_.notify_all();
  }
  // A whole list of profiles at once: the library's ReadProfiles outcome
  // (`command` its id) or the floor's decoded reply (`command` 0).
  void ProfileList(std::uint64_t command, std::size_t count) {
    const Ns at = NowNs();
    std::lock_guard<std::mutex> lock(mutex_);
    list_ = List{command, at, count};
    changed_.notify_all();
  }

  std::uint64_t FoundCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_;
  }
  std::uint64_t AvailableCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return available_;
  }
  std::uint64_t Echoes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_ + available_;
  }

  // Waits until more than `seen` onFound deliveries arrived; the last one.
  bool WaitFound(std::uint64_t seen, Event& event, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return found_ > seen; })) return false;
    event = lastFound_;
    return true;
  }
  bool WaitAvailable(std::uint64_t seen, Event& event, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return available_ > seen; })) {
      return false;
    }
    event = lastAvailable_;
    return true;
  }
  bool WaitEchoes(std::uint64_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return found_ + available_ >= count; });
  }

  // Counts the next `target` onFound deliveries as profiles.
  void ExpectProfiles(int target) {
    std::lock_guard<std::mutex> lock(mutex_);
    profileTarget_ = target;
    profiles_ = 0;
    profilesDoneAt_ = 0;
  }
  bool WaitProfiles(Ns& doneAt, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool done =
        changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return profilesDoneAt_ != 0; });
    doneAt = profilesDoneAt_;
    profileTarget_ = 0;
    return done;
  }

  // Waits for the list of `command`; when it arrived and how many it held.
  bool WaitProfileList(std::uint64_t command, Ns& at, std::size_t& count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool arrived = changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                           [&] { return list_.at != 0 && list_.command == command; });
    at = list_.at;
    count = list_.count;
    list_ = List{};
    return arrived;
  }

 private:
  struct List {
    std::uint64_t command = 0;
    Ns at = 0;
    std::size_t count = 0;
  };

  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t found_ = 0;  // guarded by mutex_, like every field below
  std::uint64_t available_ = 0;
  Event lastFound_;
  Event lastAvailable_;
  int profileTarget_ = 0;
  int profiles_ = 0;
  Ns profilesDoneAt_ = 0;
  List list_;
};

}  // namespace zv_bench
