// Payload formats of the link with the daemon (golden wire forms, round trips,
// hostile input, the log lines of the profile list), the log sink, the
// journal's fields and thread ids.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/platform/Log.h>
#include <zorvel/platform/SystemLog.h>

#include "harness/PrivateJournal.h"
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

TEST_F(SystemLog, SinksMayBeReplacedAnyTime) {
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

  // A sink replacing itself keeps its captures until it returns.
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
  EXPECT_EQ(first->Lines().back(), Shown("t", "five"));

  // Swapped while other threads log, until both sinks have run.
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int i = 0; i < 4; ++i)
    loggers.emplace_back([&] {
      while (!stop) Log("busy");
    });
  const std::size_t before = first->Lines().size();
  for (int round = 0; round < 2000 || first->Lines().size() == before || second->Lines().size() == 1; ++round) {
    platform::SetLogSink(Recorder::SinkInto(round % 2 ? first : second));
  }
  stop = true;
  for (std::thread& logger : loggers) logger.join();
  platform::SetLogSink({});
  EXPECT_EQ(first.use_count() + second.use_count(), 2) << "a replaced sink outlived the threads that ran it";
}

constexpr char kLogTag[] = "zorvel.test";  // for the library's own logging macros
constexpr int kNoJournal = 77;

// The log's contract as the journal receives it, for a child that listens as
// the journal: problems go to stderr; the exit status is 0 without any,
// kNoJournal when it could not listen.
int CheckJournalContract() {
  const std::string why = zv_client::testing::EnterPrivateJournalDir();
  if (why.empty()) ZV_LOGI("nobody listens yet");  // dropped: there is no journal
  const int journal = why.empty() ? zv_client::testing::ListenAsJournal() : -1;
  if (journal < 0) {
    std::fprintf(stderr, "no journal of our own: %s\n", why.empty() ? std::strerror(errno) : why.c_str());
    return kNoJournal;
  }
  // The next entry with "\n" before it, so that every field reads "\nKEY=value\n".
  std::function<std::string(int)> receive = [journal](int timeoutMs) {
    pollfd ready{journal, POLLIN, 0};
    static char entry[64 * 1024];
    const ssize_t size = poll(&ready, 1, timeoutMs) == 1 ? recv(journal, entry, sizeof entry, 0) : -1;
    return size < 0 ? ""s : "\n" + std::string(entry, static_cast<std::size_t>(size));
  };
  int problems = 0;
  auto expect = [&](const std::string& entry, const std::vector<std::string>& fields, const char* absent = nullptr) {
    for (const std::string& field : fields)
      if (entry.find("\n" + field + "\n") == std::string::npos || (absent && entry.find(absent) != std::string::npos))
        problems += std::fprintf(stderr, "wanted %s%s%s, got:%s\n", field.c_str(), absent ? " without " : "",
                                 absent ? absent : "", entry.c_str()) > 0;
  };
  std::string entry;
  int line = 0;
  // Found within the 250 ms the library waits before looking again.
  const bool arrived = zv_client::testing::WaitUntil([&] {
    line = __LINE__ + 1;  // the next line logs
    ZV_LOGI("anybody?");
    return !(entry = receive(0)).empty();
  });
  expect(entry, {"MESSAGE=common_payloads_test.cpp: operator()(" + std::to_string(line) + ") > anybody?"});
  // Lines are sent by a writer thread: the other tries may still be on their way.
  const auto next = receive;
  receive = [next](int timeoutMs) {
    std::string got;
    while ((got = next(timeoutMs)).find("> anybody?\n") != std::string::npos) {
    }
    return got;
  };

  const std::string site = "common_payloads_test.cpp: CheckJournalContract(";
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGI_MAIN("duplicate command[%s]", "connect");
  expect(receive(20000),
         {"MESSAGE=" + site + std::to_string(line) + ") > duplicate command[connect]", "PRIORITY=6",
          "SYSLOG_IDENTIFIER=zorvel.test", "ZORVEL_LOG_BUFFER=main", "CODE_FILE=common_payloads_test.cpp",
          "CODE_LINE=" + std::to_string(line), "CODE_FUNC=CheckJournalContract"});
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGW("nullptr, return");
  expect(receive(20000), {"MESSAGE=" + site + std::to_string(line) + ") > nullptr, return", "PRIORITY=4",
                          "ZORVEL_LOG_BUFFER=system", "CODE_LINE=" + std::to_string(line)});
  line = __LINE__ + 1;  // the next line logs
  ZV_LOGE("failed: %d", -1);
  expect(receive(20000), {"MESSAGE=" + site + std::to_string(line) + ") > failed: -1", "PRIORITY=3"});
  [&] {
    line = __LINE__ + 1;  // the next line logs
    ZV_LOGI_THD("ExecuteCommand[%s] FINISHED", "connect");
  }();
  expect(receive(20000), {"MESSAGE=common_payloads_test.cpp: operator()(" + std::to_string(line) +
                              ") > thd: " + logt::thread_id() + " \"ExecuteCommand[connect] FINISHED\"",
                          "CODE_FUNC=operator()", "PRIORITY=6"});
  // The exported entry knows no site: the prefix is the caller's, and no CODE_* fields.
  platform::LogPrint(LogBuffer::kSystem, LogPriority::kWarning, "zorvel.zorvel", "%s: %s(%d) > plain", "a.cpp", "f", 3);
  expect(receive(20000), {"MESSAGE=a.cpp: f(3) > plain", "PRIORITY=4", "SYSLOG_IDENTIFIER=zorvel.zorvel"}, "\nCODE_");
  // Below the level nothing is sent: the next line to arrive is the one at it.
  platform::SetLogLevel(LogPriority::kError);
  ZV_LOGW("below the level");
  ZV_LOGE("at the level");
  expect(receive(20000), {"PRIORITY=3"}, "below the level");
  return problems == 0 && arrived ? 0 : 1;
}

TEST_F(SystemLog, JournalEntriesCarryTheFieldsOfTheLogContract) {
  using platform::detail::LogLevelFromText;  // ZORVEL_LOG_LEVEL's values
  EXPECT_EQ(
      std::make_tuple(LogLevelFromText("warning", LogPriority::kInfo), LogLevelFromText("ERROR", LogPriority::kInfo),
                      LogLevelFromText("debug", LogPriority::kWarning), LogLevelFromText(nullptr, LogPriority::kInfo)),
      std::make_tuple(LogPriority::kWarning, LogPriority::kError, LogPriority::kWarning, LogPriority::kInfo));
  {  // A sink gets what the system log would.
    zv_client::testing::LogCapture log;
    platform::SetLogLevel(LogPriority::kWarning);
    Log("below the level");
    platform::LogPrint(LogBuffer::kSystem, LogPriority::kWarning, "t", "at the level");
    platform::SetLogLevel(LogPriority::kInfo);
    EXPECT_EQ(log.Dump(), "[t] at the level\n");
  }
  const pid_t child = fork();  // with one thread, as new namespaces need
  ASSERT_GE(child, 0);
  if (child == 0) _exit(CheckJournalContract());
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoJournal) GTEST_SKIP() << "no journal of our own: see above why";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the journal got other fields (above); status " << status;
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
