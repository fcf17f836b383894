// Payload formats of the link with the daemon: golden wire forms, round trips,
// hostile input, reference ownership and the log lines of the profile list.

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <platform/SystemLog.h>

#include "support/LogCapture.h"

namespace {

using namespace std::string_literals;
using zv_client::common::GVariantPtr;
using zv_client::common::SessionProfile;
using zv_client::common::SinkVariant;
using zv_client::testing::LogCapture;
using zv_client::testing::LogLine;
namespace common = zv_client::common;
namespace platform = zv_client::platform;

// Bytes that a C string or a UTF-8 check would mangle.
const std::vector<std::string> kAwkwardBytes = {"a\0b"s, "\xff\xfe\x80"s, "\0"s, "caf\xc3\xa9 \x01"s};

// Counts GLib warnings and criticals while alive: the decoders promise to
// refuse bad input quietly, without tripping GLib's own argument checks.
class GLibComplaints {
 public:
  GLibComplaints() { previous_ = g_log_set_default_handler(&GLibComplaints::Handler, this); }
  ~GLibComplaints() { g_log_set_default_handler(previous_, nullptr); }
  int count() const { return count_; }

 private:
  static void Handler(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer self) {
    if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) != 0) {
      ++static_cast<GLibComplaints*>(self)->count_;
      ADD_FAILURE() << "GLib complained: " << (domain ? domain : "") << ": " << message;
    }
  }
  GLogFunc previous_ = nullptr;
  int count_ = 0;
};

class Payloads : public ::testing::Test {
 protected:
  GLibComplaints complaints_;
  LogCapture log_;  // keeps the profile lines out of the journal
};

// Raw string of the text payload "(s)" `element`.
std::string WireText(GVariant* element) {
  GVariantPtr text(g_variant_get_child_value(element, 0));
  return g_variant_get_string(text.get(), nullptr);
}

// Raw string of every element of a profile list payload's inner tuple.
std::vector<std::string> ListWireTexts(GVariant* list) {
  GVariantPtr inner(g_variant_get_child_value(list, 0));
  std::vector<std::string> texts;
  for (gsize i = 0; i < g_variant_n_children(inner.get()); ++i) {
    GVariantPtr element(g_variant_get_child_value(inner.get(), i));
    texts.push_back(WireText(element.get()));
  }
  return texts;
}

// A profile list payload carrying exactly `elements` (count text first), for
// lists that the encoder would never produce.
GVariantPtr ListOf(const std::vector<std::string>& elements) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  for (const std::string& element : elements) g_variant_builder_add_value(&builder, common::StringToVariant(element));
  GVariant* inner = g_variant_builder_end(&builder);
  return SinkVariant(g_variant_new_tuple(&inner, 1));
}

// Bytes of the array that is child `index` of `value`.
std::string ArrayBytes(GVariant* value, gsize index = 0) {
  GVariantPtr array(g_variant_get_child_value(value, index));
  gsize length = 0;
  const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array.get(), &length, 1));
  return std::string(bytes != nullptr ? bytes : "", length);
}

GVariantPtr Parse(const char* text) { return SinkVariant(g_variant_new_parsed(text)); }

std::string TypeOf(GVariant* value) { return g_variant_get_type_string(value); }

// Function name and message of a line of the common helpers, after checking
// its prefix "GLibUtils.cpp: <function>(<line>) > "; empty when it has none.
struct Parsed {
  std::string function;
  std::string message;
};
Parsed ParseLine(const LogLine& line) {
  const std::string& text = line.text;
  const std::string file = "GLibUtils.cpp: ";
  const std::size_t open = text.find('(', file.size());
  const std::size_t close = text.find(") > ", open);
  const bool shaped = text.compare(0, file.size(), file) == 0 && open != std::string::npos &&
                      close != std::string::npos && close > open + 1 &&
                      text.find_first_not_of("0123456789", open + 1) == close;
  if (!shaped) {
    ADD_FAILURE() << "unexpected line shape: " << text;
    return {};
  }
  return {text.substr(file.size(), open - file.size()), text.substr(close + 4)};
}

std::string MessageOf(const LogLine& line) { return ParseLine(line).message; }

std::vector<std::string> Messages(const LogCapture& log) {
  std::vector<std::string> messages;
  for (const LogLine& line : log.Lines()) {
    EXPECT_EQ(line.tag, "zorvel.common") << line.text;
    EXPECT_EQ(line.buffer, platform::LogBuffer::kSystem) << line.text;
    messages.push_back(MessageOf(line));
  }
  return messages;
}

TEST_F(Payloads, IntegerPayloadCarriesEvery32BitValue) {
  for (int value : {INT_MIN, INT_MIN + 1, -1, 0, 1, 65536, INT_MAX - 1, INT_MAX}) {
    GVariant* made = common::IntegerToVariant(value);
    ASSERT_TRUE(g_variant_is_floating(made));
    GVariantPtr payload = SinkVariant(made);
    EXPECT_EQ(TypeOf(payload.get()), "(i)");
    EXPECT_EQ(common::VariantToInteger(payload.get()), value);
  }
  EXPECT_EQ(common::VariantToInteger(nullptr), 0);
  EXPECT_EQ(common::VariantToInteger(Parse("('MQ==',)").get()), 0);
  EXPECT_EQ(common::VariantToInteger(Parse("(uint32 7,)").get()), 0);
}

TEST_F(Payloads, TextPayloadCarriesBase64OfEveryByte) {
  GVariantPtr abc = SinkVariant(common::StringToVariant("abc"));
  EXPECT_EQ(TypeOf(abc.get()), "(s)");
  EXPECT_EQ(WireText(abc.get()), "YWJj");
  EXPECT_EQ(common::VariantToString(abc.get()), "abc");

  GVariantPtr empty = SinkVariant(common::StringToVariant(""));
  EXPECT_EQ(TypeOf(empty.get()), "(s)");
  EXPECT_EQ(WireText(empty.get()), "");
  EXPECT_EQ(common::VariantToString(empty.get()), "");

  for (const std::string& bytes : kAwkwardBytes) {
    GVariantPtr payload = SinkVariant(common::StringToVariant(bytes));
    EXPECT_EQ(common::VariantToString(payload.get()), bytes);
  }

  // Not a text payload: nothing to carry, and no crash.
  EXPECT_EQ(common::VariantToString(nullptr), "");
  EXPECT_EQ(common::VariantToString(Parse("(7,)").get()), "");
  EXPECT_EQ(common::VariantToString(Parse("'YWJj'").get()), "");
}

TEST_F(Payloads, Base64FollowsGLibAndSkipsForeignCharacters) {
  const std::string aNulB = "a\0b"s;
  EXPECT_EQ(common::base64_encode(reinterpret_cast<const unsigned char*>(aNulB.data()), 3), "YQBi");
  EXPECT_EQ(common::base64_decode("YQBi"), aNulB);
  EXPECT_EQ(common::base64_decode("YWJj\n"), "abc");
  EXPECT_EQ(common::base64_decode("!!!!"), "");
  EXPECT_EQ(common::base64_decode(""), "");
  EXPECT_EQ(common::base64_encode(nullptr, 0), "");
  EXPECT_EQ(common::base64_encode(nullptr, 4), "");
  // Decoding stops at the first NUL of the text.
  EXPECT_EQ(common::base64_decode("YWJj\0YWJj"s), "abc");
}

TEST_F(Payloads, ProfileListHasItsGoldenWireForm) {
  GVariant* made = common::ProfilesToVariant({{"Living room", 7}});
  ASSERT_TRUE(g_variant_is_floating(made));
  GVariantPtr one = SinkVariant(made);
  EXPECT_EQ(TypeOf(one.get()), "(((s)(s)(s)))");
  EXPECT_EQ(ListWireTexts(one.get()), (std::vector<std::string>{"Mg==", "Nw==", "TGl2aW5nIHJvb20="}));
  const std::vector<SessionProfile> decoded = common::VariantToProfiles(one.get());
  ASSERT_EQ(decoded.size(), 1U);
  EXPECT_EQ(decoded[0].name, "Living room");
  EXPECT_EQ(decoded[0].id, 7);

  GVariantPtr none = SinkVariant(common::ProfilesToVariant({}));
  EXPECT_EQ(TypeOf(none.get()), "(((s)))");
  EXPECT_EQ(ListWireTexts(none.get()), std::vector<std::string>{"MA=="});
  EXPECT_TRUE(common::VariantToProfiles(none.get()).empty());
}

TEST_F(Payloads, ProfileListKeepsOrderNegativeIdsAndAnyBytes) {
  std::vector<SessionProfile> sent = {{"Kitchen", -5}, {"", INT_MIN}, {"Hall", INT_MAX}};
  for (const std::string& bytes : kAwkwardBytes) sent.push_back({bytes, static_cast<int>(sent.size())});
  GVariantPtr payload = SinkVariant(common::ProfilesToVariant(sent));
  EXPECT_EQ(ListWireTexts(payload.get())[0], "MTQ=");  // the text 14: elements, not profiles

  const std::vector<SessionProfile> received = common::VariantToProfiles(payload.get());
  ASSERT_EQ(received.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(received[i].name, sent[i].name) << "profile " << i;
    EXPECT_EQ(received[i].id, sent[i].id) << "profile " << i;
  }
}

TEST_F(Payloads, ProfileListCountIsOnlyCheckedAndLogged) {
  GVariantPtr countSaysFour = ListOf({"4", "1", "a", "2", "b", "3", "c"});
  const std::vector<SessionProfile> three = common::VariantToProfiles(countSaysFour.get());
  ASSERT_EQ(three.size(), 3U);
  EXPECT_EQ(three[2].name, "c");
  EXPECT_EQ(three[2].id, 3);
  bool errorLogged = false;
  for (const LogLine& line : log_.Lines()) {
    if (MessageOf(line) == "VariantToProfiles error: has wrong size \n") {
      EXPECT_EQ(line.priority, platform::LogPriority::kError);
      errorLogged = true;
    }
  }
  EXPECT_TRUE(errorLogged) << log_.Dump();

  // Trailing characters after the digits are ignored.
  log_.Clear();
  GVariantPtr trailing = ListOf({"3x", "1", "a"});
  EXPECT_EQ(common::VariantToProfiles(trailing.get()).size(), 1U);
  EXPECT_TRUE(log_.Contains("> profilesSize[3]")) << log_.Dump();
}

TEST_F(Payloads, ProfileListNumbersThatDoNotParseThrow) {
  struct Case {
    std::vector<std::string> elements;
    bool outOfRange;
    const char* what;
  };
  const Case cases[] = {
      {{"abc", "1", "a"}, false, "stoul"},
      {{"99999999999999999999999", "1", "a"}, true, "stoul"},
      {{"2", "seven", "a"}, false, "stoi"},
      {{"2", "3000000000", "a"}, true, "stoi"},
  };
  for (const Case& c : cases) {
    GVariantPtr payload = ListOf(c.elements);
    try {
      common::VariantToProfiles(payload.get());
      ADD_FAILURE() << "no exception for " << c.elements[0] << "/" << c.elements[1];
    } catch (const std::out_of_range& error) {
      EXPECT_TRUE(c.outOfRange) << c.elements[0] << "/" << c.elements[1];
      EXPECT_STREQ(error.what(), c.what);
    } catch (const std::invalid_argument& error) {
      EXPECT_FALSE(c.outOfRange) << c.elements[0] << "/" << c.elements[1];
      EXPECT_STREQ(error.what(), c.what);
    }
  }
}

TEST_F(Payloads, ProfileListOfAnotherShapeIsRefusedQuietly) {
  for (const char* text : {"(7,)", "()", "((),)", "(('MQ==',), ('MQ==',))", "[('MQ==',)]"}) {
    EXPECT_TRUE(common::VariantToProfiles(Parse(text).get()).empty()) << text;
  }
  EXPECT_TRUE(common::VariantToProfiles(nullptr).empty());

  // An even count leaves the last id without its name: it is not read.
  GVariantPtr loneId = ListOf({"3", "1", "a", "2"});
  const std::vector<SessionProfile> profiles = common::VariantToProfiles(loneId.get());
  ASSERT_EQ(profiles.size(), 1U);
  EXPECT_EQ(profiles[0].name, "a");

  // Elements that are not text payloads read as empty texts: a count or an id
  // then fails to parse, a name comes out empty.
  for (const char* text : {"(((7,), ('MQ==',), ('YQ==',)),)", "((('Mg==',), (1,), ('YQ==',)),)",
                           "((('Mg==',), ('MQ==',), (5,)),)"}) {
    try {
      EXPECT_TRUE(common::VariantToProfiles(Parse(text).get()).size() <= 1U) << text;
    } catch (const std::logic_error&) {
    }
  }
}

TEST_F(Payloads, ProfileWithStatusCarriesSixteenBitNumbers) {
  GVariantPtr payload = SinkVariant(common::ProfileWithStatusToVariant({"abc", 3}, 2));
  EXPECT_EQ(TypeOf(payload.get()), "(ayqq)");
  EXPECT_EQ(ArrayBytes(payload.get()), "YWJj");
  SessionProfile profile;
  int status = 0;
  ASSERT_TRUE(common::VariantToProfileWithStatus(payload.get(), profile, status));
  EXPECT_EQ(profile.name, "abc");
  EXPECT_EQ(profile.id, 3);
  EXPECT_EQ(status, 2);

  payload = SinkVariant(common::ProfileWithStatusToVariant({"abc", 65536}, -1));
  ASSERT_TRUE(common::VariantToProfileWithStatus(payload.get(), profile, status));
  EXPECT_EQ(profile.id, 0);
  EXPECT_EQ(status, 65535);
  payload = SinkVariant(common::ProfileWithStatusToVariant({"abc", -1}, 65537));
  ASSERT_TRUE(common::VariantToProfileWithStatus(payload.get(), profile, status));
  EXPECT_EQ(profile.id, 65535);
  EXPECT_EQ(status, 1);

  for (const std::string& bytes : kAwkwardBytes) {
    payload = SinkVariant(common::ProfileWithStatusToVariant({bytes, 9}, 4));
    ASSERT_TRUE(common::VariantToProfileWithStatus(payload.get(), profile, status));
    EXPECT_EQ(profile.name, bytes);
  }
}

TEST_F(Payloads, DataPayloadsCarryBase64Bytes) {
  GVariantPtr withNumber = SinkVariant(common::SerializeIntoGVariant("abc", 101));
  EXPECT_EQ(TypeOf(withNumber.get()), "(ayq)");
  EXPECT_EQ(ArrayBytes(withNumber.get()), "YWJj");
  std::string data;
  int number = 0;
  ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
  EXPECT_EQ(data, "abc");
  EXPECT_EQ(number, 101);

  GVariantPtr alone = SinkVariant(common::SerializeIntoGVariant("abc"));
  EXPECT_EQ(TypeOf(alone.get()), "(ay)");
  EXPECT_EQ(ArrayBytes(alone.get()), "YWJj");
  data.clear();
  ASSERT_TRUE(common::DeserializeDataFromGVariant(alone.get(), data));
  EXPECT_EQ(data, "abc");

  withNumber = SinkVariant(common::SerializeIntoGVariant("x", 65536 + 42));
  ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
  EXPECT_EQ(number, 42);
  withNumber = SinkVariant(common::SerializeIntoGVariant("x", -1));
  ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
  EXPECT_EQ(number, 65535);

  for (const std::string& bytes : kAwkwardBytes) {
    withNumber = SinkVariant(common::SerializeIntoGVariant(bytes, 1));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
    EXPECT_EQ(data, bytes);
    alone = SinkVariant(common::SerializeIntoGVariant(bytes));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(alone.get(), data));
    EXPECT_EQ(data, bytes);
  }

  // An array of characters outside the alphabet still decodes, to nothing.
  GVariantPtr foreign = Parse("(b'!!!!', uint16 3)");
  ASSERT_TRUE(common::DeserializeDataFromGVariant(foreign.get(), data, number));
  EXPECT_EQ(data, "");
  EXPECT_EQ(number, 3);
}

TEST_F(Payloads, RefusingDecodersLeaveTheirOutputsAlone) {
  GVariantPtr emptyWithNumber = SinkVariant(common::SerializeIntoGVariant("", 5));
  EXPECT_EQ(TypeOf(emptyWithNumber.get()), "(ayq)");
  EXPECT_EQ(ArrayBytes(emptyWithNumber.get()), "");
  GVariantPtr emptyAlone = SinkVariant(common::SerializeIntoGVariant(""));
  GVariantPtr emptyName = SinkVariant(common::ProfileWithStatusToVariant({"", 1}, 2));

  const std::vector<GVariant*> refused = {nullptr, Parse("(7,)").release(), emptyWithNumber.get(),
                                          emptyAlone.get(), emptyName.get()};
  for (GVariant* value : refused) {
    const std::string shown = value != nullptr ? TypeOf(value) : "null";
    std::string data = "kept";
    int number = -7;
    EXPECT_FALSE(common::DeserializeDataFromGVariant(value, data, number)) << shown;
    EXPECT_FALSE(common::DeserializeDataFromGVariant(value, data)) << shown;
    EXPECT_EQ(data, "kept") << shown;
    EXPECT_EQ(number, -7) << shown;

    SessionProfile profile{"kept", -7};
    int status = -7;
    EXPECT_FALSE(common::VariantToProfileWithStatus(value, profile, status)) << shown;
    EXPECT_EQ(profile.name, "kept") << shown;
    EXPECT_EQ(profile.id, -7) << shown;
    EXPECT_EQ(status, -7) << shown;
  }
  g_variant_unref(refused[1]);
}

TEST_F(Payloads, DecodersBorrowTheirValue) {
  // Each value is owned once here and released once by its holder: a decoder
  // that released it would be a use after free, one that kept a reference a
  // leak, both reported by the sanitizer build.
  GVariantPtr values[] = {
      SinkVariant(common::IntegerToVariant(4)),
      SinkVariant(common::StringToVariant("abc")),
      SinkVariant(common::ProfilesToVariant({{"a", 1}, {"b", 2}})),
      SinkVariant(common::ProfileWithStatusToVariant({"abc", 3}, 2)),
      SinkVariant(common::SerializeIntoGVariant("abc", 1)),
      SinkVariant(common::SerializeIntoGVariant("abc")),
  };
  for (int round = 0; round < 2; ++round) {
    for (const GVariantPtr& value : values) {
      SessionProfile profile;
      std::string data;
      int number = 0;
      common::VariantToInteger(value.get());
      common::VariantToString(value.get());
      common::DeserializeDataFromGVariant(value.get(), data, number);
      common::DeserializeDataFromGVariant(value.get(), data);
      common::VariantToProfileWithStatus(value.get(), profile, number);
      try {
        common::VariantToProfiles(value.get());
      } catch (const std::logic_error&) {
      }
      EXPECT_FALSE(g_variant_is_floating(value.get()));
    }
  }
  EXPECT_EQ(common::VariantToInteger(values[0].get()), 4);
  EXPECT_EQ(common::VariantToString(values[1].get()), "abc");
  EXPECT_EQ(common::VariantToProfiles(values[2].get()).size(), 2U);
}

TEST_F(Payloads, ProfileListLogsEachStep) {
  GVariantPtr payload = SinkVariant(common::ProfilesToVariant({{"Living room", 7}}));
  common::VariantToProfiles(payload.get());
  GVariantPtr empty = SinkVariant(common::ProfilesToVariant({}));
  common::VariantToProfiles(empty.get());

  EXPECT_EQ(Messages(log_), (std::vector<std::string>{
                                "profilesSize[2]", "profile [7] [Living room]",                     // encode
                                "numValues[3]", "profilesSize[2]", "profile [7] [Living room]",     // decode
                                "profilesSize[0]", "numValues[1]", "profilesSize[0]"}))             // empty
      << log_.Dump();
  for (const LogLine& line : log_.Lines()) EXPECT_EQ(line.priority, platform::LogPriority::kInfo) << line.text;
  const std::vector<LogLine> lines = log_.Lines();
  ASSERT_EQ(lines.size(), 8U);
  EXPECT_EQ(ParseLine(lines[0]).function, "ProfilesToVariant");
  EXPECT_EQ(ParseLine(lines[2]).function, "VariantToProfiles");

  // The other conversions write nothing.
  log_.Clear();
  std::string data;
  int number = 0;
  SessionProfile profile;
  GVariantPtr found = SinkVariant(common::SerializeIntoGVariant("abc", 1));
  common::DeserializeDataFromGVariant(found.get(), data, number);
  GVariantPtr cancel = SinkVariant(common::ProfileWithStatusToVariant({"abc", 1}, 1));
  common::VariantToProfileWithStatus(cancel.get(), profile, number);
  common::VariantToInteger(nullptr);
  EXPECT_EQ(log_.Lines().size(), 0U) << log_.Dump();
}

TEST(ThreadId, IsStablePerThreadAndDistinctAcrossThreads) {
  const auto isHex = [](const std::string& id) {
    return !id.empty() && id.find_first_not_of("0123456789abcdef") == std::string::npos;
  };
  const std::string mine = logt::thread_id();
  EXPECT_TRUE(isHex(mine)) << mine;
  EXPECT_EQ(logt::thread_id(), mine);

  // Both threads are alive together, so the system cannot reuse an identifier.
  std::string ids[2];
  std::atomic<int> started{0};
  auto body = [&](int index) {
    ids[index] = logt::thread_id();
    ++started;
    while (started.load() < 2) std::this_thread::yield();
    EXPECT_EQ(logt::thread_id(), ids[index]);
  };
  std::thread first(body, 0);
  std::thread second(body, 1);
  first.join();
  second.join();
  const std::set<std::string> distinct = {mine, ids[0], ids[1]};
  EXPECT_EQ(distinct.size(), 3U);
  for (const std::string& id : ids) EXPECT_TRUE(isHex(id)) << id;
}

}  // namespace
