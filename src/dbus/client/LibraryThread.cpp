#include <zorvel/dbus/client/LibraryThread.h>

#include <pthread.h>

#include <memory>
#include <system_error>

#include <zorvel/dbus/client/TestHooks.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {
namespace {

void* RunWork(void* argument) {
  const std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(argument));
  (*work)();
  return nullptr;
}

}  // namespace

void StartLibraryThread(std::function<void()> work) {
  testing::Hook(testing::Point::kThreadStarts);  // a test may make the start fail here
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_attr_init");
  std::unique_ptr<pthread_attr_t, int (*)(pthread_attr_t*)> attributesHolder(&attributes, &pthread_attr_destroy);
  error = pthread_attr_setstacksize(&attributes, kLibraryThreadStackSize);
  if (error == 0) error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_attr_set");

  auto owned = std::make_unique<std::function<void()>>(std::move(work));
  pthread_t thread;
  error = pthread_create(&thread, &attributes, &RunWork, owned.get());
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
  owned.release();  // the thread owns it now
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
