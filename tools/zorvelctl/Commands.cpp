#include "Commands.h"

#include <cstdint>
#include <string>

#include <zorvel/dbus/client/ServiceContract.h>

namespace zorvelctl {
namespace {

using zv_client::dbus::client::kBusName;
using zv_client::dbus::client::kMethodConnect;
using zv_client::dbus::client::kMethodDeinit;
using zv_client::dbus::client::kMethodDeleteStoredProfile;
using zv_client::dbus::client::kMethodReadProfiles;
using zv_client::dbus::client::kMethodStartBroadcast;
using zv_client::dbus::client::kMethodStopBroadcast;
using zv_client::zorvel::CommandStatus;
using zv_client::zorvel::kErrorNotReady;

// Stop is never held: until the library is connected to the daemon (about
// half a second after Init) it fails at once, and is asked again this often.
constexpr auto kStopRetry = std::chrono::milliseconds(100);

std::string Subject(const std::string& method, std::optional<int> argument) {
  return method + "(" + (argument ? std::to_string(*argument) : "") + ")";
}

bool NotReady(const CommandOutcome& outcome) {
  return outcome.status == CommandStatus::kNotStarted && outcome.errorName == kErrorNotReady;
}

// Adds the daemon's answer or the error's name to `summary` and tells what
// went wrong; "" when the daemon answered 0 (or sent its profile list).
std::string Judge(const CommandOutcome& outcome, Event& summary) {
  const std::string subject = Subject(outcome.method, outcome.argument);
  const std::string error = outcome.errorName + " (" + outcome.errorMessage + ")";
  switch (outcome.status) {
    case CommandStatus::kAnswered:
      if (outcome.method == kMethodReadProfiles) return "";
      summary.Int("answer", outcome.answer);
      if (outcome.answer == 0) return "";
      return "the daemon refused " + subject + ": it answered " + std::to_string(outcome.answer);
    case CommandStatus::kFailed:
      summary.Text("error", outcome.errorName);
      return "the daemon answered " + subject + " with an error: " + error;
    case CommandStatus::kTimedOut:
      summary.Text("error", outcome.errorName);
      return "the daemon did not answer " + subject + " in time: " + error;
    case CommandStatus::kNotStarted:
      summary.Text("error", outcome.errorName);
      return "the library did not send " + subject + ": " + error;
    case CommandStatus::kDroppedAsRepeat:
      return "the library dropped " + subject + " as a repeat of the command before it";
    case CommandStatus::kDiscarded:
      return "the library held " + subject + ", then discarded it";
    case CommandStatus::kHeld:
      break;  // never final
  }
  return subject + " is held";
}

// A command that did not end in time. The library tells when it holds a
// command but not when it sends it on: a held one counts as the daemon not
// reached, since its link usually is the cause.
int NoOutcome(Session& session, Event summary, const std::string& subject, CommandId command) {
  if (session.Snapshot().held.count(command) != 0) {
    return session.Finish(std::move(summary), kExitUnreachable,
                          subject + " was held and did not end " + session.TimeoutText() +
                              ": the library did not connect to " + kBusName + ", or the daemon did not answer");
  }
  return session.Finish(std::move(summary), kExitFailed, "no answer to " + subject + " " + session.TimeoutText());
}

// Waits for the outcome of `command` (`subject`) and judges it: the exit code
// when it did not end, failed or was refused (the run is over, `context`
// leads its message), nothing when the daemon answered 0 or sent its list;
// the outcome then goes to `told`.
std::optional<int> Judged(Session& session, Event& summary, const std::string& subject, CommandId command,
                          CommandOutcome* told = nullptr, const std::string& context = "") {
  std::optional<CommandOutcome> outcome = session.AwaitOutcome(command);
  if (!outcome) return NoOutcome(session, std::move(summary), subject, command);
  if (const std::string problem = Judge(*outcome, summary); !problem.empty()) {
    return session.Finish(std::move(summary), kExitFailed, context + problem);
  }
  if (told != nullptr) *told = std::move(*outcome);
  return std::nullopt;
}

// Issues `method`(`id`) through `issue` and judges its outcome as Judged does.
template <typename Issue>
std::optional<int> Refused(Session& session, Event& summary, const std::string& method, int id, Issue issue) {
  CommandId command = 0;
  issue(&command);
  return Judged(session, summary, Subject(method, id), command);
}

int RunBroadcast(Session& session, Launcher& launcher) {
  CommandId start = 0;
  launcher.StartBroadcast(session.options().onlineCheck, &start);
  // Instances are printed as they come until the timeout; only a refusal or
  // an error ends the broadcast early.
  std::optional<CommandOutcome> started;
  session.Wait([&](const Reports& reports) {
    const auto ended = reports.ended.find(start);
    if (ended != reports.ended.end()) started = ended->second;
    return started && !(started->status == CommandStatus::kAnswered && started->answer == 0);
  });
  auto summary = [&session] {
    const auto instances = static_cast<std::int64_t>(session.Snapshot().instances.size());
    return Event("summary").Int("instances", instances);
  };
  if (!started) {
    return NoOutcome(session, summary(), Subject(kMethodStartBroadcast, session.options().onlineCheck ? 1 : 0), start);
  }
  Event refused = summary();
  if (const std::string problem = Judge(*started, refused); !problem.empty()) {
    return session.Finish(std::move(refused), kExitFailed, problem);
  }

  CommandId stop = 0;
  session.Calling(Subject(kMethodStopBroadcast, std::nullopt), [&] { launcher.StopBroadcast(&stop); });
  const std::size_t instances = session.Snapshot().instances.size();
  Event stopped = Event("summary").Int("instances", static_cast<std::int64_t>(instances));
  const std::string found = std::to_string(instances) + (instances == 1 ? " instance" : " instances") + " found";
  // The outcome came during the call.
  if (const auto code =
          Judged(session, stopped, Subject(kMethodStopBroadcast, std::nullopt), stop, nullptr, found + "; ")) {
    return *code;
  }
  return session.Finish(std::move(stopped), kExitOk, found + "; broadcast stopped");
}

int RunProfiles(Session& session, Launcher& launcher) {
  CommandId command = 0;
  launcher.ReadProfiles(&command);  // empty at once: the list comes with the outcome
  Event summary("summary");
  CommandOutcome outcome;
  if (const auto code = Judged(session, summary, Subject(kMethodReadProfiles, std::nullopt), command, &outcome)) {
    return *code;
  }
  // The list, unlike the instance-found events of the same read, carries
  // every id in full.
  for (const auto& profile : outcome.profiles) {
    session.printer().Print(Event("profile").Int("id", profile.id).Text("name", profile.name));
  }
  const std::size_t count = outcome.profiles.size();
  summary.Int("count", static_cast<std::int64_t>(count));
  return session.Finish(std::move(summary), kExitOk,
                        count == 0 ? "no stored profiles" : std::to_string(count) + " stored profile(s)");
}

int RunConnect(Session& session, Launcher& launcher) {
  const int id = session.options().id;
  Event summary = Event("summary").Int("id", id);
  if (const auto code =
          Refused(session, summary, kMethodConnect, id, [&](CommandId* command) { launcher.Connect(id, command); })) {
    return *code;
  }

  // Answered 0: the daemon reports the connection by an event (which may
  // have come before the answer). Events carry 16-bit ids.
  const int eventId = static_cast<std::uint16_t>(id);
  std::optional<bool> available;
  std::optional<int> cancelled;
  session.Wait([&](const Reports& reports) {
    for (const auto& connection : reports.connections) {
      if (connection.first == eventId) available = connection.second;
    }
    if (!reports.cancellations.empty()) cancelled = reports.cancellations.front();
    return available || cancelled;
  });
  const std::string subject = "connection to " + std::to_string(id);
  if (available) {
    summary.Bool("available", *available);
    if (*available) return session.Finish(std::move(summary), kExitOk, subject + " available");
    return session.Finish(std::move(summary), kExitFailed, subject + " reported not available");
  }
  if (cancelled) {
    summary.Int("status", *cancelled);
    return session.Finish(std::move(summary), kExitFailed,
                          subject + " cancelled with status " + std::to_string(*cancelled));
  }
  return session.Finish(std::move(summary), kExitFailed,
                        "no connection-available event for " + std::to_string(id) + " " + session.TimeoutText());
}

int RunDelete(Session& session, Launcher& launcher) {
  const int id = session.options().id;
  Event summary = Event("summary").Int("id", id);
  if (const auto code = Refused(session, summary, kMethodDeleteStoredProfile, id,
                                [&](CommandId* command) { launcher.DeleteStoredProfile(id, command); })) {
    return *code;
  }
  return session.Finish(std::move(summary), kExitOk, "stored profile " + std::to_string(id) + " deleted");
}

int RunStop(Session& session, Launcher& launcher) {
  for (;;) {
    CommandId command = 0;
    // The call waits for the daemon's answer (up to 25 s); an interrupt
    // ends the run meanwhile.
    session.Calling(Subject(kMethodDeinit, std::nullopt), [&] { launcher.Stop(&command); });
    Event summary("summary");
    const std::optional<CommandOutcome> outcome = session.AwaitOutcome(command);  // it came during the call
    if (!outcome) return NoOutcome(session, std::move(summary), Subject(kMethodDeinit, std::nullopt), command);
    if (!NotReady(*outcome)) {
      const std::string problem = Judge(*outcome, summary);
      if (!problem.empty()) return session.Finish(std::move(summary), kExitFailed, problem);
      return session.Finish(std::move(summary), kExitOk, "the daemon answered deinit with 0");
    }
    session.Wait([](const Reports&) { return false; }, Clock::now() + kStopRetry);
    if (session.Expired()) {
      return session.Finish(std::move(summary), kExitUnreachable,
                            "the library did not connect to " + kBusName + " " + session.TimeoutText());
    }
  }
}

int RunMonitor(Session& session, Launcher&) {
  // Until the timeout or a signal. The library follows the daemon across its
  // restarts by itself: events of a new instance keep coming.
  session.Wait([](const Reports&) { return false; });
  const std::size_t events = session.Snapshot().events;
  return session.Finish(Event("summary").Int("events", static_cast<std::int64_t>(events)), kExitOk,
                        std::to_string(events) + " event(s)");
}

}  // namespace

Plan PlanFor(const Options& options) {
  const std::string& command = options.command;
  if (command == "monitor") return {RunMonitor, false, FoundLines::kEvery, true};
  if (command == "profiles") return {RunProfiles, true, FoundLines::kNone, false};
  if (command == "broadcast") return {RunBroadcast};
  if (command == "connect") return {RunConnect};
  if (command == "delete") return {RunDelete};
  return {RunStop};
}

}  // namespace zorvelctl
