// Payload formats of the link with the daemon (golden wire forms, round trips,
// hostile input, the log lines of the profile list), the log sink, the
// journal's wire form and thread ids.

#include <gtest/gtest.h>

#include <endian.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <platform/Journal.h>
#include <platform/SystemLog.h>

#include "support/LogCapture.h"
#include "support/Wait.h"

namespace {

using namespace std::string_literals;
using zv_client::common::GVariantPtr;
using zv_client::common::SessionProfile;
using zv_client::common::SinkVariant;
namespace common = zv_client::common;
namespace platform = zv_client::platform;
using platform::LogBuffer;
using platform::LogPriority;

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
std::string TypeOf(GVariant* value) { return g_variant_get_type_string(value); }
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

// Type and byte-array text of a floating byte-array payload, which this takes.
std::string Bytes(GVariant* made) {
  EXPECT_TRUE(g_variant_is_floating(made));
  GVariantPtr payload = SinkVariant(made);
  GVariantPtr array(g_variant_get_child_value(payload.get(), 0));
  gsize length = 0;
  const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array.get(), &length, 1));
  return TypeOf(payload.get()) + " " + std::string(bytes != nullptr ? bytes : "", length);
}

// Every captured line without its line number, after checking where it went.
std::vector<std::string> Messages(const zv_client::testing::LogCapture& log) {
  std::vector<std::string> messages;
  for (const auto& line : log.Lines()) {
    EXPECT_EQ(line.tag + (line.buffer == LogBuffer::kSystem ? "" : " off the system buffer"), "zorvel.common");
    messages.push_back(std::regex_replace(line.text, std::regex(R"(\(\d+\) > )"), "() > "));
  }
  return messages;
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

TEST_F(Payloads, IntegerAndTextPayloadsCarryEvery32BitValueAndEveryByte) {
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
  // Not the payload asked for: nothing to carry, and no crash.
  EXPECT_EQ(common::VariantToInteger(nullptr), 0);
  EXPECT_EQ(common::VariantToString(nullptr), "");
  for (const char* other : {"('MQ==',)", "(uint32 7,)"}) EXPECT_EQ(common::VariantToInteger(Parse(other).get()), 0);
  for (const char* other : {"(7,)", "'YWJj'"}) EXPECT_EQ(common::VariantToString(Parse(other).get()), "") << other;

  const std::string aNulB = "a\0b"s;
  EXPECT_EQ(common::base64_encode(reinterpret_cast<const unsigned char*>(aNulB.data()), 3), "YQBi");
  EXPECT_EQ(common::base64_decode("YQBi"), aNulB);
  EXPECT_EQ(common::base64_decode("YWJj\n"), "abc");
  EXPECT_EQ(common::base64_decode("!!!!"), "");
  EXPECT_EQ(common::base64_decode(""), "");
  EXPECT_EQ(common::base64_encode(nullptr, 4), "");
}

TEST_F(Payloads, ProfileListHasItsGoldenWireFormAndKeepsOrderNegativeIdsAndAnyBytes) {
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

TEST_F(Payloads, ProfileListNumbersAreReadLikeStoulAndStoi) {
  // The count is only checked and logged; trailing characters are ignored.
  EXPECT_EQ(Pairs(common::VariantToProfiles(ListOf({"4", "1", "a", "2", "b", "3", "c"}).get())),
            (std::vector<std::pair<int, std::string>>{{1, "a"}, {2, "b"}, {3, "c"}}));
  std::vector<std::string> errors;
  for (const auto& line : log_.Lines())
    if (line.priority == platform::LogPriority::kError) errors.push_back(line.text.substr(line.text.find(" > ")));
  EXPECT_EQ(errors, std::vector<std::string>{" > VariantToProfiles error: has wrong size \n"}) << log_.Dump();
  log_.Clear();
  EXPECT_EQ(common::VariantToProfiles(ListOf({"3x", "1", "a"}).get()).size(), 1U);
  EXPECT_TRUE(log_.Contains("> profilesSize[3]")) << log_.Dump();

  ExpectThrow<std::invalid_argument>({"abc", "1", "a"}, "stoul");
  ExpectThrow<std::out_of_range>({"99999999999999999999999", "1", "a"}, "stoul");
  ExpectThrow<std::invalid_argument>({"2", "seven", "a"}, "stoi");
  ExpectThrow<std::out_of_range>({"2", "3000000000", "a"}, "stoi");
}

TEST_F(Payloads, ByteArrayPayloadsCarryBase64AndSixteenBitNumbers) {
  EXPECT_EQ(Bytes(common::ProfileWithStatusToVariant({"abc", 3}, 2)), "(ayqq) YWJj");
  EXPECT_EQ(Bytes(common::SerializeIntoGVariant("abc", 101)), "(ayq) YWJj");
  EXPECT_EQ(Bytes(common::SerializeIntoGVariant("abc")), "(ay) YWJj");
  EXPECT_EQ(Bytes(common::SerializeIntoGVariant("", 5)), "(ayq) ");

  // Numbers are cut to 16 bits on the way in, unsigned on the way out.
  struct Case { std::string name; int in, status, expectedId, expectedStatus; };
  for (const Case& c : {Case{"abc", 3, 2, 3, 2}, Case{"abc", 65536, -1, 0, 65535}, Case{"abc", -1, 65537, 65535, 1},
                        Case{kAwkwardBytes[0], 9, 4, 9, 4}, Case{kAwkwardBytes[1], 65536 + 42, 0, 42, 0},
                        Case{kAwkwardBytes[2], 1, 1, 1, 1}, Case{kAwkwardBytes[3], 1, 1, 1, 1}}) {
    SessionProfile profile;
    int status = 0, number = 0;
    std::string data, alone;
    GVariantPtr withStatus = SinkVariant(common::ProfileWithStatusToVariant({c.name, c.in}, c.status));
    ASSERT_TRUE(common::VariantToProfileWithStatus(withStatus.get(), profile, status));
    EXPECT_EQ(std::tie(profile.name, profile.id, status), std::tie(c.name, c.expectedId, c.expectedStatus));
    GVariantPtr withNumber = SinkVariant(common::SerializeIntoGVariant(c.name, c.in));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(withNumber.get(), data, number));
    EXPECT_EQ(std::tie(data, number), std::tie(c.name, c.expectedId));
    ASSERT_TRUE(common::DeserializeDataFromGVariant(SinkVariant(common::SerializeIntoGVariant(c.name)).get(), alone));
    EXPECT_EQ(alone, c.name);
  }
  // An array of characters outside the alphabet still decodes, to nothing.
  std::string data = "x";
  int number = 0;
  ASSERT_TRUE(common::DeserializeDataFromGVariant(Parse("(b'!!!!', uint16 3)").get(), data, number));
  EXPECT_EQ(std::tie(data, number), std::make_tuple(""s, 3));
}

TEST_F(Payloads, DecodersRefuseOtherShapesQuietlyAndLeaveTheirOutputsAlone) {
  for (const char* text : {"(7,)", "()", "((),)", "(('MQ==',), ('MQ==',))", "[('MQ==',)]"})
    EXPECT_TRUE(common::VariantToProfiles(Parse(text).get()).empty()) << text;
  EXPECT_TRUE(common::VariantToProfiles(nullptr).empty());
  // An even count leaves the last id without its name: it is not read.
  EXPECT_EQ(Pairs(common::VariantToProfiles(ListOf({"3", "1", "a", "2"}).get())),
            (std::vector<std::pair<int, std::string>>{{1, "a"}}));
  GVariantPtr emptyWithNumber = SinkVariant(common::SerializeIntoGVariant("", 5));
  GVariantPtr emptyAlone = SinkVariant(common::SerializeIntoGVariant(""));
  GVariantPtr emptyName = SinkVariant(common::ProfileWithStatusToVariant({"", 1}, 2));
  GVariantPtr integer = Parse("(7,)");
  for (GVariant* value : {static_cast<GVariant*>(nullptr), integer.get(), emptyWithNumber.get(), emptyAlone.get(),
                          emptyName.get()}) {
    const std::string shown = value != nullptr ? TypeOf(value) : "null";
    std::string data = "kept";
    int number = -7;
    EXPECT_FALSE(common::DeserializeDataFromGVariant(value, data, number)) << shown;
    EXPECT_FALSE(common::DeserializeDataFromGVariant(value, data)) << shown;
    SessionProfile profile{"kept", -7};
    EXPECT_FALSE(common::VariantToProfileWithStatus(value, profile, number)) << shown;
    EXPECT_EQ(std::tie(data, profile.name, number, profile.id), std::make_tuple("kept"s, "kept"s, -7, -7)) << shown;
  }
}

TEST_F(Payloads, ProfileListLogsEachStep) {
  common::VariantToProfiles(SinkVariant(common::ProfilesToVariant({{"Living room", 7}})).get());
  common::VariantToProfiles(SinkVariant(common::ProfilesToVariant({})).get());
  const std::string encode = "GLibUtils.cpp: ProfilesToVariant() > ", decode = "GLibUtils.cpp: VariantToProfiles() > ";
  EXPECT_EQ(Messages(log_),
            (std::vector<std::string>{encode + "profilesSize[2]", encode + "profile [7] [Living room]",
                                      decode + "numValues[3]", decode + "profilesSize[2]",
                                      decode + "profile [7] [Living room]", encode + "profilesSize[0]",
                                      decode + "numValues[1]", decode + "profilesSize[0]"}));
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.priority, platform::LogPriority::kInfo) << line.text;

}

std::string Shown(const std::string& tag, const std::string& text, LogBuffer buffer = LogBuffer::kSystem,
                  LogPriority priority = LogPriority::kInfo) {
  return std::to_string(static_cast<int>(buffer)) + "/" + std::to_string(static_cast<int>(priority)) + " " + tag +
         ": " + text;
}

// Records what it receives into shared state that outlives the sink.
struct Recorder {
  std::mutex mutex;
  std::vector<std::string> lines;  // guarded by mutex
  static platform::LogSink SinkInto(const std::shared_ptr<Recorder>& recorder) {
    return [recorder](LogBuffer buffer, LogPriority priority, const char* tag, const char* text) {
      std::lock_guard<std::mutex> lock(recorder->mutex);
      recorder->lines.push_back(Shown(tag, text, buffer, priority));
    };
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
  }
};

void Log(const char* text) { platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "t", "%s", text); }

class SystemLog : public ::testing::Test {
 protected:
  void TearDown() override { platform::SetLogSink({}); }
};

TEST_F(SystemLog, SinksGetFormattedLinesUntilReplacedOrRemovedAndAreReleased) {
  auto first = std::make_shared<Recorder>(), second = std::make_shared<Recorder>();
  platform::SetLogSink(Recorder::SinkInto(first));
  const std::string longText(5000, 'x');  // longer than any fixed buffer the formatting might start with
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", "[%s]%d", longText.c_str(), 42);
  platform::SetLogSink(Recorder::SinkInto(second));
  platform::LogPrint(LogBuffer::kMain, LogPriority::kError, "zorvel.zorvel", "ends in \"%s\" \n", "quotes");
  platform::SetLogSink({});  // the system log again
  Log("three");
  EXPECT_EQ(first->Lines(), std::vector<std::string>{Shown("zorvel.common", "[" + longText + "]42")});
  EXPECT_EQ(second->Lines(), std::vector<std::string>{Shown("zorvel.zorvel", "ends in \"quotes\" \n", LogBuffer::kMain,
                                                             LogPriority::kError)});
  EXPECT_EQ(first.use_count() + second.use_count(), 2) << "a replaced or removed sink is still alive";

  // Its captures die in the SetLogSink it calls, unless the running sink is kept alive until it returns.
  auto calls = std::make_shared<int>(0);
  platform::SetLogSink([first, calls](LogBuffer, LogPriority, const char*, const char*) {
    platform::SetLogSink(Recorder::SinkInto(first));
    ++*calls;
    EXPECT_GE(first.use_count(), 2);
  });
  Log("four");
  Log("five");
  EXPECT_EQ(*calls, 1);
  EXPECT_EQ(calls.use_count(), 1);
  EXPECT_EQ(first->Lines().size(), 2U);
  EXPECT_EQ(first->Lines().back(), Shown("t", "five"));
}

TEST_F(SystemLog, SinksCanBeSwappedWhileOtherThreadsLog) {
  auto first = std::make_shared<Recorder>(), second = std::make_shared<Recorder>();
  platform::SetLogSink(Recorder::SinkInto(first));
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int i = 0; i < 4; ++i) loggers.emplace_back([&] { while (!stop) Log("busy"); });
  // Swap until both sinks have been run by the loggers (they may start late).
  for (int round = 0; round < 2000 || first->Lines().empty() || second->Lines().empty(); ++round) {
    platform::SetLogSink(Recorder::SinkInto(round % 2 ? first : second));
  }
  stop = true;
  for (std::thread& logger : loggers) logger.join();
  platform::SetLogSink({});
  EXPECT_EQ(first.use_count() + second.use_count(), 2) << "a replaced sink outlived the threads that ran it";
  EXPECT_FALSE(first->Lines().empty());
}

using JournalFields = std::map<std::string, std::string>;

// One entry of the journal's native protocol: "KEY=value\n", or "KEY\n" + 64-bit
// little-endian length + value + "\n". Empty when malformed.
JournalFields ParseJournalEntry(const std::string& data) {
  JournalFields fields;
  for (std::size_t at = 0; at < data.size();) {
    const std::size_t end = data.find('\n', at), equals = data.find('=', at);
    if (end == std::string::npos) return {};
    std::string& value = fields[data.substr(at, std::min(equals, end) - at)];
    if (equals < end) {
      value = data.substr(equals + 1, end - equals - 1);
      at = end + 1;
      continue;
    }
    std::uint64_t length = 0;
    if (data.size() - end < 10) return {};
    std::memcpy(&length, &data[end + 1], sizeof length);
    length = le64toh(length);
    if (length >= data.size() - end - 9 || data[end + 9 + length] != '\n') return {};
    value = data.substr(end + 9, length);
    at = end + 10 + length;
  }
  return fields;
}

// A datagram socket standing in for journald's, with the library's writer pointed at it while this lives.
class FakeJournal {
 public:
  FakeJournal() {
    Listen();
    platform::detail::SetJournalPathForTesting(path_.c_str());
  }
  ~FakeJournal() {
    platform::detail::SetJournalPathForTesting(nullptr);
    Leave();
  }
  void Listen() {
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path_.c_str());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);
  }
  void Leave() {  // as journald going away: its socket and its path are gone
    close(fd_);
    unlink(path_.c_str());
    fd_ = -1;
  }
  // The fields of the next entry within `timeoutMs` (none: empty), and "(via)": how they came.
  JournalFields Receive(int timeoutMs) {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) != 1) return {};
    std::string data(256 * 1024, '\0');
    iovec buffer{&data[0], data.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{nullptr, 0, &buffer, 1, control, sizeof control, 0};
    const ssize_t size = recvmsg(fd_, &message, MSG_CMSG_CLOEXEC);
    if (size < 0) return {};
    data.resize(static_cast<std::size_t>(size));
    std::string via = "datagram";
    if (const cmsghdr* rights = CMSG_FIRSTHDR(&message)) {  // SCM_RIGHTS: nothing else was asked for
      int memfd = -1;
      std::memcpy(&memfd, CMSG_DATA(rights), sizeof memfd);
      const int all = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;  // as journald requires
      via = data.empty() && (fcntl(memfd, F_GET_SEALS) & all) == all ? "sealed memfd alone" : "memfd, open or not alone";
      data.assign(static_cast<std::size_t>(lseek(memfd, 0, SEEK_END)), '\0');
      EXPECT_EQ(pread(memfd, &data[0], data.size(), 0), static_cast<ssize_t>(data.size()));
      close(memfd);
    }
    JournalFields fields = ParseJournalEntry(data);
    fields["(via)"] = via;
    return fields;
  }

 private:
  const std::string path_ = "/tmp/zorvel-journal-" + std::to_string(getpid());
  int fd_ = -1;
};

TEST_F(SystemLog, DefaultOutputSendsTheFourJournalFieldsOfAnyLineWhateverItsBytesAndSize) {
  FakeJournal journal;
  std::string huge(1 << 20, '\0');  // far beyond a datagram: goes in a memfd
  for (std::size_t i = 0; i < huge.size(); ++i) huge[i] = static_cast<char>('a' + i % 26);
  huge[4242] = '\n';
  struct Case {
    LogBuffer buffer;
    LogPriority priority;
    std::string tag, text, bufferName, priorityValue;
  };
  const Case cases[] = {
      {LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", "plain line", "system", "6"},
      {LogBuffer::kMain, LogPriority::kWarning, "zorvel.zorvel", "two\nlines, \"quoted\", raw \xff\x80 bytes", "main",
       "4"},
      {LogBuffer::kSystem, LogPriority::kError, "zorvel.dbus_client", "failed", "system", "3"},
      {LogBuffer::kMain, LogPriority::kInfo, "odd\ntag=", "a tag with a line feed", "main", "6"},
      {LogBuffer::kSystem, LogPriority::kInfo, "zorvel.common", huge, "system", "6"},
  };
  for (const Case& line : cases) {
    platform::LogPrint(line.buffer, line.priority, line.tag.c_str(), "%s", line.text.c_str());
    const JournalFields fields = journal.Receive(10000), expected = {
        {"MESSAGE", line.text}, {"PRIORITY", line.priorityValue}, {"SYSLOG_IDENTIFIER", line.tag},
        {"ZORVEL_LOG_BUFFER", line.bufferName}, {"(via)", line.text.size() == huge.size() ? "sealed memfd alone" : "datagram"}};
    std::string shown;  // the huge message cut short
    for (const auto& [key, value] : fields) shown += key + "=" + value.substr(0, 80) + "\n";
    EXPECT_TRUE(fields == expected) << shown;
  }
}

TEST_F(SystemLog, DefaultOutputDropsLinesWhileNoJournalListensAndFollowsARestartedOne) {
  FakeJournal journal;
  Log("first");
  ASSERT_FALSE(journal.Receive(10000).empty());
  journal.Leave();  // journald restarting: its new socket is there by the next line, which must not be lost
  journal.Listen();
  Log("after a restart");
  EXPECT_EQ(journal.Receive(10000)["MESSAGE"], "after a restart");

  journal.Leave();
  Log("nobody listens");
  Log("still nobody");
  EXPECT_FALSE(platform::detail::JournalReachable());
  journal.Listen();  // back after a while: found again by a later line
  std::string received;
  EXPECT_TRUE(zv_client::testing::WaitUntil([&] {
    Log("anybody?");
    return !(received = journal.Receive(0)["MESSAGE"]).empty();
  }));
  EXPECT_EQ(received, "anybody?");
}

TEST(ThreadId, IsStablePerThreadAndDistinctAcrossThreadsAliveTogether) {
  std::string ids[3] = {logt::thread_id()};
  std::atomic<int> started{0};
  auto body = [&](int index) {
    ids[index] = logt::thread_id();
    for (++started; started.load() < 2;) std::this_thread::yield();  // both alive: no identifier reuse
    EXPECT_EQ(logt::thread_id(), ids[index]);
  };
  std::thread first(body, 1), second(body, 2);
  first.join();
  second.join();
  EXPECT_EQ(logt::thread_id(), ids[0]);
  EXPECT_EQ((std::set<std::string>(ids, ids + 3)).size(), 3U);
  for (const std::string& id : ids)
    EXPECT_TRUE(!id.empty() && id.find_first_not_of("0123456789abcdef") == std::string::npos) << id;
}

}  // namespace
