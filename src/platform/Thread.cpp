#include <zorvel/platform/Thread.h>

#include <pthread.h>

#include <memory>

namespace zv_client {
namespace platform {
namespace detail {
namespace {

void* RunWork(void* argument) {
  const std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(argument));
  (*work)();
  return nullptr;
}

}  // namespace

int StartDetachedThread(std::function<void()> work) {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  const std::unique_ptr<pthread_attr_t, int (*)(pthread_attr_t*)> destroy(&attributes, &pthread_attr_destroy);
  error = pthread_attr_setstacksize(&attributes, kLibraryThreadStackSize);
  if (error == 0) error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error != 0) return error;
  auto owned = std::make_unique<std::function<void()>>(std::move(work));
  pthread_t thread;
  error = pthread_create(&thread, &attributes, &RunWork, owned.get());
  if (error == 0) (void)owned.release();  // the thread owns it now
  return error;
}

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
