// Integer payload "(i)": the daemon's integer replies and onDbusClosing.

#include <common/GLibUtils.h>

#include "FuzzSupport.h"

using namespace zv_client::common;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  zv_fuzz::Setup(*argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zv_fuzz::Input input = zv_fuzz::Load(data, size, "(i)");
  if (!input.value) return -1;
  GVariant* value = input.value.get();

  const int result = VariantToInteger(value);
  if (!g_variant_is_of_type(value, G_VARIANT_TYPE("(i)"))) zv_fuzz::Check(result == 0, "another type must give 0");

  GVariantPtr again = SinkVariant(IntegerToVariant(result));
  zv_fuzz::Check(VariantToInteger(again.get()) == result, "integer round trip");
  return 0;
}
