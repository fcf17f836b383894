// One libFuzzer target for everything the library reads from the other side
// of the bus: the payload decoders, and the Launcher's signal handlers behind
// the signal dispatch. Byte 0 picks which (FuzzInput.h). Besides the
// sanitizers, every case checks what the decoders promise and aborts when it
// does not hold; any GLib warning or critical is fatal too.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>
#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/dbus/client/DBusClient.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/platform/SystemLog.h>

#include "FuzzInput.h"

using namespace zv_client;
using common::GVariantPtr;

namespace {

void Check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "zorvel fuzz check failed: %s\n", what);
  std::abort();
}

bool IsOfType(GVariant* value, const char* type) {
  return value != nullptr && g_variant_is_of_type(value, G_VARIANT_TYPE(type));
}

// Encoders hand out a new floating reference; the check takes it over.
GVariantPtr Encoded(GVariant* fresh, const char* type) {
  Check(fresh != nullptr && g_variant_is_floating(fresh), "an encoder returns a new floating reference");
  GVariantPtr owned = common::SinkVariant(fresh);
  Check(type == nullptr || IsOfType(owned.get(), type), "encoder type");
  return owned;
}

// A GLib warning or critical means the library handed GLib something it must
// not (a wrong format, a wrong type): make it a crash so libFuzzer keeps the
// input. Everything quieter is dropped.
GLogWriterOutput FatalGLibWriter(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer data) {
  if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) == 0) return G_LOG_WRITER_HANDLED;
  g_log_writer_standard_streams(level, fields, count, data);
  std::abort();
}

// ---- Decoders --------------------------------------------------------------

void IntegerCase(GVariant* value) {
  const int result = common::VariantToInteger(value);
  if (!IsOfType(value, "(i)")) Check(result == 0, "another type must give 0");
  Check(common::VariantToInteger(Encoded(common::IntegerToVariant(result), "(i)").get()) == result,
        "integer round trip");
}

void TextCase(GVariant* value) {
  const std::string text = common::VariantToString(value);
  if (!IsOfType(value, "(s)")) Check(text.empty(), "another type must give the empty text");
  // Whatever bytes came out (NULs, non-UTF-8) must travel back unchanged.
  Check(common::VariantToString(Encoded(common::StringToVariant(text), "(s)").get()) == text, "text round trip");
}

// Presets of the out-parameters, which a failed decode must leave alone.
const std::string kUntouched = "untouched";
constexpr int kUntouchedNumber = -7;
constexpr const char* kLeftAlone = "a failed decode must leave its outputs alone";

bool IsUint16(int number) { return number >= 0 && number <= 65535; }

// In the three byte-array formats an empty result is legal (no valid base64
// characters) but encodes to an empty array, which does not decode: only
// non-empty data is sent back.
void DataCase(GVariant* value) {
  std::string data = kUntouched;
  if (!common::DeserializeDataFromGVariant(value, data)) return Check(data == kUntouched, kLeftAlone);
  if (data.empty()) return;
  std::string back;
  Check(common::DeserializeDataFromGVariant(Encoded(common::SerializeIntoGVariant(data), "(ay)").get(), back) &&
            back == data,
        "data round trip");
}

void DataAndNumberCase(GVariant* value) {
  std::string data = kUntouched;
  int number = kUntouchedNumber;
  if (!common::DeserializeDataFromGVariant(value, data, number)) {
    return Check(data == kUntouched && number == kUntouchedNumber, kLeftAlone);
  }
  Check(IsUint16(number), "the number is an unsigned 16-bit value");
  if (data.empty()) return;
  std::string back;
  int backNumber = 0;
  GVariantPtr again = Encoded(common::SerializeIntoGVariant(data, number), "(ayq)");
  Check(common::DeserializeDataFromGVariant(again.get(), back, backNumber) && back == data && backNumber == number,
        "data-and-number round trip");
}

void ProfileWithStatusCase(GVariant* value) {
  common::SessionProfile profile{kUntouched, kUntouchedNumber};
  int status = kUntouchedNumber;
  if (!common::VariantToProfileWithStatus(value, profile, status)) {
    return Check(profile.name == kUntouched && profile.id == kUntouchedNumber && status == kUntouchedNumber,
                 kLeftAlone);
  }
  Check(IsUint16(profile.id) && IsUint16(status), "id and status are unsigned 16-bit values");
  if (profile.name.empty()) return;
  common::SessionProfile back;
  int backStatus = 0;
  GVariantPtr again = Encoded(common::ProfileWithStatusToVariant(profile, status), "(ayqq)");
  Check(common::VariantToProfileWithStatus(again.get(), back, backStatus) && back.name == profile.name &&
            back.id == profile.id && backStatus == status,
        "profile-with-status round trip");
}

void ProfileListCase(GVariant* value) {
  std::vector<common::SessionProfile> profiles;
  try {
    profiles = common::VariantToProfiles(value);
  } catch (const std::invalid_argument&) {
    return;  // a count or id text without digits: refused by design
  } catch (const std::out_of_range&) {
    return;  // a number beyond its type: refused by design
  }
  if (!IsOfType(value, "(r)")) {
    Check(profiles.empty(), "another shape must give no profiles");
    return;
  }
  GVariantPtr inner(g_variant_get_child_value(value, 0));
  const std::size_t elements = g_variant_n_children(inner.get());
  Check(profiles.size() == (elements > 0 ? (elements - 1) / 2 : 0), "one profile per complete pair of elements");

  // Every decoded list, NULs and negative ids included, encodes back to itself.
  const auto back = common::VariantToProfiles(Encoded(common::ProfilesToVariant(profiles), nullptr).get());
  Check(std::equal(back.begin(), back.end(), profiles.begin(), profiles.end(),
                   [](const auto& a, const auto& b) { return a.name == b.name && a.id == b.id; }),
        "profile list round trip");
}

// ---- Signal handlers -------------------------------------------------------

// The one use of the testing hook, so that a change of its return type is
// fixed here.
dbus::client::DBusClient* LauncherClient() { return zorvel::testing::CurrentClient(); }

std::vector<std::string> calls;  // what the application's callbacks saw during one input

std::string Found(int id, const std::string& name) { return "found " + std::to_string(id) + " " + name; }
std::string Cancelled(int status) { return "cancel " + std::to_string(status); }
std::string Available(int id, bool state) { return "available " + std::to_string(id) + (state ? " on" : " off"); }

const std::string kLowerCaseOnFound = "onfound";  // names match byte for byte
const std::string kUnknownName = "onSomethingElse";

void SignalCase(const std::string& member, GVariant* body) {
  // What the handlers must deliver, worked out with the decoders they use.
  std::vector<std::string> expected;
  std::string name;
  int id = 0;
  common::SessionProfile profile;
  int status = 0;
  if (member == dbus::client::kSignalOnFound && common::DeserializeDataFromGVariant(body, name, id)) {
    expected.push_back(Found(id, name));
  } else if (member == dbus::client::kSignalOnCancel && common::VariantToProfileWithStatus(body, profile, status)) {
    expected.push_back(Cancelled(status));
  } else if (member == dbus::client::kSignalOnConnectionAvailable && body != nullptr) {
    guint16 first = 0;
    guint16 second = 0;  // another type leaves both at 0
    if (IsOfType(body, "(qq)")) g_variant_get(body, "(qq)", &first, &second);
    expected.push_back(Available(first, second != 0));
  }

  calls.clear();
  dbus::client::DBusClient* client = LauncherClient();
  Check(client != nullptr, "the client went away");
  client->HandleSignal(member, body);
  Check(calls == expected, "the callbacks run exactly when, and with what, the handler's decoder yields");
}

// ---- Input -----------------------------------------------------------------

void Run(unsigned which, GVariant* value) {
  using namespace dbus::client;
  static const std::string* const kMembers[] = {
      &kSignalOnFound,         &kSignalOnCancel,          &kSignalOnDbusClosing, &kSignalOnConnectionAvailable,
      &kSignalOnVoiceGuideSay, &kSignalOnServiceShutdown, &kLowerCaseOnFound,    &kUnknownName};
  static void (*const kDecoders[])(GVariant*) = {IntegerCase, TextCase, DataCase, DataAndNumberCase,
                                                 ProfileWithStatusCase};
  if (which < zv_fuzz::kOnFound) return kDecoders[which](value);
  if (which < zv_fuzz::kProfileList) return SignalCase(*kMembers[which - zv_fuzz::kOnFound], value);
  ProfileListCase(value);
}

// Loads the value after byte 0 untrusted, as GDBus hands over a received
// body. False when the input is unusable; `value` stays null for a null value.
bool Load(const std::uint8_t* data, std::size_t size, const std::string& wireType, GVariantPtr& value) {
  const auto* rest = reinterpret_cast<const char*>(data + 1);
  std::size_t restSize = size - 1;
  std::string type = wireType;
  if ((data[0] & zv_fuzz::kForceType) == 0) {
    const void* nul = std::memchr(rest, '\0', restSize);
    if (nul == nullptr) return false;
    type.assign(rest, static_cast<const char*>(nul));
    if (type.empty()) return true;
    restSize -= type.size() + 1;
    rest += type.size() + 1;
    if (!g_variant_type_string_is_valid(type.c_str()) || !g_variant_type_is_definite(G_VARIANT_TYPE(type.c_str()))) {
      return false;
    }
  }
  // No copy: the value reads the fuzzer's buffer in place (GLib copies only
  // when the alignment needs it), and it is released before the input ends.
  GVariantPtr loaded(g_variant_ref_sink(
      g_variant_new_from_data(G_VARIANT_TYPE(type.c_str()), rest, restSize, FALSE, nullptr, nullptr)));
  // GLib 2.74 aborts on an assertion when it takes a child out of some
  // non-normal values of mixed tuple shapes, e.g. "((ia{sv}s))" over the five
  // bytes "MgA=\0" (fuzz/regressions/); g_variant_get_normal_form trips over
  // the same. GDBus only ever hands out values in normal form, so non-normal
  // data is kept for the case's own wire type, where it is fair game, and
  // other types come in normal form only.
  if (type != wireType && !g_variant_is_normal_form(loaded.get())) return false;
  // Under kNormalForm the code under test sees a trusted, re-serialized value.
  value.reset((data[0] & zv_fuzz::kNormalForm) != 0 ? g_variant_get_normal_form(loaded.get()) : loaded.release());
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  // GLib 2.74 still serves GVariant nodes from its slice magazines, where
  // LeakSanitizer cannot see a lost reference. GLib picks the allocator in its
  // own constructor, before any of our code, so the process restarts itself
  // once with G_SLICE set.
  const char* slice = std::getenv("G_SLICE");
  if (slice == nullptr || std::strstr(slice, "always-malloc") == nullptr) {
    setenv("G_SLICE", "always-malloc", 1);
    execv("/proc/self/exe", *argv);
    std::perror("re-exec with G_SLICE=always-malloc failed; leaks of GVariant nodes go unseen");
  }
  // The library logs every step; formatting still runs, writing does not.
  platform::SetLogSink([](platform::LogBuffer, platform::LogPriority, const char*, const char*) {});
  g_log_set_writer_func(&FatalGLibWriter, nullptr, nullptr);

  // Built here, after the library's own statics, so it is destroyed before
  // them at exit: the client's teardown runs under the sanitizers too.
  static zorvel::Launcher launcher;
  launcher.SetOnInstanceFoundCallback([](int id, const std::string& name) { calls.push_back(Found(id, name)); });
  launcher.SetOnCancelConnectionCallback([](int status) { calls.push_back(Cancelled(status)); });
  launcher.SetOnConnectionAvailable([](int id, bool state) { calls.push_back(Available(id, state)); });
  // No main loop runs here, so the client never reaches the bus; the dispatch
  // and the handlers work all the same, and onDbusClosing reaches the command
  // layer's Disconnect.
  Check(launcher.Init() == 0, "Launcher::Init");
  Check(LauncherClient() != nullptr, "Init installed no client");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return -1;
  const unsigned which = (data[0] >> zv_fuzz::kCaseShift) % zv_fuzz::kCaseCount;
  GVariantPtr value;
  if (!Load(data, size, zv_fuzz::WireType(which), value)) return -1;
  Run(which, value.get());
  return 0;
}
