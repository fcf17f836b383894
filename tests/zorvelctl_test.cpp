// zorvelctl as its users run it: a child process on the private bus, judged
// by its exit code and its --json output.

#include <sys/wait.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <glib.h>

#include "support/BusTest.h"

#ifndef ZORVELCTL_PATH
#error "ZORVELCTL_PATH is set by tools/zorvelctl/CMakeLists.txt"
#endif

namespace zv_client::testing {
namespace {

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs zorvelctl with `arguments` and waits for it; every command is bounded
// by its own --timeout.
Outcome Zorvelctl(const std::vector<std::string>& arguments) {
  BusAddress();  // exports DBUS_SYSTEM_BUS_ADDRESS, which the child inherits
  std::vector<char*> argv{const_cast<char*>(ZORVELCTL_PATH)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  Outcome run;
  gchar* out = nullptr;
  gchar* err = nullptr;
  gint status = 0;
  GError* rawError = nullptr;
  const bool spawned = g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err,
                                    &status, &rawError);
  common::GErrorPtr error(rawError);
  common::GCharPtr ownedOut(out), ownedErr(err);
  EXPECT_TRUE(spawned) << (error ? error->message : "");
  if (!spawned) return run;
  run.out = out != nullptr ? out : "";
  run.err = err != nullptr ? err : "";
  EXPECT_TRUE(WIFEXITED(status)) << "zorvelctl did not exit normally: " << run.err;
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// Reads one of zorvelctl's JSON lines: a flat object whose values are
// strings, integers or booleans. Strings come back as the raw bytes they
// stand for (zorvelctl writes a byte that is not UTF-8 as \u00NN).
std::map<std::string, std::string> ParseLine(const std::string& line) {
  std::map<std::string, std::string> object;
  std::size_t i = 0;
  auto fail = [&](const char* what) {
    ADD_FAILURE() << what << " at " << i << " in " << line;
    return std::map<std::string, std::string>{};
  };
  auto readString = [&](std::string& out) {
    if (line[i++] != '"') return false;
    while (i < line.size() && line[i] != '"') {
      if (line[i] != '\\') {
        out += line[i++];
        continue;
      }
      const char escape = line[++i];
      ++i;
      if (escape == 'u') {
        const unsigned long code = std::stoul(line.substr(i, 4), nullptr, 16);
        if (code > 0xFF) return false;
        out += static_cast<char>(code);
        i += 4;
      } else {
        out += escape == 'n' ? '\n' : escape == 't' ? '\t' : escape == 'r' ? '\r' : escape;
      }
    }
    return i++ < line.size();
  };
  if (line.empty() || line[i++] != '{') return fail("no object");
  while (i < line.size() && line[i] != '}') {
    std::string key, value;
    if (!readString(key) || line[i++] != ':') return fail("bad key");
    if (line[i] == '"') {
      if (!readString(value)) return fail("bad string");
    } else {
      while (i < line.size() && line[i] != ',' && line[i] != '}') value += line[i++];
    }
    object[key] = value;
    if (line[i] == ',') ++i;
  }
  return object;
}

std::vector<std::map<std::string, std::string>> ParseLines(const std::string& out) {
  std::vector<std::map<std::string, std::string>> objects;
  gchar** lines = g_strsplit(out.c_str(), "\n", -1);
  for (gchar** line = lines; *line != nullptr; ++line) {
    if (**line != '\0') objects.push_back(ParseLine(*line));
  }
  g_strfreev(lines);
  return objects;
}

const std::string kNotUtf8 = "Bad \xff\xfe name";

class ZorvelctlTest : public BusTest {
 protected:
  SimOptions SimArguments() const override {
    return {{{1, "Living room"}, {2, "Café ☕"}, {3, kNotUtf8}}, {}, 0, {}};
  }
};

TEST_F(ZorvelctlTest, ProfilesJsonCarriesEveryIdAndNameByteForByte) {
  const Outcome run = Zorvelctl({"--json", "profiles"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto objects = ParseLines(run.out);
  ASSERT_EQ(objects.size(), 4u) << run.out;
  const std::vector<std::pair<std::string, std::string>> expected{
      {"1", "Living room"}, {"2", "Café ☕"}, {"3", kNotUtf8}};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(objects[i].at("event"), "profile");
    EXPECT_EQ(objects[i].at("id"), expected[i].first);
    EXPECT_EQ(objects[i].at("name"), expected[i].second);
  }
  EXPECT_EQ(objects[1].count("name_utf8"), 0u);
  EXPECT_EQ(objects[2].at("name_utf8"), "false");
  EXPECT_EQ(objects[3].at("event"), "summary");
  EXPECT_EQ(objects[3].at("count"), "3");
  EXPECT_EQ(objects[3].at("exit_code"), "0");
}

TEST_F(ZorvelctlTest, CommandsSucceedAgainstALiveDaemon) {
  const Outcome connect = Zorvelctl({"connect", "101"});
  EXPECT_EQ(connect.exitCode, 0) << connect.out << connect.err;
  EXPECT_NE(connect.out.find("connection-available id=101 available=true"), std::string::npos) << connect.out;
  ASSERT_EQ(control().CallsOf("connect").size(), 1u);

  const Outcome deleted = Zorvelctl({"delete", "2"});
  EXPECT_EQ(deleted.exitCode, 0) << deleted.out << deleted.err;
  std::vector<int> left;
  for (const auto& profile : control().GetProfiles()) left.push_back(profile.first);
  EXPECT_EQ(left, (std::vector<int>{1, 3}));
  // The daemon refuses an unknown profile; the library does not pass its
  // answer on, so zorvelctl finds out from the stored list.
  const Outcome again = Zorvelctl({"delete", "2"});
  EXPECT_EQ(again.exitCode, 1) << again.out << again.err;

  const Outcome stop = Zorvelctl({"stop"});
  EXPECT_EQ(stop.exitCode, 0) << stop.out << stop.err;
  control().SetAnswer("deinit", -5);
  const Outcome refused = Zorvelctl({"--json", "stop"});
  EXPECT_EQ(refused.exitCode, 1) << refused.out << refused.err;
  EXPECT_NE(refused.out.find("\"answer\":-5"), std::string::npos) << refused.out;
}

TEST_F(ZorvelctlTest, AnEmptyStoreEndsCleanly) {
  control().SetProfiles({});
  const Outcome run = Zorvelctl({"--json", "profiles", "--timeout", "15"});
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto objects = ParseLines(run.out);
  ASSERT_EQ(objects.size(), 1u) << run.out;
  EXPECT_EQ(objects[0].at("count"), "0");
}

TEST_F(ZorvelctlTest, ExitCodeThreeWhenTheDaemonIsNotOnTheBus) {
  control().ReleaseName();
  ASSERT_TRUE(WaitUntil([] { return NameOwner("zorvel.dbus.service").empty(); }));
  for (const char* command : {"profiles", "connect", "stop"}) {
    std::vector<std::string> arguments{"--json", "--timeout", "0.5", command};
    if (std::string(command) == "connect") arguments.push_back("101");
    const Outcome run = Zorvelctl(arguments);
    EXPECT_EQ(run.exitCode, 3) << command << ": " << run.out << run.err;
    const auto objects = ParseLines(run.out);
    ASSERT_EQ(objects.size(), 1u) << run.out;
    EXPECT_EQ(objects[0].at("result"), "unreachable");
  }
  EXPECT_TRUE(control().GetCalls().empty());
}

TEST_F(ZorvelctlTest, UsageErrorsExitWithTwo) {
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"connect"}, {"connect", "abc"}, {"delete", "1", "2"}, {"profiles", "--timeout"},
           {"profiles", "--timeout", "-1"}, {"profiles", "--online-check"}, {"--bogus", "monitor"}}) {
    const Outcome run = Zorvelctl(arguments);
    EXPECT_EQ(run.exitCode, 2) << ::testing::PrintToString(arguments) << run.err;
    EXPECT_NE(run.err.find("--help"), std::string::npos) << run.err;
  }
  const Outcome help = Zorvelctl({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "EXIT STATUS",
                              "ENVIRONMENT", "DBUS_SYSTEM_BUS_ADDRESS", "EXAMPLES"}) {
    EXPECT_NE(help.out.find(section), std::string::npos) << section;
  }
  EXPECT_TRUE(control().GetCalls().empty());
}

}  // namespace
}  // namespace zv_client::testing
