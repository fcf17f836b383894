// Text payload "(s)": one base64 string, the element of the profile list.

#include <common/GLibUtils.h>

#include "FuzzSupport.h"

using namespace zv_client::common;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zv_fuzz::Input input = zv_fuzz::Load(data, size, "(s)");
  if (!input.value) return -1;
  GVariant* value = input.value.get();

  const std::string text = VariantToString(value);
  if (!g_variant_is_of_type(value, G_VARIANT_TYPE("(s)"))) {
    zv_fuzz::Check(text.empty(), "another type must give the empty text");
  }

  // Whatever bytes came out (NULs, non-UTF-8) must travel back unchanged.
  GVariantPtr again = SinkVariant(StringToVariant(text));
  zv_fuzz::Check(g_variant_is_of_type(again.get(), G_VARIANT_TYPE("(s)")), "encoder type");
  zv_fuzz::Check(VariantToString(again.get()) == text, "text round trip");
  return 0;
}
