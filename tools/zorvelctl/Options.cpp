#include "Options.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <vector>

#include <glib.h>

namespace zorvelctl {

const char kUsage[] = R"(NAME
    zorvelctl - drive and watch the zorvel daemon through libzorvel

SYNOPSIS
    zorvelctl [--timeout SECONDS] [--verbose] [--json] [--] COMMAND [ARGUMENTS]
    zorvelctl --help
    zorvelctl --version

DESCRIPTION
    zorvelctl runs one command of the zorvel daemon through libzorvel, the
    library that applications use, on the system bus, and prints the events
    the library delivers: found instances, stored profiles, available and
    cancelled connections. It first waits for the daemon's bus name
    (zorvel.dbus.service) to have an owner. Each event is one line; with
    --json one JSON object per line, followed by a summary object.

    The library holds a command until it is connected to the daemon, which
    takes about half a second after start: a command-held line says so, with
    why (the library's link state: connecting, waiting for the daemon's name
    to have an owner, the bus unreachable, or held after a stopped broadcast
    until the daemon restarts), and zorvelctl waits for the command's end. The library does not tell when it
    sends a held command on, so one that has not ended by the timeout counts
    as the daemon not reached (exit status 3).

    Names are raw bytes. In text output bytes that are not valid UTF-8, and
    control characters, are shown as \xNN. In JSON a byte that is not valid
    UTF-8 is written as \u00NN (NN = the byte value) and the object gets
    "name_utf8":false; control characters use the usual JSON escapes.

COMMANDS
    broadcast [--online-check]
        Start a broadcast and print each instance found (each id and name
        once) until the timeout (default 3 s) or SIGINT/SIGTERM, then stop the
        broadcast (waiting up to 500 ms) and print the daemon's answer. Ends at once when the daemon
        refuses to start it. Note that after a stopped broadcast the library
        holds further commands until the daemon restarts; every zorvelctl run
        starts afresh.
    profiles
        Read the stored profiles and print each with its full id, in the
        daemon's order; ends as soon as the list arrives (default timeout
        10 s).
    connect ID
        Ask the daemon to connect to instance (or stored profile) ID. After
        the daemon's answer 0, wait for its connection-available event for ID
        (default timeout 10 s); any other answer is a refusal and ends the
        command at once. Events carry ids as 16-bit numbers, so an ID outside
        0..65535 is matched by its lower 16 bits.
    delete ID
        Delete the stored profile ID and print the daemon's answer: 0 when it
        was deleted, any other answer when the daemon refused (for instance
        because there is no such profile) (default timeout 10 s).
    stop
        Tell the daemon to deinitialise (Launcher::Stop) once the library is
        connected, and print the daemon's answer (default timeout 10 s).
        The call itself waits for the answer up to the D-Bus default of 25 s,
        whatever the timeout; SIGINT or SIGTERM ends that wait at once.
    monitor
        Print every callback as it arrives, every change of the daemon's bus
        name owner and of the library's link state (link-state lines: state
        and reason), until SIGINT/SIGTERM or the timeout (default: none).
        Issues no command. Across a restart of the daemon the library finds
        the new instance by itself, and its events keep coming.

OPTIONS
    --timeout SECONDS
        The longest the command runs in total, waiting for the daemon
        included. SECONDS is a plain decimal number from 0 to 999999999:
        digits with an optional decimal point (10, 2.5, 0.25); 0 means no
        limit.
    --online-check
        broadcast: start the broadcast with the online check.
    -v, --verbose
        Print the library's log lines on stderr instead of the system log.
    --json
        One JSON object per line: {"event":"instance-found","id":101,
        "name":"Kitchen speaker"}, ..., then {"event":"summary",...,
        "answer":N (the daemon's answer),"error":NAME (a D-Bus error),
        "command":...,"result":"ok"|"failed"|"unreachable"|"interrupted",
        "exit_code":N,"message":...}. "answer" and "error" appear when there
        is one. A usage error is then a summary object on stdout too, with
        "result":"usage" and "exit_code":2.
    --
        Ends the options: what follows is the command and its arguments,
        even when it starts with "-" (zorvelctl delete -- -1; a negative ID
        is also taken without it).
    -h, --help
        Print this text and exit.
    --version
        Print "zorvelctl MAJOR.MINOR.PATCH", the version of the libzorvel it
        runs on, and exit.

EXIT STATUS
    0   Success: the daemon answered 0 (and, for connect, reported the
        connection available).
    1   The daemon refused (answered non-zero) or answered with a D-Bus
        error, the library did not send the command, or an expected event
        did not come before the timeout.
    2   Usage error.
    3   The daemon could not be reached within the timeout: the bus is not
        reachable, zorvel.dbus.service has no owner (or the bus did not say
        whether it has one in time), or the library did not connect to it
        (a held command did not end).
    130, 143
        SIGINT (130) or SIGTERM (143) ended the command: at once, with its
        summary line as for any other ending, also while a call waits for
        a daemon that does not answer. A command that had ended already
        keeps its own exit status.

ENVIRONMENT
    DBUS_SYSTEM_BUS_ADDRESS
        The address of the system bus, on which the daemon is looked for
        (default unix:path=/var/run/dbus/system_bus_socket).

EXAMPLES
    zorvelctl broadcast --timeout 5
    zorvelctl --json profiles | jq -r 'select(.event == "profile") | .name'
    zorvelctl connect 101 && echo connected
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/bus zorvelctl --verbose stop
)";

namespace {

// Plain decimal only ("2", "0.5", "5.", ".5"), which is what --help states;
// strtod alone would also take " 2", "+2", "1e3", "0x10" and "nan".
bool ParseSeconds(const char* text, double& value) {
  const std::string digits = "0123456789";
  const std::string number = text;
  const std::size_t point = number.find('.');
  const std::string whole = number.substr(0, point);
  const std::string fraction = point == std::string::npos ? "" : number.substr(point + 1);
  if (whole.empty() && fraction.empty()) return false;
  if (whole.find_first_not_of(digits) != std::string::npos) return false;
  if (fraction.find_first_not_of(digits) != std::string::npos) return false;
  value = g_ascii_strtod(text, nullptr);  // the C locale's decimal point, whatever the user's locale
  return value <= kMaxTimeout;
}

std::string ParseId(const std::string& text, int& id) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') return "'" + text + "' is not an ID (a decimal number)";
  if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
    return "ID '" + text + "' is out of range (" + std::to_string(INT32_MIN) + " to " + std::to_string(INT32_MAX) + ")";
  }
  id = static_cast<int>(value);
  return "";
}

// The command and its ID, once the options are read.
std::string ParseCommand(const std::vector<std::string>& positional, Options& options) {
  if (positional.empty()) return "no command given";
  options.command = positional[0];
  const std::set<std::string> withId{"connect", "delete"};
  const std::set<std::string> withoutId{"broadcast", "profiles", "stop", "monitor"};
  if (withId.count(options.command) != 0) {
    if (positional.size() != 2) return options.command + " needs one ID";
    return ParseId(positional[1], options.id);
  }
  if (withoutId.count(options.command) != 0) {
    return positional.size() == 1 ? "" : options.command + " takes no argument";
  }
  return "unknown command '" + options.command + "'";
}

}  // namespace

const char* ResultName(int code) {
  switch (code) {
    case kExitOk:
      return "ok";
    case kExitUsage:
      return "usage";
    case kExitUnreachable:
      return "unreachable";
    case kExitFailed:
      return "failed";
    default:
      return "interrupted";
  }
}

std::string ParseOptions(int argc, char** argv, Options& options) {
  std::vector<std::string> positional;
  std::string error;  // the first one
  auto fail = [&error](const std::string& message) {
    if (error.empty()) error = message;
  };
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsEnded) {
      positional.push_back(arg);
    } else if (arg == "--") {
      optionsEnded = true;
    } else if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg == "--version") {
      options.version = true;
    } else if (arg == "-v" || arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--online-check") {
      options.onlineCheck = true;
    } else if (arg == "--timeout" || arg.rfind("--timeout=", 0) == 0) {
      const char* value = arg == "--timeout" ? (i + 1 < argc ? argv[++i] : nullptr) : argv[i] + 10;
      double seconds = 0;
      if (value != nullptr && ParseSeconds(value, seconds)) {
        options.timeout = seconds;
      } else {
        fail("--timeout needs a number of seconds from 0 to 999999999 (digits, with an optional fraction)");
      }
    } else if (arg.size() > 1 && arg[0] == '-' && !std::isdigit(static_cast<unsigned char>(arg[1]))) {
      fail("unknown option '" + arg + "'");  // a negative ID is no option
    } else {
      positional.push_back(arg);
    }
  }
  if (options.help || options.version) return "";
  if (!error.empty()) {
    if (!positional.empty()) options.command = positional[0];  // for the JSON summary
    return error;
  }
  if (const std::string problem = ParseCommand(positional, options); !problem.empty()) return problem;
  if (options.onlineCheck && options.command != "broadcast") return "--online-check belongs to broadcast";
  if (!options.timeout) options.timeout = options.command == "monitor" ? 0 : options.command == "broadcast" ? 3 : 10;
  return "";
}

}  // namespace zorvelctl
