// zorvelctl: drive and watch the zorvel daemon through libzorvel, for people
// who integrate the daemon on a device. See --help (Options.cpp).
//
//   Options   the command line and the usage text
//   Session   the bus, the main loop, the Launcher, its callbacks and outcomes
//   Commands  one function per command
//   Output    the lines printed, as text or JSON

#include <cstdio>
#include <string>
#include <utility>

#include <zorvel/Version.h>

#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Session.h"

int main(int argc, char** argv) {
  using namespace zorvelctl;
  Options options;
  const std::string error = ParseOptions(argc, argv, options);
  if (options.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (options.version) {
    std::printf("zorvelctl %s\n", zv_client::zorvel::Version());
    return kExitOk;
  }
  Printer printer(options.json);
  if (!error.empty()) {
    if (options.json) {
      // Scripts reading --json get every ending as one summary object on stdout.
      Event summary("summary");
      summary.Text("command", options.command).Text("result", ResultName(kExitUsage)).Int("exit_code", kExitUsage);
      printer.Summary(std::move(summary), true, error);
    } else {
      std::fprintf(stderr, "zorvelctl: %s\nTry 'zorvelctl --help' for more information.\n", error.c_str());
    }
    return kExitUsage;
  }
  Session session(options, printer);
  return session.Run(PlanFor(options));
}
