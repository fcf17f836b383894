#pragma once

// zorvelctl's command line: what the user asked for, and the --help text.

#include <optional>
#include <string>

namespace zorvelctl {

enum Exit { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitUnreachable = 3 };

// An interrupted run exits as shells report a process ended by the signal.
inline int InterruptedExit(int signal) { return 128 + signal; }

// The "result" of a JSON summary for exit code `code`.
const char* ResultName(int code);

// The largest --timeout accepted, in seconds.
inline constexpr double kMaxTimeout = 999999999;

struct Options {
  std::string command;  // broadcast, profiles, connect, delete, stop or monitor
  int id = 0;           // connect, delete
  bool onlineCheck = false;
  std::optional<double> timeout;  // seconds, 0 for none; set by ParseOptions
  bool verbose = false;
  bool json = false;
  bool help = false;
  bool version = false;
};

// Fills `options` from the command line and gives the command its default
// timeout; returns an error message, empty when `options` is complete (or
// --help or --version was asked for). Options after an error are still read,
// so that --json and --help count wherever they stand; "--" ends the
// options.
std::string ParseOptions(int argc, char** argv, Options& options);

extern const char kUsage[];

}  // namespace zorvelctl
