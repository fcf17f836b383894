// A minimal application of the installed library: one payload round trip
// through the public helpers, log lines caught by a sink, a Launcher created
// and destroyed (which needs no bus), and the installed header's version
// matching the installed library's.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <zorvel/Launcher.h>
#include <zorvel/Version.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/platform/SystemLog.h>

namespace common = zv_client::common;
namespace platform = zv_client::platform;

int main() {
  int lines = 0;
  platform::SetLogSink([&lines](platform::LogBuffer, platform::LogPriority, const char*, const char*) { ++lines; });

  const std::vector<common::SessionProfile> sent{{"Living room", 7}, {"Kitchen", -5}};
  GVariant* payload = g_variant_ref_sink(common::ProfilesToVariant(sent));
  const std::vector<common::SessionProfile> received = common::VariantToProfiles(payload);
  g_variant_unref(payload);

  bool ok = received.size() == sent.size();
  for (std::size_t i = 0; ok && i < sent.size(); ++i) {
    ok = received[i].name == sent[i].name && received[i].id == sent[i].id;
  }
  if (!ok || lines == 0) {
    std::fprintf(stderr, "profile round trip failed (%zu profiles, %d log lines)\n", received.size(), lines);
    return 1;
  }

  { zv_client::zorvel::Launcher launcher; }

  if (std::strcmp(zv_client::zorvel::Version(), ZORVEL_VERSION_STRING) != 0) {
    std::fprintf(stderr, "header version %s, library version %s\n", ZORVEL_VERSION_STRING,
                 zv_client::zorvel::Version());
    return 1;
  }

  platform::SetLogSink(nullptr);
  std::printf("zorvel consumer: ok (%d log lines)\n", lines);
  return 0;
}
