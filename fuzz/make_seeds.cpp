// Writes the seed corpora of the fuzz targets: the wire forms that the
// library's own encoders make, in the fuzzers' input layout (FuzzSupport.h).
//
//   fuzz_make_seeds <corpus-root>     e.g. fuzz_make_seeds fuzz/corpus
//
// Each seed is written twice where the target has a wire type of its own:
// once with its type string and once under kForceType. Files are overwritten,
// never removed, so the output is the same on every run.

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <platform/SystemLog.h>

#include "FuzzSupport.h"

using namespace zv_client::common;
namespace fs = std::filesystem;

namespace {

struct Writer {
  fs::path root;
  int written = 0;

  // One seed file: control byte, then (unless forced) type string and NUL,
  // then the serialized value.
  void Write(const std::string& target, const std::string& name, std::uint8_t control, GVariant* value) {
    GVariantPtr owned = SinkVariant(value);
    std::string bytes(1, static_cast<char>(control));
    if ((control & zv_fuzz::kForceType) == 0) {
      bytes += g_variant_get_type_string(owned.get());
      bytes += '\0';
    }
    std::string serialized(g_variant_get_size(owned.get()), '\0');
    g_variant_store(owned.get(), serialized.data());
    bytes += serialized;

    const fs::path directory = root / target;
    fs::create_directories(directory);
    std::ofstream file(directory / name, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) {
      std::fprintf(stderr, "cannot write %s\n", (directory / name).c_str());
      std::exit(1);
    }
    ++written;
  }

  // The same value with its type string, forced, and as a normal-form input.
  // `make` builds a fresh floating value per call.
  template <typename Make>
  void WriteAll(const std::string& target, const std::string& name, std::uint8_t targetBits, Make make) {
    const auto bits = static_cast<std::uint8_t>(targetBits << zv_fuzz::kTargetShift);
    Write(target, name, bits, make());
    Write(target, name + ".forced", static_cast<std::uint8_t>(bits | zv_fuzz::kForceType), make());
    Write(target, name + ".normal", static_cast<std::uint8_t>(bits | zv_fuzz::kNormalForm), make());
  }
};

const std::string kNulName("a\0b", 3);
const std::string kRawName("\xff\xfe caf\xc3", 8);  // not UTF-8

std::vector<SessionProfile> ThreeProfiles() {
  return {{"Kitchen speaker", 101}, {kNulName, -5}, {kRawName, INT_MAX}};
}

GVariant* QQ(guint16 first, guint16 second) { return g_variant_new("(qq)", first, second); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus-root>\n", argv[0]);
    return 2;
  }
  zv_client::platform::SetLogSink([](zv_client::platform::LogBuffer, zv_client::platform::LogPriority, const char*,
                                     const char*) {});
  Writer out{argv[1]};

  // Profile list: the target bits give the inner element count minus one.
  out.WriteAll("fuzz_profile_list", "empty", 0, [] { return ProfilesToVariant({}); });
  out.WriteAll("fuzz_profile_list", "one", 2, [] { return ProfilesToVariant({{"Living room", 7}}); });
  out.WriteAll("fuzz_profile_list", "three", 6, [] { return ProfilesToVariant(ThreeProfiles()); });
  out.Write("fuzz_profile_list", "foreign-text", 0, StringToVariant("6"));

  out.WriteAll("fuzz_profile_with_status", "abc", 0,
               [] { return ProfileWithStatusToVariant({"abc", 3}, 2); });
  out.WriteAll("fuzz_profile_with_status", "raw", 0,
               [] { return ProfileWithStatusToVariant({kRawName, -1}, 65536); });
  out.WriteAll("fuzz_profile_with_status", "empty-name", 0,
               [] { return ProfileWithStatusToVariant({"", 1}, 1); });
  out.Write("fuzz_profile_with_status", "foreign-data-and-number", 0, SerializeIntoGVariant("abc", 3));

  out.WriteAll("fuzz_data_and_number", "kitchen", 0, [] { return SerializeIntoGVariant("Kitchen speaker", 101); });
  out.WriteAll("fuzz_data_and_number", "nul", 0, [] { return SerializeIntoGVariant(kNulName, -1); });
  out.WriteAll("fuzz_data_and_number", "empty", 0, [] { return SerializeIntoGVariant("", 5); });
  out.Write("fuzz_data_and_number", "foreign-profile-with-status", 0,
            ProfileWithStatusToVariant({"abc", 3}, 2));

  out.WriteAll("fuzz_data", "hello", 0, [] { return SerializeIntoGVariant("Hello from the daemon"); });
  out.WriteAll("fuzz_data", "raw", 0, [] { return SerializeIntoGVariant(kRawName); });
  out.WriteAll("fuzz_data", "empty", 0, [] { return SerializeIntoGVariant(""); });
  out.Write("fuzz_data", "foreign-data-and-number", 0, SerializeIntoGVariant("abc", 3));

  out.WriteAll("fuzz_integer", "zero", 0, [] { return IntegerToVariant(0); });
  out.WriteAll("fuzz_integer", "minus-one", 0, [] { return IntegerToVariant(-1); });
  out.WriteAll("fuzz_integer", "min", 0, [] { return IntegerToVariant(INT_MIN); });
  out.Write("fuzz_integer", "foreign-qq", 0, QQ(5, 1));

  out.WriteAll("fuzz_text", "abc", 0, [] { return StringToVariant("abc"); });
  out.WriteAll("fuzz_text", "nul", 0, [] { return StringToVariant(kNulName); });
  out.WriteAll("fuzz_text", "empty", 0, [] { return StringToVariant(""); });
  out.WriteAll("fuzz_text", "count-3x", 0, [] { return StringToVariant("3x"); });
  out.Write("fuzz_text", "foreign-integer", 0, IntegerToVariant(7));

  // Signal dispatch: target bits 0-2 pick the member, bit 3 a null body.
  enum : std::uint8_t { kFound, kCancel, kClosing, kAvailable, kVoice, kShutdown, kCaseVariant, kUnknown };
  const std::string dispatch = "fuzz_signal_dispatch";
  out.WriteAll(dispatch, "onFound", kFound, [] { return SerializeIntoGVariant("Kitchen speaker", 101); });
  out.WriteAll(dispatch, "onFound-stored", kFound, [] { return SerializeIntoGVariant(kNulName, -5); });
  out.WriteAll(dispatch, "onCancel", kCancel, [] { return ProfileWithStatusToVariant({"Hall display", 7}, 3); });
  out.WriteAll(dispatch, "onDbusClosing", kClosing, [] { return IntegerToVariant(0); });
  out.WriteAll(dispatch, "onConnectionAvailable", kAvailable, [] { return QQ(5, 1); });
  out.WriteAll(dispatch, "onConnectionAvailable-max", kAvailable, [] { return QQ(65535, 0); });
  out.WriteAll(dispatch, "onVoiceGuideSay", kVoice, [] { return SerializeIntoGVariant("Say this"); });
  out.WriteAll(dispatch, "onServiceShutdown", kShutdown, [] { return IntegerToVariant(1); });
  out.Write(dispatch, "onfound", kCaseVariant << zv_fuzz::kTargetShift, SerializeIntoGVariant("x", 1));
  out.Write(dispatch, "unknown", kUnknown << zv_fuzz::kTargetShift, IntegerToVariant(1));
  out.Write(dispatch, "onFound-foreign", kFound << zv_fuzz::kTargetShift, ProfileWithStatusToVariant({"x", 1}, 1));
  out.Write(dispatch, "onCancel-foreign", kCancel << zv_fuzz::kTargetShift, QQ(1, 1));
  for (std::uint8_t member : {kFound, kCancel, kClosing, kAvailable}) {
    const auto control = static_cast<std::uint8_t>(((member | 0x08U) << zv_fuzz::kTargetShift) | zv_fuzz::kForceType);
    out.Write(dispatch, "null-" + std::to_string(member), control, IntegerToVariant(0));
  }

  std::printf("%d seeds written under %s\n", out.written, argv[1]);
  return 0;
}
