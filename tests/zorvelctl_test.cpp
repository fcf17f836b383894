// zorvelctl as its users run it: a child process on the private bus, judged
// by its exit code and its --json output.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include <zorvel/Version.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

struct Outcome {
  int exitCode = -1;
  std::string out, err;  // all of it, read once the process has ended
};

// Runs zorvelctl (or `program`) with `arguments` and waits for it; every command is bounded by its own
// --timeout. `bus` replaces the private bus's address in the child's environment.
Outcome Zorvelctl(const std::vector<std::string>& arguments, const char* bus = nullptr,
                  const char* program = ZORVELCTL_PATH) {
  BusAddress();  // exports DBUS_SYSTEM_BUS_ADDRESS, which the child inherits
  std::vector<char*> argv{const_cast<char*>(program)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  gchar** environment = g_get_environ();
  if (bus != nullptr) environment = g_environ_setenv(environment, "DBUS_SYSTEM_BUS_ADDRESS", bus, TRUE);
  gchar *out = nullptr, *err = nullptr;
  gint status = 0;
  GError* rawError = nullptr;
  const bool spawned = g_spawn_sync(nullptr, argv.data(), environment, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err,
                                    &status, &rawError);
  g_strfreev(environment);
  common::GErrorPtr error(rawError);
  common::GCharPtr ownedOut(out), ownedErr(err);
  EXPECT_TRUE(spawned) << (error ? error->message : "");
  if (!spawned) return {};
  Outcome run{-1, out != nullptr ? out : "", err != nullptr ? err : ""};
  EXPECT_TRUE(WIFEXITED(status)) << "zorvelctl did not exit normally: " << run.err;
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// zorvelctl running in the background, for a test that signals it.
struct Child {
  GPid pid = 0;
  int out = -1, err = -1;
};

Child StartZorvelctl(const std::vector<std::string>& arguments) {
  BusAddress();  // exports DBUS_SYSTEM_BUS_ADDRESS, which the child inherits
  std::vector<char*> argv{const_cast<char*>(ZORVELCTL_PATH)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  Child child;
  GError* rawError = nullptr;
  const bool spawned = g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                                nullptr, &child.pid, nullptr, &child.out, &child.err, &rawError);
  common::GErrorPtr error(rawError);
  EXPECT_TRUE(spawned) << (error ? error->message : "");
  return child;
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(got));
  close(fd);
  return text;
}

// Waits up to `deadline` for `child` to exit (then kills it) and reads what it
// wrote: a few lines, which the pipes hold until then.
Outcome Reap(const Child& child, std::chrono::milliseconds deadline) {
  int status = 0;
  const bool exited = WaitUntil([&] { return waitpid(child.pid, &status, WNOHANG) == child.pid; }, deadline);
  if (!exited) {
    kill(child.pid, SIGKILL);
    waitpid(child.pid, &status, 0);
  }
  Outcome run{-1, ReadAll(child.out), ReadAll(child.err)};
  EXPECT_TRUE(exited) << "zorvelctl did not end within " << deadline.count() << " ms: " << run.out << run.err;
  if (exited && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  return run;
}

// The non-empty lines of `out`, but for the command-held ones: whether the
// library still holds a command when it is issued depends on timing.
std::vector<std::string> Lines(const std::string& out) {
  std::istringstream stream(out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    if (!line.empty() && line.rfind(R"({"event":"command-held")", 0) != 0) lines.push_back(line);
  return lines;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::vector<std::string> Split(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

class ZorvelctlTest : public BusTest {
 protected:
  SimOptions SimArguments() const override {
    return {{{1, "Living room"}, {70000, "Café ☕"}, {-5, "Bad \xff\xfe name"}}, {}, 0};
  }
};

TEST_F(ZorvelctlTest, ProfilesPrintsFullIdsAndRawNames) {
  const Outcome run = Zorvelctl({"--json", "profiles"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 4u) << run.out;
  EXPECT_EQ(lines[0], R"({"event":"profile","id":1,"name":"Living room"})");
  EXPECT_EQ(lines[1], R"({"event":"profile","id":70000,"name":"Café ☕"})");
  EXPECT_EQ(lines[2], R"({"event":"profile","id":-5,"name":"Bad \u00ff\u00fe name","name_utf8":false})");
  EXPECT_EQ(lines[3].rfind(R"({"event":"summary","count":3,)", 0), 0u) << lines[3];
  EXPECT_TRUE(Has(lines[3], R"("exit_code":0)")) << lines[3];

  // No profile comes at all: the read ends with the daemon's empty list, well before the timeout.
  control().SetProfiles({});
  const Outcome empty = Zorvelctl({"--json", "--timeout", "5", "profiles"});
  EXPECT_EQ(empty.exitCode, 0) << empty.out << empty.err;
  lines = Lines(empty.out);
  ASSERT_EQ(lines.size(), 1u) << empty.out;
  EXPECT_EQ(lines[0].rfind(R"({"event":"summary","count":0,)", 0), 0u) << lines[0];
}

TEST_F(ZorvelctlTest, CommandsExitOneOnARefusalOrAnError) {
  const Outcome connect = Zorvelctl({"connect", "101"});
  EXPECT_EQ(connect.exitCode, 0) << connect.out << connect.err;
  EXPECT_TRUE(Has(connect.out, "connection-available id=101 available=true")) << connect.out;
  ASSERT_EQ(control().CallsOf("connect").size(), 1u);

  const Outcome deleted = Zorvelctl({"delete", "70000"});
  EXPECT_EQ(deleted.exitCode, 0) << deleted.out << deleted.err;
  const Outcome again = Zorvelctl({"--json", "delete", "70000"});  // gone now: the daemon refuses it
  EXPECT_EQ(again.exitCode, 1) << again.out << again.err;
  EXPECT_TRUE(Has(again.out, R"("answer":-1)")) << again.out;
  EXPECT_TRUE(control().CallsOf("readProfiles").empty()) << "the answer says it all";

  control().SetAnswer("connect", 7);  // a refusal: no connection event will come
  const Outcome refused = Zorvelctl({"--json", "connect", "101"});
  EXPECT_EQ(refused.exitCode, 1) << refused.out << refused.err;
  EXPECT_TRUE(Has(refused.out, R"("answer":7)") && Has(refused.out, "refused")) << refused.out;
  control().SetError("connect", "org.example.Error.Busy", "busy");
  const Outcome failed = Zorvelctl({"--json", "connect", "101"});
  EXPECT_EQ(failed.exitCode, 1) << failed.out << failed.err;
  EXPECT_TRUE(Has(failed.out, R"("error":"org.example.Error.Busy")")) << failed.out;

  const Outcome stop = Zorvelctl({"stop"});
  EXPECT_EQ(stop.exitCode, 0) << stop.out << stop.err;
  control().SetAnswer("deinit", -5);
  const Outcome stopRefused = Zorvelctl({"--json", "stop"});
  EXPECT_EQ(stopRefused.exitCode, 1) << stopRefused.out << stopRefused.err;
  EXPECT_TRUE(Has(stopRefused.out, R"("answer":-5)")) << stopRefused.out;
}

TEST_F(ZorvelctlTest, SigintEndsAStopTheDaemonNeverAnswersAtOnce) {
  control().SetNoReply("deinit");
  const Child child = StartZorvelctl({"--json", "stop"});
  ASSERT_TRUE(control().WaitForCall("deinit")) << "zorvelctl never called deinit";
  ASSERT_EQ(kill(child.pid, SIGINT), 0);
  // The call itself would wait 25 s for its answer.
  const Outcome run = Reap(child, std::chrono::seconds(8));
  EXPECT_EQ(run.exitCode, 130) << run.out << run.err;
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 1u) << run.out;
  EXPECT_EQ(lines[0].rfind(R"({"event":"summary","command":"stop","result":"interrupted","exit_code":130,)", 0), 0u)
      << lines[0];
  EXPECT_TRUE(Has(lines[0], "deinit()")) << lines[0];
}

TEST_F(ZorvelctlTest, DoubleDashEndsTheOptionsAndJsonCoversUsageErrors) {
  control().SetProfiles({{-1, "Minus one"}});
  const Outcome deleted = Zorvelctl({"--json", "delete", "--", "-1"});
  EXPECT_EQ(deleted.exitCode, 0) << deleted.out << deleted.err;
  EXPECT_TRUE(Has(deleted.out, R"("id":-1,"answer":0)")) << deleted.out;
  const Outcome notAnId = Zorvelctl({"delete", "--", "--json"});  // an argument, not the option
  EXPECT_EQ(notAnId.exitCode, 2) << notAnId.out;
  EXPECT_TRUE(notAnId.out.empty() && Has(notAnId.err, "'--json' is not an ID")) << notAnId.out << notAnId.err;

  // --json anywhere among the options: the usage error is one summary object on stdout.
  for (const char* line : {"--json --bogus monitor", "--bogus --json monitor", "--json frobnicate"}) {
    const Outcome run = Zorvelctl(Split(line));
    EXPECT_EQ(run.exitCode, 2) << line;
    EXPECT_TRUE(run.err.empty()) << line << ": " << run.err;
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_EQ(lines.size(), 1u) << line << ": " << run.out;
    EXPECT_EQ(lines[0].rfind(R"({"event":"summary","command":)", 0), 0u) << lines[0];
    EXPECT_TRUE(Has(lines[0], R"("result":"usage","exit_code":2,"message":)")) << lines[0];
  }

  // --timeout takes what --help states, 0 to 999999999 in plain decimal, and nothing else.
  const Outcome help = Zorvelctl({"--help"});
  EXPECT_TRUE(Has(help.out, "from 0 to 999999999")) << help.out;
  for (const char* timeout : {"999999999", "0", "10.25", "10.", ".5"}) {  // .5 s may be too short to connect
    const Outcome run = Zorvelctl({"--timeout", timeout, "profiles"});
    EXPECT_NE(run.exitCode, 2) << timeout << ": " << run.err;
  }
  for (const char* timeout : {"1000000000", "999999999.5", "1e3", "0x10", "nan", "+5", " 5", "", "."}) {
    const Outcome run = Zorvelctl({"--timeout", timeout, "profiles"});
    EXPECT_EQ(run.exitCode, 2) << "'" << timeout << "'";
  }
}

TEST_F(ZorvelctlTest, SimTellsAnIdOutOfRangeFromOneNotDecimal) {
  for (const auto& [option, verdict] : std::vector<std::pair<std::string, std::string>>{
           {"99999999999:x", "out of range"}, {"2147483648:x", "out of range"}, {"12a:x", "decimal ID"}}) {
    for (const char* flag : {"-p", "-i"}) {
      const Outcome run = Zorvelctl({flag, option}, nullptr, ZORVEL_SIM_PATH);
      EXPECT_EQ(run.exitCode, 2) << flag << " " << option;
      EXPECT_TRUE(Has(run.err, verdict) && Has(run.err, option)) << flag << " " << option << ": " << run.err;
    }
  }
}

TEST_F(ZorvelctlTest, ExitsThreeWithoutADaemonAndTwoOnUsageErrors) {
  // A timeout too short to hear from the bus is reported as such: the daemon's name has an owner.
  const Outcome hurried = Zorvelctl({"--json", "--timeout", "0.000001", "profiles"});
  EXPECT_NE(hurried.exitCode, 0) << hurried.out;
  EXPECT_FALSE(Has(hurried.out, "had no owner")) << hurried.out;

  control().ReleaseName();
  for (const char* command : {"profiles", "connect", "stop"}) {
    std::vector<std::string> arguments{"--json", "--timeout", "0.5", command};
    if (arguments.back() == "connect") arguments.push_back("101");
    const Outcome run = Zorvelctl(arguments);
    EXPECT_EQ(run.exitCode, 3) << command << ": " << run.out << run.err;
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_EQ(lines.size(), 1u) << run.out;
    EXPECT_TRUE(Has(lines[0], R"("result":"unreachable")")) << lines[0];
  }
  const Outcome noBus = Zorvelctl({"--json", "profiles"}, "unix:path=/nonexistent/bus");
  EXPECT_EQ(noBus.exitCode, 3) << noBus.out << noBus.err;
  EXPECT_TRUE(Has(noBus.out, "unix:path=/nonexistent/bus") && Has(noBus.out, "DBUS_SYSTEM_BUS_ADDRESS")) << noBus.out;
  for (const char* line : {"", "frobnicate", "connect", "connect abc", "delete 1 2", "profiles --timeout",
                           "profiles --timeout -1", "profiles --online-check", "--bogus monitor"}) {
    const Outcome run = Zorvelctl(Split(line));
    EXPECT_EQ(run.exitCode, 2) << line << ": " << run.err;
    EXPECT_TRUE(Has(run.err, "--help")) << run.err;
  }
  const Outcome help = Zorvelctl({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_TRUE(Has(help.out, "EXIT STATUS") && Has(help.out, "DBUS_SYSTEM_BUS_ADDRESS")) << help.out;
  EXPECT_TRUE(Has(help.out, "--version")) << help.out;
  for (const char* program : {ZORVELCTL_PATH, ZORVEL_SIM_PATH}) {  // both print the project's version
    const Outcome version = Zorvelctl({"--version"}, nullptr, program);
    EXPECT_EQ(version.exitCode, 0) << program << ": " << version.err;
    EXPECT_EQ(version.out, std::string(std::strrchr(program, '/') + 1) + " " ZORVEL_VERSION_STRING "\n");
  }
  EXPECT_TRUE(control().GetCalls().empty());
}

}  // namespace
}  // namespace zv_client::testing
