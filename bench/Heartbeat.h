#pragma once

// A 10 ms timer on the default main context, the one the library's callbacks
// run on: the longest gap between two of its ticks is the longest the
// application's main loop could not run anything.

#include <pthread.h>

#include <mutex>

#include <glib.h>

#include "Timing.h"

namespace zv_bench {

class Heartbeat {
 public:
  static constexpr guint kPeriodMs = 10;

  Heartbeat();
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  // Starts a window: only the time from now on counts.
  void Open();
  // The longest gap between ticks since Open (ms), counting the gap that is
  // still running: a main loop stuck right now shows as long as it has been.
  double LongestGapMs();
  // Whether the calling thread is the one running the main loop (false
  // before the first tick).
  bool OnLoopThread();

 private:
  static gboolean Tick(gpointer self);

  guint source_ = 0;
  std::mutex mutex_;
  Ns opened_ = 0;  // guarded by mutex_, like every field below
  Ns last_ = 0;    // the last tick
  Ns longest_ = 0;
  bool ticked_ = false;
  pthread_t loop_{};
};

}  // namespace zv_bench
