// Profile list payload: the reply of readProfiles, a one-element tuple around
// a tuple of text payloads (count, then id and name of each profile).

#include <stdexcept>

#include <common/GLibUtils.h>

#include "FuzzSupport.h"

using namespace zv_client::common;

namespace {

// Under kForceType the target bits pick 1 to 8 inner elements, so lists of
// zero to three profiles and a lone trailing element are all reached.
std::string ForcedType(std::uint8_t targetBits) {
  std::string type = "((";
  for (unsigned i = 0; i <= (targetBits & 0x07U); ++i) type += "(s)";
  return type + "))";
}

bool SameProfiles(const std::vector<SessionProfile>& a, const std::vector<SessionProfile>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].name != b[i].name || a[i].id != b[i].id) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string forced = size > 0 ? ForcedType(static_cast<std::uint8_t>(data[0] >> zv_fuzz::kTargetShift)) : "";
  zv_fuzz::Input input = zv_fuzz::Load(data, size, forced.c_str());
  if (!input.value) return -1;
  GVariant* value = input.value.get();

  std::vector<SessionProfile> profiles;
  try {
    profiles = VariantToProfiles(value);
  } catch (const std::invalid_argument&) {
    return 0;  // a count or id text without digits: refused by design
  } catch (const std::out_of_range&) {
    return 0;  // a number beyond its type: refused by design
  }

  if (!g_variant_is_of_type(value, G_VARIANT_TYPE("(r)"))) {
    zv_fuzz::Check(profiles.empty(), "another shape must give no profiles");
    return 0;
  }
  GVariantPtr inner(g_variant_get_child_value(value, 0));
  const std::size_t elements = g_variant_n_children(inner.get());
  zv_fuzz::Check(profiles.size() == (elements > 0 ? (elements - 1) / 2 : 0),
                 "one profile per complete pair of elements");

  // Every decoded list, NULs and negative ids included, encodes back to itself.
  GVariantPtr again = SinkVariant(ProfilesToVariant(profiles));
  zv_fuzz::Check(SameProfiles(VariantToProfiles(again.get()), profiles), "profile list round trip");
  return 0;
}
