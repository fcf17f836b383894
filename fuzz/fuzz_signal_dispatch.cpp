// Arbitrary signal bodies through the dispatch into the Launcher's handlers,
// as if the daemon (or anything else on the bus) had emitted them.
//
// Target bits of the control byte: bits 0-2 pick the member name, bit 3
// hands the handler a null body instead of the loaded value.

#include <string>

#include <common/GLibUtils.h>
#include <dbus/client/DBusClient.h>
#include <dbus/client/ServiceContract.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "FuzzSupport.h"

using namespace zv_client;
using common::GVariantPtr;

namespace {

struct Member {
  const std::string& name;
  const char* wireType;  // the body the daemon sends with it
};

const std::string kCaseVariant = "onfound";  // names match byte for byte
const std::string kUnknown = "onSomethingElse";

const Member kMembers[8] = {
    {dbus::client::kSignalOnFound, "(ayq)"},
    {dbus::client::kSignalOnCancel, "(ayqq)"},
    {dbus::client::kSignalOnDbusClosing, "(i)"},
    {dbus::client::kSignalOnConnectionAvailable, "(qq)"},
    {dbus::client::kSignalOnVoiceGuideSay, "(ay)"},
    {dbus::client::kSignalOnServiceShutdown, "(i)"},
    {kCaseVariant, "(ayq)"},
    {kUnknown, "(i)"},
};

// What the application's callbacks saw during one input.
struct Seen {
  int found = 0;
  int foundId = -1;
  std::string foundName;
  int cancelled = 0;
  int cancelStatus = -1;
  int available = 0;
  int availableId = -1;
  bool availableState = false;
};
Seen seen;

zorvel::Launcher& TheLauncher() {
  // Built on first use, after the library's own statics, so it is destroyed
  // before them at exit: the client's teardown runs under the sanitizers too.
  static zorvel::Launcher launcher;
  return launcher;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  zorvel::Launcher& launcher = TheLauncher();
  launcher.SetOnInstanceFoundCallback([](int id, const std::string& name) {
    ++seen.found;
    seen.foundId = id;
    seen.foundName = name;
  });
  launcher.SetOnCancelConnectionCallback([](int status) {
    ++seen.cancelled;
    seen.cancelStatus = status;
  });
  launcher.SetOnConnectionAvailable([](int id, bool state) {
    ++seen.available;
    seen.availableId = id;
    seen.availableState = state;
  });
  // No main loop runs here, so the client never reaches the bus; the
  // dispatch and the handlers work all the same.
  zv_fuzz::Check(launcher.Init() == 0, "Launcher::Init");
  zv_fuzz::Check(zorvel::testing::CurrentClient() != nullptr, "Init installed no client");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return -1;
  const Member& member = kMembers[(data[0] >> zv_fuzz::kTargetShift) & 0x07U];
  const bool nullBody = ((data[0] >> zv_fuzz::kTargetShift) & 0x08U) != 0;
  zv_fuzz::Input input = zv_fuzz::Load(data, size, member.wireType);
  if (!input.value && !nullBody) return -1;
  GVariant* body = nullBody ? nullptr : input.value.get();

  // What the handlers must deliver, worked out with the decoders they use.
  std::string name;
  int id = 0;
  const bool expectFound = member.name == dbus::client::kSignalOnFound &&
                           common::DeserializeDataFromGVariant(body, name, id);
  common::SessionProfile cancelled;
  int status = 0;
  const bool expectCancel = member.name == dbus::client::kSignalOnCancel &&
                            common::VariantToProfileWithStatus(body, cancelled, status);
  const bool expectAvailable = member.name == dbus::client::kSignalOnConnectionAvailable && body != nullptr;
  guint16 availableId = 0;
  guint16 availableState = 0;
  if (expectAvailable && g_variant_is_of_type(body, G_VARIANT_TYPE("(qq)"))) {
    g_variant_get(body, "(qq)", &availableId, &availableState);
  }

  seen = Seen{};
  dbus::client::DBusClient* client = zorvel::testing::CurrentClient();
  zv_fuzz::Check(client != nullptr, "the client went away");
  client->HandleSignal(member.name, body);

  zv_fuzz::Check(seen.found == (expectFound ? 1 : 0), "instance-found calls");
  if (expectFound) zv_fuzz::Check(seen.foundId == id && seen.foundName == name, "instance-found arguments");
  zv_fuzz::Check(seen.cancelled == (expectCancel ? 1 : 0), "cancel calls");
  if (expectCancel) zv_fuzz::Check(seen.cancelStatus == status, "cancel status");
  zv_fuzz::Check(seen.available == (expectAvailable ? 1 : 0), "connection-available calls");
  if (expectAvailable) {
    zv_fuzz::Check(seen.availableId == availableId && seen.availableState == (availableState != 0),
                   "connection-available arguments");
  }
  return 0;
}
