// Payload formats of the link with the daemon (golden wire forms, round trips,
// hostile input, the log lines of the profile list) and thread ids.

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>

#include "support/LogCapture.h"
#include "support/VariantProbe.h"

namespace {

using namespace std::string_literals;
using zv_client::common::GVariantPtr;
using zv_client::common::SessionProfile;
using zv_client::common::SinkVariant;
namespace common = zv_client::common;

// Bytes that a C string or a UTF-8 check would mangle.
const std::vector<std::string> kAwkwardBytes = {"a\0b"s, "\xff\xfe\x80"s, "\0"s, "caf\xc3\xa9 \x01"s};

// The decoders must refuse bad input without tripping GLib's own argument checks.
class Payloads : public ::testing::Test {
 protected:
  Payloads() { previous_ = g_log_set_default_handler(&Complain, nullptr); }
  ~Payloads() override { g_log_set_default_handler(previous_, nullptr); }
  static void Complain(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) != 0)
      ADD_FAILURE() << "GLib complained: " << (domain ? domain : "") << ": " << message;
  }
  GLogFunc previous_ = nullptr;
  zv_client::testing::LogCapture log_;  // keeps the profile lines out of the journal
};

GVariantPtr Parse(const char* text) { return SinkVariant(g_variant_new_parsed(text)); }
// (id, name) of each profile, for whole-list comparisons.
std::vector<std::pair<int, std::string>> Pairs(const std::vector<SessionProfile>& profiles) {
  std::vector<std::pair<int, std::string>> pairs;
  for (const SessionProfile& profile : profiles) pairs.emplace_back(profile.id, profile.name);
  return pairs;
}

std::string Text(GVariant* value) { return common::GCharPtr(g_variant_print(value, TRUE)).get(); }
// Typed text form of a payload an encoder made, which must be floating like any g_variant_new result.
std::string Print(GVariant* made) {
  EXPECT_TRUE(g_variant_is_floating(made));
  return Text(SinkVariant(made).get());
}

// A profile list payload carrying exactly `elements`, as the encoder would never make it.
GVariantPtr ListOf(const std::vector<std::string>& elements) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  for (const std::string& element : elements) g_variant_builder_add_value(&builder, common::StringToVariant(element));
  GVariant* inner = g_variant_builder_end(&builder);
  return SinkVariant(g_variant_new_tuple(&inner, 1));
}

// A number that does not parse fails like std::stoul or std::stoi (another exception fails the test).
template <typename Error>
void ExpectThrow(const std::vector<std::string>& elements, const char* what) {
  try {
    common::VariantToProfiles(ListOf(elements).get());
    ADD_FAILURE() << "no exception for " << elements[0] << "/" << elements[1];
  } catch (const Error& error) {
    EXPECT_STREQ(error.what(), what);
  }
}

TEST_F(Payloads, IntegerAndTextPayloadsCarryAnyValue) {
  for (int value : {INT_MIN, -1, 0, 1, 65536, INT_MAX}) {
    EXPECT_EQ(Print(common::IntegerToVariant(value)), "(" + std::to_string(value) + ",)");
    EXPECT_EQ(common::VariantToInteger(SinkVariant(common::IntegerToVariant(value)).get()), value);
  }
  EXPECT_EQ(Print(common::StringToVariant("abc")), "('YWJj',)");
  EXPECT_EQ(Print(common::StringToVariant("")), "('',)");
  std::vector<std::string> texts = kAwkwardBytes;
  texts.insert(texts.end(), {"abc", ""});
  for (const std::string& bytes : texts)
    EXPECT_EQ(common::VariantToString(SinkVariant(common::StringToVariant(bytes)).get()), bytes);
  EXPECT_EQ(common::VariantToInteger(nullptr), 0);  // other shapes are fuzzed

  const std::string aNulB = "a\0b"s;
  EXPECT_EQ(common::base64_encode(reinterpret_cast<const unsigned char*>(aNulB.data()), 3), "YQBi");
  EXPECT_EQ(common::base64_decode("YQBi"), aNulB);
  EXPECT_EQ(common::base64_decode("YWJj\n"), "abc");
  EXPECT_EQ(common::base64_decode("!!!!"), "");
  EXPECT_EQ(common::base64_decode(""), "");
  EXPECT_EQ(common::base64_encode(nullptr, 4), "");
}

TEST_F(Payloads, ProfileListKeepsItsWireFormAndAnyIdOrBytes) {
  EXPECT_EQ(Print(common::ProfilesToVariant({{"Living room", 7}})), "((('Mg==',), ('Nw==',), ('TGl2aW5nIHJvb20=',)),)");
  GVariantPtr none = SinkVariant(common::ProfilesToVariant({}));
  EXPECT_EQ(Text(none.get()), "((('MA==',),),)");
  EXPECT_TRUE(common::VariantToProfiles(none.get()).empty());

  std::vector<SessionProfile> sent = {{"Living room", 7}, {"Kitchen", -5}, {"", INT_MIN}, {"Hall", INT_MAX}};
  for (const std::string& bytes : kAwkwardBytes) sent.push_back({bytes, static_cast<int>(sent.size())});
  GVariantPtr payload = SinkVariant(common::ProfilesToVariant(sent));
  EXPECT_EQ(Text(payload.get()).rfind("((('MTY=',), ", 0), 0u);  // the text 16: elements, not profiles
  EXPECT_EQ(Pairs(common::VariantToProfiles(payload.get())), Pairs(sent));
}

TEST_F(Payloads, ProfileListReadsWholePairsWithNumbersReadLikeStoulAndStoi) {
  // Other shapes (fuzzed along with every other decoder) give an empty list; a lone id is not read.
  for (const char* text : {"(7,)", "((),)", "[('MQ==',)]"})
    EXPECT_TRUE(common::VariantToProfiles(Parse(text).get()).empty());
  EXPECT_EQ(Pairs(common::VariantToProfiles(ListOf({"3", "1", "a", "2"}).get())),
            (std::vector<std::pair<int, std::string>>{{1, "a"}}));
  // The count is only checked (and logged); trailing characters are ignored.
  EXPECT_EQ(Pairs(common::VariantToProfiles(ListOf({"4", "1", "a", "2", "b", "3", "c"}).get())),
            (std::vector<std::pair<int, std::string>>{{1, "a"}, {2, "b"}, {3, "c"}}));
  EXPECT_EQ(common::VariantToProfiles(ListOf({"3x", "1", "a"}).get()).size(), 1U);
  ExpectThrow<std::invalid_argument>({"abc", "1", "a"}, "stoul");
  ExpectThrow<std::out_of_range>({"99999999999999999999999", "1", "a"}, "stoul");
  ExpectThrow<std::invalid_argument>({"2", "seven", "a"}, "stoi");
  ExpectThrow<std::out_of_range>({"2", "3000000000", "a"}, "stoi");
}

TEST_F(Payloads, ByteArrayPayloadsCarryBase64AndSixteenBitNumbers) {
  // The base64 text of abc (YWJj) without a NUL; numbers cut to 16 bits on the way in, read unsigned.
  const std::string abc = "[byte 0x59, 0x57, 0x4a, 0x6a]";
  EXPECT_EQ(Print(common::ProfileWithStatusToVariant({"abc", 3}, 2)), "(" + abc + ", uint16 3, uint16 2)");
  EXPECT_EQ(Print(common::ProfileWithStatusToVariant({"abc", 65536}, -1)), "(" + abc + ", uint16 0, uint16 65535)");
  EXPECT_EQ(Print(common::SerializeIntoGVariant("abc", -1)), "(" + abc + ", uint16 65535)");
  EXPECT_EQ(Print(common::SerializeIntoGVariant("abc")), "(" + abc + ",)");
  EXPECT_EQ(Print(common::SerializeIntoGVariant("", 5)), "(@ay [], uint16 5)");
  for (const std::string& name : kAwkwardBytes) {
    SessionProfile profile;
    int status = 0, number = 0;
    std::string data, alone;
    GVariantPtr withStatus = SinkVariant(common::ProfileWithStatusToVariant({name, 65536 + 42}, 7));
    ASSERT_TRUE(common::VariantToProfileWithStatus(withStatus.get(), profile, status));
    EXPECT_EQ(std::tie(profile.name, profile.id, status), std::make_tuple(name, 42, 7));
    GVariantPtr withNumber = SinkVariant(common::SerializeIntoGVariant(name, -1));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
    EXPECT_EQ(std::tie(data, number), std::make_tuple(name, 65535));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(SinkVariant(common::SerializeIntoGVariant(name)).get(), alone));
    EXPECT_EQ(alone, name);
  }
  // An array of characters outside the alphabet still decodes, to nothing; an empty one does not.
  std::string data = "x";
  int number = 0;
  ASSERT_TRUE(common::DeserializeDataFromGVariant(Parse("(b'!!!!', uint16 3)").get(), data, number));
  EXPECT_EQ(std::tie(data, number), std::make_tuple(""s, 3));
  EXPECT_FALSE(common::DeserializeDataFromGVariant(SinkVariant(common::SerializeIntoGVariant("", 5)).get(), data));
}

// A command's end is copied by observers that keep it: each copy must own what
// it releases (a double release or a leak shows under the sanitizers).
TEST(CopyableHolders, EachCopyOwnsAReferenceOrADuplicate) {
  zv_client::testing::VariantProbe probe(7);
  auto original = std::make_unique<common::SharedVariantPtr>(SinkVariant(probe.variant()));
  common::SharedVariantPtr copy = *original, assigned;
  assigned = copy;
  common::SharedVariantPtr moved = std::move(copy);
  original.reset();
  EXPECT_FALSE(probe.Freed());
  EXPECT_EQ(assigned.get(), moved.get());
  assigned = common::SharedVariantPtr();
  moved = assigned;
  EXPECT_TRUE(probe.Freed());

  common::CopyableErrorPtr error(common::GErrorPtr(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, "gone")));
  const common::CopyableErrorPtr duplicate = error;
  error = common::CopyableErrorPtr();
  ASSERT_TRUE(duplicate);
  EXPECT_TRUE(g_error_matches(duplicate.get(), G_IO_ERROR, G_IO_ERROR_FAILED));
  EXPECT_STREQ(duplicate->message, "gone");
}

TEST(ThreadId, IsStablePerThreadAndDistinctAcrossThreads) {
  const std::string mine = logt::thread_id();
  std::string other;
  std::thread([&] {
    other = logt::thread_id();
    EXPECT_EQ(logt::thread_id(), other);
  }).join();
  EXPECT_EQ(logt::thread_id(), mine);
  EXPECT_NE(other, mine);  // both threads were alive at once: no identifier reuse
  for (const std::string& id : {mine, other})
    EXPECT_TRUE(!id.empty() && id.find_first_not_of("0123456789abcdef") == std::string::npos) << id;
}

}  // namespace
