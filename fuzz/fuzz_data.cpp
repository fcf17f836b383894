// Data payload "(ay)" (the shape of onVoiceGuideSay).

#include <common/GLibUtils.h>

#include "FuzzSupport.h"

using namespace zv_client::common;

namespace {
const std::string kUntouched = "untouched";
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zv_fuzz::Input input = zv_fuzz::Load(data, size, "(ay)");
  if (!input.value) return -1;

  std::string decoded = kUntouched;
  if (!DeserializeDataFromGVariant(input.value.get(), decoded)) {
    zv_fuzz::Check(decoded == kUntouched, "a failed decode must leave its output alone");
    return 0;
  }
  // An empty result is legal (no valid base64 characters) but does not
  // encode to something decodable, so only non-empty data is sent back.
  if (decoded.empty()) return 0;
  GVariantPtr again = SinkVariant(SerializeIntoGVariant(decoded));
  zv_fuzz::Check(g_variant_is_of_type(again.get(), G_VARIANT_TYPE("(ay)")), "encoder type");
  std::string back;
  zv_fuzz::Check(DeserializeDataFromGVariant(again.get(), back) && back == decoded, "data round trip");
  return 0;
}
