// Writes the seed corpus of zorvel_fuzz: the wire forms that the library's own
// encoders make, in the input layout of FuzzInput.h. Every case gets each
// sample of its wire type (typed, forced and in normal form) and a null value;
// a few get a value of another type.
//
//   fuzz_make_seeds <corpus-dir>     e.g. fuzz_make_seeds fuzz/corpus
//
// Files are overwritten, never removed, so the output is the same on every run.

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/platform/SystemLog.h>

#include "FuzzInput.h"

using namespace zv_client::common;
using namespace zv_fuzz;

namespace {

std::string corpus;
int written = 0;

// One seed: byte 0, then (unless forced) the type string and a NUL, then the
// serialized value; a null value gives the empty type string alone. Takes
// over a floating `value` and borrows any other.
void Write(unsigned which, std::uint8_t mode, const std::string& name, GVariant* value) {
  GVariantPtr owned = SinkVariant(value);
  std::string bytes(1, static_cast<char>(Selector(which, mode)));
  if ((mode & kForceType) == 0) bytes += std::string(owned ? g_variant_get_type_string(owned.get()) : "") + '\0';
  if (owned) {
    std::string serialized(g_variant_get_size(owned.get()), '\0');
    g_variant_store(owned.get(), serialized.data());
    bytes += serialized;
  }
  const std::string path = corpus + "/" + CaseName(which) + "-" + name;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
  ++written;
}

GVariant* QQ(guint16 first, guint16 second) { return g_variant_new("(qq)", first, second); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus-dir>\n", argv[0]);
    return 2;
  }
  zv_client::platform::SetLogSink(
      [](zv_client::platform::LogBuffer, zv_client::platform::LogPriority, const char*, const char*) {});
  corpus = argv[1];
  std::filesystem::create_directories(corpus);

  const std::string nul("a\0b", 3);
  const std::string raw("\xff\xfe caf\xc3", 8);  // not UTF-8
  // Grouped by wire type: (i), (s), (ay), (ayq), (ayqq), (qq), profile lists.
  // clang-format off
  const std::pair<const char*, GVariant*> samples[] = {
      {"zero", IntegerToVariant(0)}, {"minus-one", IntegerToVariant(-1)}, {"min", IntegerToVariant(INT_MIN)},
      {"abc", StringToVariant("abc")}, {"nul", StringToVariant(nul)}, {"empty", StringToVariant("")},
      {"count-3x", StringToVariant("3x")},
      {"hello", SerializeIntoGVariant("Hello from the daemon")}, {"raw", SerializeIntoGVariant(raw)},
      {"empty", SerializeIntoGVariant("")},
      {"kitchen", SerializeIntoGVariant("Kitchen speaker", 101)}, {"nul", SerializeIntoGVariant(nul, -1)},
      {"empty", SerializeIntoGVariant("", 5)},
      {"abc", ProfileWithStatusToVariant({"abc", 3}, 2)}, {"raw", ProfileWithStatusToVariant({raw, -1}, 65536)},
      {"empty-name", ProfileWithStatusToVariant({"", 1}, 1)},
      {"five-on", QQ(5, 1)}, {"max-off", QQ(65535, 0)},
      {"empty", ProfilesToVariant({})}, {"one", ProfilesToVariant({{"Living room", 7}})},
      {"three", ProfilesToVariant({{"Kitchen speaker", 101}, {nul, -5}, {raw, INT_MAX}})}};
  // clang-format on
  for (const auto& [name, value] : samples) {
    const GVariantPtr sample = SinkVariant(value);
    for (unsigned which = 0; which < kCaseCount; ++which) {
      if (WireType(which) != g_variant_get_type_string(value)) continue;
      Write(which, 0, name, value);
      Write(which, kForceType, name + std::string(".forced"), value);
      Write(which, kNormalForm, name + std::string(".normal"), value);
    }
  }
  for (unsigned which = 0; which <= kProfileList; ++which) Write(which, 0, "null", nullptr);
  // Values of another type, which must be refused quietly.
  Write(kInteger, 0, "foreign", QQ(5, 1));
  Write(kText, 0, "foreign", IntegerToVariant(7));
  Write(kData, 0, "foreign", SerializeIntoGVariant("abc", 3));
  Write(kDataAndNumber, 0, "foreign", ProfileWithStatusToVariant({"abc", 3}, 2));
  Write(kProfileWithStatus, 0, "foreign", SerializeIntoGVariant("abc", 3));
  Write(kOnFound, 0, "foreign", ProfileWithStatusToVariant({"x", 1}, 1));
  Write(kOnCancel, 0, "foreign", QQ(1, 1));
  Write(kProfileList, 0, "foreign", StringToVariant("6"));
  Write(kProfileList, 0, "no-count", g_variant_new("(())"));  // an inner tuple without elements

  std::printf("%d seeds written to %s\n", written, corpus.c_str());
  return 0;
}
