// Data-and-number payload "(ayq)": the onFound signal and stored profiles.

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
  zv_fuzz::Input input = zv_fuzz::Load(data, size, "(ayq)");
  if (!input.value) return -1;

  std::string decoded = kUntouched;
  int number = kUntouchedNumber;
  if (!DeserializeDataFromGVariant(input.value.get(), decoded, number)) {
    zv_fuzz::Check(decoded == kUntouched && number == kUntouchedNumber, "a failed decode must leave its outputs alone");
    return 0;
  }
  zv_fuzz::Check(number >= 0 && number <= 65535, "the number is an unsigned 16-bit value");
  if (decoded.empty()) return 0;  // legal, but an empty array does not decode
  GVariantPtr again = SinkVariant(SerializeIntoGVariant(decoded, number));
  zv_fuzz::Check(g_variant_is_of_type(again.get(), G_VARIANT_TYPE("(ayq)")), "encoder type");
  std::string back;
  int backNumber = 0;
  zv_fuzz::Check(DeserializeDataFromGVariant(again.get(), back, backNumber) && back == decoded &&
                     backNumber == number,
                 "data-and-number round trip");
  return 0;
}
