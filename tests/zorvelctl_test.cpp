// zorvelctl as its users run it: a child process on the private bus, judged
// by its exit code and its --json output.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <sstream>

#include <zorvel/Version.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

struct Outcome {
  int exitCode = -1;
  std::string out, err;  // all of it, read once the process has ended
};

// zorvelctl (or `program`) started with `arguments`; `bus` replaces the private bus's address in its environment.
struct Child {
  GPid pid = 0;
  int out = -1, err = -1;
};

Child Start(const std::vector<std::string>& arguments, const char* bus = nullptr,
            const char* program = ZORVELCTL_PATH) {
  BusAddress();  // exports DBUS_SYSTEM_BUS_ADDRESS, which the child inherits
  std::vector<char*> argv{const_cast<char*>(program)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  gchar** environment = g_get_environ();
  if (bus != nullptr) environment = g_environ_setenv(environment, "DBUS_SYSTEM_BUS_ADDRESS", bus, TRUE);
  Child child;
  GError* rawError = nullptr;
  const bool spawned = g_spawn_async_with_pipes(nullptr, argv.data(), environment, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                                nullptr, &child.pid, nullptr, &child.out, &child.err, &rawError);
  g_strfreev(environment);
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

// Reads what `child` wrote and reaps it: for as long as it runs, or, given a `deadline`, up to then (then it is
// killed, and its few lines read from the pipes, which hold them until then).
Outcome Reap(const Child& child, std::optional<std::chrono::milliseconds> deadline = std::nullopt) {
  if (child.pid <= 0) return {};
  Outcome run;
  if (!deadline) run.out = ReadAll(child.out), run.err = ReadAll(child.err);
  int status = 0;
  const bool exited = deadline ? WaitUntil([&] { return waitpid(child.pid, &status, WNOHANG) == child.pid; }, *deadline)
                               : waitpid(child.pid, &status, 0) == child.pid;
  if (!exited) kill(child.pid, SIGKILL), waitpid(child.pid, &status, 0);
  if (deadline) run.out = ReadAll(child.out), run.err = ReadAll(child.err);
  EXPECT_TRUE(exited) << "zorvelctl did not end within " << (deadline ? deadline->count() : -1) << " ms: " << run.out
                      << run.err;
  EXPECT_TRUE(!exited || WIFEXITED(status)) << "zorvelctl did not exit normally: " << run.err;
  if (exited && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  return run;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// Runs zorvelctl (or `program`), expected to exit with `code` and to print each of `parts` on stdout; every
// command is bounded by its own --timeout.
Outcome Exits(int code, const std::vector<std::string>& arguments, std::initializer_list<const char*> parts = {},
              const char* bus = nullptr, const char* program = ZORVELCTL_PATH) {
  Outcome run = Reap(Start(arguments, bus, program));
  const std::string command = ::testing::PrintToString(arguments);
  EXPECT_EQ(run.exitCode, code) << command << ": " << run.out << run.err;
  for (const char* part : parts) EXPECT_TRUE(Has(run.out, part)) << command << ": " << run.out;
  return run;
}

// The non-empty lines of `out`, but for the command-held ones: whether the
// library still holds a command when it is issued depends on timing.
std::vector<std::string> Lines(const std::string& out) {
  std::istringstream stream(out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    if (!line.empty() && !StartsWith(line, R"({"event":"command-held")")) lines.push_back(line);
  return lines;
}

// The one line of `out` (a failure, and an empty line, if it printed more or fewer).
std::string OnlyLine(const std::string& out) {
  const std::vector<std::string> lines = Lines(out);
  EXPECT_EQ(lines.size(), 1u) << out;
  return lines.size() == 1 ? lines[0] : std::string();
}

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
  const Outcome run = Exits(0, {"--json", "profiles"});
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 4u) << run.out;
  EXPECT_EQ(lines[0], R"({"event":"profile","id":1,"name":"Living room"})");
  EXPECT_EQ(lines[1], R"({"event":"profile","id":70000,"name":"Café ☕"})");
  EXPECT_EQ(lines[2], R"({"event":"profile","id":-5,"name":"Bad \u00ff\u00fe name","name_utf8":false})");
  EXPECT_TRUE(StartsWith(lines[3], R"({"event":"summary","count":3,)") && Has(lines[3], R"("exit_code":0)"))
      << lines[3];

  // No profile comes at all: the read ends with the daemon's empty list, well before the timeout.
  control().SetProfiles({});
  const std::string empty = OnlyLine(Exits(0, {"--json", "--timeout", "5", "profiles"}).out);
  EXPECT_TRUE(StartsWith(empty, R"({"event":"summary","count":0,)")) << empty;
}

TEST_F(ZorvelctlTest, CommandsExitOneOnARefusalOrAnError) {
  Exits(0, {"connect", "101"}, {"connection-available id=101 available=true"});
  ASSERT_EQ(control().CallsOf("connect"), 1u);

  Exits(0, {"delete", "70000"});
  Exits(1, {"--json", "delete", "70000"}, {R"("answer":-1)"});  // gone now: the daemon refuses it
  EXPECT_EQ(control().CallsOf("readProfiles"), 0u) << "the answer says it all";

  control().SetAnswer("connect", 7);  // a refusal: no connection event will come
  Exits(1, {"--json", "connect", "101"}, {R"("answer":7)", "refused"});
  control().SetError("connect", "org.example.Error.Busy", "busy");
  Exits(1, {"--json", "connect", "101"}, {R"("error":"org.example.Error.Busy")"});

  Exits(0, {"stop"});
  control().SetAnswer("deinit", -5);
  Exits(1, {"--json", "stop"}, {R"("answer":-5)"});
}

TEST_F(ZorvelctlTest, SigintEndsAStopTheDaemonNeverAnswersAtOnce) {
  control().SetNoReply("deinit");
  const Child child = Start({"--json", "stop"});
  ASSERT_TRUE(control().WaitForCall("deinit")) << "zorvelctl never called deinit";
  ASSERT_EQ(kill(child.pid, SIGINT), 0);
  // The call itself would wait 25 s for its answer.
  const Outcome run = Reap(child, std::chrono::seconds(8));
  EXPECT_EQ(run.exitCode, 130) << run.out << run.err;
  const std::string line = OnlyLine(run.out);
  EXPECT_TRUE(StartsWith(line, R"({"event":"summary","command":"stop","result":"interrupted","exit_code":130,)"))
      << line;
  EXPECT_TRUE(Has(line, "deinit()")) << line;
}

TEST_F(ZorvelctlTest, DoubleDashEndsTheOptionsAndJsonCoversUsageErrors) {
  control().SetProfiles({{-1, "Minus one"}});
  Exits(0, {"--json", "delete", "--", "-1"}, {R"("id":-1,"answer":0)"});
  const Outcome notAnId = Exits(2, {"delete", "--", "--json"});  // an argument, not the option
  EXPECT_TRUE(notAnId.out.empty() && Has(notAnId.err, "'--json' is not an ID")) << notAnId.out << notAnId.err;

  // --json anywhere among the options: the usage error is one summary object on stdout.
  for (const char* line : {"--json --bogus monitor", "--bogus --json monitor", "--json frobnicate"}) {
    const Outcome run = Exits(2, Split(line));
    EXPECT_TRUE(run.err.empty()) << line << ": " << run.err;
    const std::string summary = OnlyLine(run.out);
    EXPECT_TRUE(StartsWith(summary, R"({"event":"summary","command":)")) << summary;
    EXPECT_TRUE(Has(summary, R"("result":"usage","exit_code":2,"message":)")) << summary;
  }

  // --timeout takes what --help states, 0 to 999999999 in plain decimal, and nothing else.
  Exits(0, {"--help"}, {"from 0 to 999999999"});
  for (const char* timeout : {"999999999", "0", "10.25", "10.", ".5"}) {  // .5 s may be too short to connect
    const Outcome run = Reap(Start({"--timeout", timeout, "profiles"}));
    EXPECT_NE(run.exitCode, 2) << timeout << ": " << run.err;
  }
  for (const char* timeout : {"1000000000", "999999999.5", "1e3", "0x10", "nan", "+5", " 5", "", "."}) {
    Exits(2, {"--timeout", timeout, "profiles"});
  }
}

TEST_F(ZorvelctlTest, SimTellsAnIdOutOfRangeFromOneNotDecimal) {
  for (const auto& [option, verdict] : std::vector<std::pair<std::string, std::string>>{
           {"99999999999:x", "out of range"}, {"2147483648:x", "out of range"}, {"12a:x", "decimal ID"}}) {
    for (const char* flag : {"-p", "-i"}) {
      const Outcome run = Exits(2, {flag, option}, {}, nullptr, ZORVEL_SIM_PATH);
      EXPECT_TRUE(Has(run.err, verdict) && Has(run.err, option)) << flag << " " << option << ": " << run.err;
    }
  }
}

TEST_F(ZorvelctlTest, ExitsThreeWithoutADaemonAndTwoOnUsageErrors) {
  // A timeout too short to hear from the bus is reported as such: the daemon's name has an owner.
  const Outcome hurried = Reap(Start({"--json", "--timeout", "0.000001", "profiles"}));
  EXPECT_NE(hurried.exitCode, 0) << hurried.out;
  EXPECT_FALSE(Has(hurried.out, "had no owner")) << hurried.out;

  control().ReleaseName();
  for (const char* command : {"profiles", "connect 101", "stop"}) {
    const std::string line = OnlyLine(Exits(3, Split(std::string("--json --timeout 0.5 ") + command)).out);
    EXPECT_TRUE(Has(line, R"("result":"unreachable")")) << line;
  }
  Exits(3, {"--json", "profiles"}, {"unix:path=/nonexistent/bus", "DBUS_SYSTEM_BUS_ADDRESS"},
        "unix:path=/nonexistent/bus");
  for (const char* line : {"", "frobnicate", "connect", "connect abc", "delete 1 2", "profiles --timeout",
                           "profiles --timeout -1", "profiles --online-check", "--bogus monitor"}) {
    const Outcome run = Exits(2, Split(line));
    EXPECT_TRUE(Has(run.err, "--help")) << run.err;
  }
  Exits(0, {"--help"}, {"EXIT STATUS", "DBUS_SYSTEM_BUS_ADDRESS", "--version"});
  for (const char* program : {ZORVELCTL_PATH, ZORVEL_SIM_PATH}) {  // both print the project's version
    EXPECT_EQ(Exits(0, {"--version"}, {}, nullptr, program).out,
              std::string(std::strrchr(program, '/') + 1) + " " ZORVEL_VERSION_STRING "\n");
  }
  EXPECT_TRUE(control().CallTexts().empty());
}

}  // namespace
}  // namespace zv_client::testing
