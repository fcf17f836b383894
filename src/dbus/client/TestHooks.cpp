#include <zorvel/dbus/client/TestHooks.h>

#include <atomic>
#include <memory>
#include <mutex>

#include <zorvel/common/ThreadAnnotations.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace testing {
namespace {

struct Installed {
  common::Mutex mutex;
  std::shared_ptr<const std::function<void(Point)>> hook ZV_GUARDED_BY(mutex);
  std::atomic<bool> any{false};
};

Installed& State() {
  static Installed* const state = new Installed;  // used by clients destroyed at exit
  return *state;
}

}  // namespace

void SetHook(std::function<void(Point)> hook) {
  Installed& state = State();
  std::shared_ptr<const std::function<void(Point)>> replacement;
  if (hook) replacement = std::make_shared<const std::function<void(Point)>>(std::move(hook));
  common::MutexLock lock(state.mutex);
  state.any = replacement != nullptr;
  state.hook.swap(replacement);
}

void Hook(Point point) {
  Installed& state = State();
  if (!state.any.load(std::memory_order_relaxed)) return;
  std::shared_ptr<const std::function<void(Point)>> hook;
  {
    common::MutexLock lock(state.mutex);
    hook = state.hook;
  }
  if (hook) (*hook)(point);
}

}  // namespace testing
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
