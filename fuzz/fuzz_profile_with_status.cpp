// Profile-with-status payload "(ayqq)": the onCancel signal.

#include <common/GLibUtils.h>

#include "FuzzSupport.h"

using namespace zv_client::common;

namespace {
const std::string kUntouched = "untouched";
constexpr int kUntouchedNumber = -7;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zv_fuzz::Input input = zv_fuzz::Load(data, size, "(ayqq)");
  if (!input.value) return -1;

  SessionProfile profile{kUntouched, kUntouchedNumber};
  int status = kUntouchedNumber;
  if (!VariantToProfileWithStatus(input.value.get(), profile, status)) {
    zv_fuzz::Check(profile.name == kUntouched && profile.id == kUntouchedNumber && status == kUntouchedNumber,
                   "a failed decode must leave its outputs alone");
    return 0;
  }
  zv_fuzz::Check(profile.id >= 0 && profile.id <= 65535 && status >= 0 && status <= 65535,
                 "id and status are unsigned 16-bit values");
  if (profile.name.empty()) return 0;  // legal, but an empty array does not decode
  GVariantPtr again = SinkVariant(ProfileWithStatusToVariant(profile, status));
  zv_fuzz::Check(g_variant_is_of_type(again.get(), G_VARIANT_TYPE("(ayqq)")), "encoder type");
  SessionProfile back;
  int backStatus = 0;
  zv_fuzz::Check(VariantToProfileWithStatus(again.get(), back, backStatus) && back.name == profile.name &&
                     back.id == profile.id && backStatus == status,
                 "profile-with-status round trip");
  return 0;
}
