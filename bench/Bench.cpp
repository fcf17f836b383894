#include "Bench.h"

#include <optional>

#include <zorvel/dbus/client/ServiceContract.h>

#include "Phases.h"

namespace zv_bench {

namespace contract = zv_client::dbus::client;

Bench::Bench(Options given, Report& out, const std::string& address, GDBusConnection* controlConnection)
    : options(std::move(given)),
      report(out),
      control(controlConnection),
      floor(address, floorProbe),
      library(libProbe) {}

void Bench::Run() {
  WaitLibraryReady();
  if (options.Has("call")) CallPhase(*this, Journal::kAbsent);
  if (options.Has("signal")) SignalPhase(*this, Journal::kAbsent);
  if (options.journalPass && (options.Has("call") || options.Has("signal"))) JournalPass();
  if (options.Has("profiles")) ProfilesPhase(*this);
  if (options.Has("burst")) BurstPhase(*this);
  if (options.Has("recovery")) RecoveryPhase(*this);
  if (options.Has("log")) LogPhase(*this);
  if (options.Has("liveness")) LivenessPhase(*this);
  if (options.Has("call") && options.Has("signal")) report.Plot(options.plotScript);
}

std::vector<Bench::Arm> Bench::WithSilent(std::vector<Arm> arms) const {
  if (!options.silentPass) return arms;
  auto at = arms.begin();
  while (at != arms.end() && *at != kArmFloor) ++at;
  arms.insert(at == arms.end() ? at : at + 1, kArmSilent);
  return arms;
}

const std::string& Bench::Other(const std::string& method) {
  return method == contract::kMethodConnect ? contract::kMethodStartBroadcast : contract::kMethodConnect;
}

Ns Bench::Issue(const std::string& method, int id) {
  if (method == contract::kMethodConnect && libConnected_) Fatal("Connect would be refused");
  const Ns blocked = library.Issue(method, id);
  libConnected_ = method == contract::kMethodConnect;
  // Even if dropped: the guard then holds `method` as the active command.
  lastLibMethod_ = method;
  return blocked;
}

zv_client::zorvel::CommandId Bench::ReadProfiles() {
  const zv_client::zorvel::CommandId id = library.ReadProfiles();
  lastLibMethod_ = contract::kMethodReadProfiles;
  return id;
}

bool Bench::LibRunOnce(const std::string& method) {
  const auto before = library.client().GetCounts();
  const std::uint64_t echoes = libProbe.Echoes();
  Issue(method, NextId());
  library.WaitIdle();
  if (library.client().GetCounts().ranAtOnce == before.ranAtOnce) return false;
  if (!libProbe.WaitEchoes(echoes + 1, 5000)) Fatal("no echo for " + method);
  return true;
}

void Bench::LibRun(const std::string& method) {
  LibPrepare(method);
  if (LibRunOnce(method)) return;
  LibRunOnce(Other(method));
  if (!LibRunOnce(method)) Fatal("cannot run " + method);
}

bool Bench::LibPrepare(const std::string& method) {
  if (method != lastLibMethod_ && !(method == contract::kMethodConnect && libConnected_)) return false;
  LibRun(Other(method));
  return true;
}

void Bench::WaitLibraryReady() {
  // The first command is held until the library's retry timer has connected
  // and the daemon's name is seen; its echo means the library is ready.
  const Ns start = NowNs();
  const std::uint64_t echoes = libProbe.Echoes();
  Issue(contract::kMethodStartBroadcast, 0);
  if (!libProbe.WaitEchoes(echoes + 1, 10000)) Fatal("the library did not become ready");
  library.WaitIdle();
  report.Line("  library ready after %.1f ms (first command held, then replayed)",
              static_cast<double>(NowNs() - start) / 1e6);
}

void Bench::LoggingShare(const char* what, const Stats& lib, const Stats& silent, const Stats& floorStats,
                         const std::string& key) {
  const double overhead = lib.median - floorStats.median;
  const double logging = lib.median - silent.median;
  if (overhead <= 0) return;
  report.Line("    logging: %.0f of the %.0f us median overhead of the %s (%.0f%%)", logging, overhead, what,
              100.0 * logging / overhead);
  report.Set(key, logging / overhead);
}

void Bench::JournalPass() {
  std::string why = noJournalOfOurOwn;
  if (why.empty() && (options.trace || options.timeline)) why = "--trace or --timeline takes the lines";
  std::optional<JournalListener> listener;
  if (why.empty()) why = listener.emplace().failure();
  if (why.empty() && !AwaitJournalVerdict(true)) why = "the library sees no journal";
  if (!why.empty()) {
    report.Line("  (calls and signals with a journal listening not measured: %s)", why.c_str());
    return;
  }
  report.Line("  with a journal listening (a socket of ours at the journal's path, drained by a thread):");
  const std::uint64_t before = listener->received();
  if (options.Has("call")) CallPhase(*this, Journal::kListening);
  if (options.Has("signal")) SignalPhase(*this, Journal::kListening);
  report.Line("    %llu lines reached the journal meanwhile",
              static_cast<unsigned long long>(listener->received() - before));
  listener.reset();
  // The phases after this one measure the library with no journal again.
  if (!AwaitJournalVerdict(false)) Fatal("the library still sees the journal that went away");
}

}  // namespace zv_bench
