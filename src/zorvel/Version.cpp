#include <zorvel/Version.h>

namespace zv_client {
namespace zorvel {

// Compiled into the library, so it reports the library's own version even
// when the application was built against other headers.
const char* Version() noexcept { return ZORVEL_VERSION_STRING; }

}  // namespace zorvel
}  // namespace zv_client
