#include "Heartbeat.h"

#include <algorithm>

namespace zv_bench {

Heartbeat::Heartbeat() {
  opened_ = last_ = NowNs();
  source_ = g_timeout_add(kPeriodMs, &Heartbeat::Tick, this);
}

Heartbeat::~Heartbeat() { g_source_remove(source_); }

void Heartbeat::Open() {
  std::lock_guard<std::mutex> lock(mutex_);
  opened_ = NowNs();
  longest_ = 0;
}

double Heartbeat::LongestGapMs() {
  std::lock_guard<std::mutex> lock(mutex_);
  const Ns now = NowNs();  // read under the lock: never before opened_ or last_
  return static_cast<double>(std::max(longest_, now - std::max(last_, opened_))) / 1e6;
}

bool Heartbeat::OnLoopThread() {
  std::lock_guard<std::mutex> lock(mutex_);
  return ticked_ && pthread_equal(loop_, pthread_self()) != 0;
}

gboolean Heartbeat::Tick(gpointer data) {
  auto& self = *static_cast<Heartbeat*>(data);
  std::lock_guard<std::mutex> lock(self.mutex_);
  const Ns now = NowNs();
  self.longest_ = std::max(self.longest_, now - std::max(self.last_, self.opened_));
  self.last_ = now;
  self.loop_ = pthread_self();
  self.ticked_ = true;
  return G_SOURCE_CONTINUE;
}

}  // namespace zv_bench
