#include <zorvel/dbus/client/LibraryThread.h>

#include <system_error>

#include <zorvel/dbus/client/CommandGate.h>
#include <zorvel/dbus/client/TestHooks.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

void StartLibraryThread(std::function<void()> work) {
  testing::Hook(testing::Point::kThreadStarts);  // a test may make the start fail here
  const int error = platform::detail::StartDetachedThread(std::move(work));
  if (error != 0) throw std::system_error(error, std::generic_category(), "no thread could be started");
}

void StartGatedLibraryThread(std::shared_ptr<CommandGate> gate, std::function<void()> work) {
  gate->Enter();
  try {
    StartLibraryThread([gate, work = std::move(work)] {
      work();
      gate->Leave();
    });
  } catch (...) {
    gate->Leave();
    throw;
  }
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
