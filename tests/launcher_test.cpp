// The Launcher end to end: what each command sends, answers and ends with, the shared client's
// replacement and teardown, the link state it tells (every change, in order, on the main loop) across
// restarts of the daemon and of the bus, callbacks and their hazards.

#include <tuple>
#include <utility>

#include <zorvel/common/GLibUtils.h>

#include "support/BusTest.h"
#include "support/Outcomes.h"

namespace zv_client::testing {
namespace {

using zorvel::CommandId;
using zorvel::CommandOutcome;
using zorvel::CommandStatus;
using zorvel::Launcher;
using zorvel::testing::CurrentClient;
using Found = std::pair<int, std::string>;
using Available = std::pair<int, bool>;
using Texts = std::vector<std::string>;
using zorvel::LinkState;
using States = std::vector<LinkState>;
using Hook = dbus::client::testing::Point;

class LauncherTest : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "One"}, {2, "Two"}}, {}, 50}; }

  // Records the link states `launcher` tells, each on the main loop and with a text; Next starts from now.
  void WatchLink(Launcher& launcher) {
    RunOnMainLoop([this] { mainLoop_ = std::this_thread::get_id(); });
    mark_ = statuses_.Items().size();
    launcher.SetOnLinkState([this](const zorvel::LinkStatus& status) {
      EXPECT_EQ(std::this_thread::get_id(), mainLoop_) << "told off the main loop";
      EXPECT_FALSE(status.text.empty());
      statuses_.Add(status);
    });
  }
  // The states told since the last call, once the last of them is `last` (all of them at the deadline).
  States Next(LinkState last) {
    const std::size_t from = mark_;
    WaitUntil([&] {
      const auto told = statuses_.Items();
      return told.size() > from && told.back().state == last;
    });
    const auto told = statuses_.Items();
    mark_ = told.size();
    States states;
    for (std::size_t i = from; i < told.size(); ++i) states.push_back(told[i].state);
    return states;
  }
  // Waits until the link is told ready (the last state since the previous Next).
  bool Ready() {
    const States told = Next(LinkState::kReady);
    return !told.empty() && told.back() == LinkState::kReady;
  }
  // Init, then wait until the command layer is ready.
  ::testing::AssertionResult InitReady(Launcher& launcher) {
    WatchLink(launcher);
    if (launcher.Init() == 0 && Ready()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the daemon never became ready\n" << logs().Dump();
  }
  ::testing::AssertionResult AttachedReady(Launcher& launcher) { return Attach(launcher), InitReady(launcher); }
  void Attach(Launcher& launcher) {
    launcher.SetOnInstanceFoundCallback([this](int id, const std::string& name) { found_.Add({id, name}); });
    launcher.SetOnCancelConnectionCallback([this](int status) { cancelled_.Add(status); });
    launcher.SetOnConnectionAvailable([this](int id, bool state) { available_.Add({id, state}); });
    outcomes_.Attach(launcher);
  }
  static void ClearCallbacks(Launcher& launcher) {
    launcher.SetOnInstanceFoundCallback(nullptr);
    launcher.SetOnCancelConnectionCallback(nullptr);
    launcher.SetOnConnectionAvailable(nullptr);
  }
  void EmitEach(const std::string& member, std::initializer_list<GVariant*> bodies) {
    for (GVariant* body : bodies) control().Emit(member, body);
  }

  std::thread::id mainLoop_;  // written and read on the main loop only
  std::size_t mark_ = 0;      // the statuses Next has returned
  Recorder<zorvel::LinkStatus> statuses_;
  Recorder<Found> found_;
  Recorder<int> cancelled_;
  Recorder<Available> available_;
  Outcomes outcomes_;
};

TEST_F(LauncherTest, CommandsNeedAClientAndInit) {
  Launcher fresh;
  outcomes_.Attach(fresh);
  // Connect, StartBroadcast and StopBroadcast need a client; the others also Init on their Launcher.
  const std::vector<std::pair<std::function<bool(CommandId*)>, const char*>> refused{
      {[&](CommandId* id) { return fresh.Connect(7, id) == -1; }, zorvel::kErrorNoClient},
      {[&](CommandId* id) { return fresh.StartBroadcast(true, id) == -1; }, zorvel::kErrorNoClient},
      {[&](CommandId* id) { return fresh.StopBroadcast(id) == -1; }, zorvel::kErrorNoClient},
      {[&](CommandId* id) { return fresh.Stop(id) == -1; }, zorvel::kErrorNotInited},
      {[&](CommandId* id) { return fresh.ReadProfiles(id).empty(); }, zorvel::kErrorNotInited},
      {[&](CommandId* id) { return fresh.DeleteStoredProfile(1, id) == -1; }, zorvel::kErrorNotInited}};
  for (const auto& [command, reason] : refused) {
    CommandId id = 0;
    EXPECT_TRUE(command(&id));
    const auto told = outcomes_.Find(id);
    ASSERT_TRUE(told) << "told only after returning";
    EXPECT_EQ(std::make_pair(told->first.status, told->first.errorName),
              std::make_pair(CommandStatus::kNotStarted, std::string(reason)));
  }

  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  dbus::client::DBusClient* const client = CurrentClient();
  EXPECT_EQ(launcher.Init(), 0);  // once inited, Init and Deinit change nothing
  launcher.Deinit();
  EXPECT_EQ(launcher.Init(), 0);
  EXPECT_EQ(CurrentClient(), client);
  EXPECT_EQ(fresh.Stop(), -1) << "another Launcher's client does not make this one inited";
  EXPECT_EQ(launcher.Stop(), 0);

  { Launcher other; }  // destroying any Launcher removes the client of all of them
  EXPECT_EQ(CurrentClient(), nullptr);
  EXPECT_EQ(launcher.StartBroadcast(true), -1);
  EXPECT_EQ(control().CallTexts(), Texts{"deinit()"});
}

TEST_F(LauncherTest, OutcomesCarryTheAnswerOrTheError) {
  control().SetInstances({});
  Launcher launcher;
  Attach(launcher);  // no instances broadcast: any "found" would come from a reply that does not decode
  ASSERT_TRUE(InitReady(launcher));
  CommandOutcome outcome = outcomes_.Run([&](CommandId* id) { launcher.Connect(7, id); });
  EXPECT_EQ(std::tie(outcome.status, outcome.method, outcome.argument, outcome.answer),
            std::make_tuple(CommandStatus::kAnswered, "connect", std::optional<int>(7), 0));
  EXPECT_EQ(outcomes_.Run([&](CommandId* id) { launcher.Connect(8, id); }).errorName, zorvel::kErrorConnectPending);

  control().SetAnswer("startBroadcast", 7);  // a refusal is an answer
  outcome = outcomes_.Run([&](CommandId* id) { launcher.StartBroadcast(true, id); });
  EXPECT_EQ(std::tie(outcome.argument, outcome.answer), std::make_tuple(std::optional<int>(1), 7));
  control().SetError("deleteStoredProfile", "org.example.Error.Busy", "busy right now");
  outcome = outcomes_.Run([&](CommandId* id) { launcher.DeleteStoredProfile(1, id); });
  EXPECT_EQ(std::tie(outcome.status, outcome.errorName, outcome.errorMessage),
            std::make_tuple(CommandStatus::kFailed, "org.example.Error.Busy", "busy right now"));
  // A repeat is recognised by its method alone.
  EXPECT_EQ(outcomes_.Run([&](CommandId* id) { launcher.DeleteStoredProfile(2, id); }).status,
            CommandStatus::kDroppedAsRepeat);
  control().SetReply("connect", g_variant_new("(s)", "seven"));
  launcher.StartBroadcast(false);
  EXPECT_EQ(outcomes_.Run([&](CommandId* id) { launcher.Connect(9, id); }).errorName, zorvel::kErrorInvalidReply);
  for (GVariant* reply : {g_variant_new("(i)", 5), g_variant_new("((i))", 1)}) {  // a list that does not decode
    control().SetReply("readProfiles", reply);
    launcher.StartBroadcast(false);
    EXPECT_EQ(outcomes_.Run([&](CommandId* id) { launcher.ReadProfiles(id); }).errorName, zorvel::kErrorInvalidReply);
  }
  EXPECT_TRUE(found_.Items().empty());
  EXPECT_EQ(control().CallTexts(),
            (Texts{"connect(7,)", "startBroadcast(1,)", "deleteStoredProfile(1,)", "startBroadcast(0,)", "connect(9,)",
                   "startBroadcast(0,)", "readProfiles()", "startBroadcast(0,)", "readProfiles()"}));
}

TEST_F(LauncherTest, DirectCallsAnswerOnTheCallingThread) {
  control().ReleaseName();
  Launcher launcher;
  outcomes_.Attach(launcher);
  WatchLink(launcher);
  ASSERT_EQ(launcher.Init(), 0);  // the daemon being away does not fail Init
  CommandId stop = 0, stopBroadcast = 0;
  EXPECT_EQ(launcher.Stop(&stop), -1);
  EXPECT_EQ(launcher.StopBroadcast(&stopBroadcast), -1);
  EXPECT_EQ(outcomes_.Final(stop).errorName, zorvel::kErrorNotReady);
  EXPECT_EQ(outcomes_.Find(stopBroadcast)->second, std::this_thread::get_id());

  control().AcquireName();
  ASSERT_TRUE(Ready());
  control().SetAnswer("deinit", -1);
  EXPECT_EQ(launcher.Stop(&stop), 0) << "Stop returns 0 whatever the daemon answers";
  EXPECT_EQ(outcomes_.Final(stop).answer, -1);
  control().SetAnswer("stopBroadcast", 7);
  EXPECT_EQ(launcher.StopBroadcast(), 7);
  control().SetError("deinit", "org.example.Error.Refused", "not now");
  EXPECT_EQ(launcher.Stop(&stop), -1);
  EXPECT_EQ(outcomes_.Final(stop).errorName, "org.example.Error.Refused");
  control().SetNoReply("stopBroadcast");  // gives up after its 500 ms
  EXPECT_EQ(launcher.StopBroadcast(&stopBroadcast), -1);
  EXPECT_EQ(outcomes_.Final(stopBroadcast).status, CommandStatus::kTimedOut);
}

TEST_F(LauncherTest, StopBroadcastInsideAnOutcomeDiscardsHeldCommandsWithoutWaiting) {
  // While the daemon is ready nothing is held; a vanishing between StopBroadcast's readiness test and
  // its lock is forced here, inside an outcome: of an asynchronous command (on a command thread) and of
  // a direct one (Stop: on the calling thread, under the callback lock). The held command's "held" was
  // queued first and waits for that delivery: the discarded outcome comes after it, on the trigger's
  // thread, and does not wait for it.
  const std::function<void(Launcher&, CommandId*)> triggers[] = {
      [](Launcher& launcher, CommandId* id) { launcher.DeleteStoredProfile(1, id); },
      [](Launcher& launcher, CommandId* id) { EXPECT_EQ(launcher.Stop(id), 0); }};
  for (const auto& trigger : triggers) {
    CommandId triggered = 0;
    std::atomic<CommandId> held{0};
    Launcher launcher;  // after what its callbacks touch
    outcomes_.Attach(launcher, [&](const CommandOutcome& outcome) {
      if (outcome.id == triggered) launcher.StopBroadcast();
    });
    ASSERT_TRUE(InitReady(launcher));
    ScopedHook hook([&](Hook point) {
      if (point != Hook::kDisconnectAwaitsPool || held != 0) return;
      control().ReleaseName();
      EXPECT_TRUE(WaitUntil([] { return !Client().IsConnected(); }));
      CommandId id = 0;
      launcher.StartBroadcast(true, &id);
      held = id;
      EXPECT_TRUE(WaitUntil([] { return Client().GetCounts().held == 1; }));  // its "held" waits for us
    });
    MustFinishInBoundedTime([&] { trigger(launcher, &triggered); }, [&] { return logs().Dump(); });
    ASSERT_TRUE(WaitUntil([&] { return held != 0; }));
    EXPECT_EQ(outcomes_.Of(held), (std::vector<CommandStatus>{CommandStatus::kHeld, CommandStatus::kDiscarded}));
    EXPECT_TRUE(outcomes_.Final(held).wasHeld);
    EXPECT_EQ(outcomes_.Find(held)->second, outcomes_.Find(triggered)->second);
    control().AcquireName();
  }
}

TEST_F(LauncherTest, DestroyingIsBoundedAndSilentAfterwards) {
  std::atomic<bool> destroyed{false};
  std::atomic<int> lateCalls{0};
  auto launcher = std::make_unique<Launcher>();
  launcher->SetOnInstanceFoundCallback([&](int, const std::string&) { lateCalls += destroyed ? 1 : 0; });
  outcomes_.Attach(*launcher);
  ASSERT_TRUE(InitReady(*launcher));
  // readProfiles' deliveries race the teardown; deleteStoredProfile is never answered.
  control().SetDelay("readProfiles", 700);
  control().SetNoReply("deleteStoredProfile");
  CommandId read = 0, deleted = 0, started = 0;
  EXPECT_TRUE(launcher->ReadProfiles(&read).empty());
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  EXPECT_EQ(launcher->DeleteStoredProfile(1, &deleted), 0);
  EXPECT_EQ(launcher->StartBroadcast(true, &started), 0);
  MustFinishInBoundedTime([&] { launcher.reset(); });
  destroyed = true;
  EXPECT_EQ(CurrentClient(), nullptr);
  for (CommandId id : {read, deleted, started}) EXPECT_TRUE(outcomes_.Find(id)) << "told after teardown";
  EXPECT_EQ(lateCalls, 0);
}

TEST_F(LauncherTest, ASecondInitReplacesTheClient) {
  Recorder<Found> firstFound;
  Launcher first, second;
  first.SetOnInstanceFoundCallback([&](int id, const std::string& name) { firstFound.Add({id, name}); });
  Attach(second);
  ASSERT_TRUE(InitReady(first));
  dbus::client::DBusClient* const firstClient = CurrentClient();
  control().SetNoReply("readProfiles");
  first.ReadProfiles();
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  EXPECT_EQ(first.StartBroadcast(true), 0);  // waits behind readProfiles
  // Replacing the client cancels the call in flight and discards the rest.
  WatchLink(second);
  MustFinishInBoundedTime([&] { EXPECT_EQ(second.Init(), 0); });
  EXPECT_NE(CurrentClient(), firstClient);
  ASSERT_TRUE(Ready());
  control().SetNoReply("readProfiles", false);
  second.ReadProfiles();
  EXPECT_TRUE(Holds(found_, {{1, "One"}, {2, "Two"}}));
  EXPECT_TRUE(firstFound.Items().empty());
  EXPECT_EQ(control().CallsOf("startBroadcast"), 0u);
}

TEST_F(LauncherTest, ReadProfilesListsFullIdsFirst) {
  control().SetInstances({});  // a broadcast announces nothing: every instance found is a stored profile
  std::atomic<std::size_t> foundWhenListed{0};
  Launcher launcher;  // after what its callbacks touch
  Attach(launcher);
  outcomes_.Attach(launcher, [&](const CommandOutcome& told) {
    if (told.method == "readProfiles") foundWhenListed = found_.Items().size();
  });
  ASSERT_TRUE(InitReady(launcher));
  // A signature holds 255 characters: one reply carries at most 41 profiles. Names are raw bytes
  // of any size; ids travel in full in the list and in 16 bits to the instance-found callback.
  const std::string raw("\xff\xfe\x00zorvel\x80", 10), huge(1 << 20, 'x');
  std::vector<common::SessionProfile> many;
  for (int n = 0; n < 41; ++n) many.push_back({"profile " + std::to_string(n), n * 100000 - 5});
  many[3].name = raw;
  many[4].name = huge;
  for (const auto& store : std::vector<std::vector<common::SessionProfile>>{{}, {{raw, -5}}, many}) {
    control().SetReply("readProfiles", common::ProfilesToVariant(store));
    launcher.StartBroadcast(false);  // so that ReadProfiles is no repeat
    const std::size_t before = found_.Items().size();
    const CommandOutcome outcome = outcomes_.Run([&](CommandId* id) { launcher.ReadProfiles(id); });
    ASSERT_EQ(outcome.status, CommandStatus::kAnswered) << outcome.errorMessage;
    ASSERT_EQ(outcome.profiles.size(), store.size());
    EXPECT_EQ(foundWhenListed, before) << "the list came after instance-found calls";
    ASSERT_TRUE(found_.WaitForSize(before + store.size()));
    const std::vector<Found> found = found_.Items();
    for (std::size_t i = 0; i < store.size(); ++i) {
      EXPECT_EQ(std::tie(outcome.profiles[i].id, outcome.profiles[i].name), std::tie(store[i].id, store[i].name));
      EXPECT_EQ(found[before + i], (Found{store[i].id & 0xffff, store[i].name}));
    }
  }
  // More cannot be sent: the daemon's bus refuses the reply, and the library carries on.
  control().ClearReply("readProfiles");
  SimEntries tooMany;
  for (int id = 0; id < 100; ++id) tooMany.emplace_back(id, "profile");
  control().SetProfiles(tooMany);
  launcher.StartBroadcast(false);
  EXPECT_EQ(outcomes_.Run([&](CommandId* id) { launcher.ReadProfiles(id); }).errorName,
            "org.freedesktop.DBus.Error.LimitsExceeded");
}

TEST_F(LauncherTest, SignalsReachTheirCallbacksFromTheDaemonOnly) {
  Launcher launcher;
  ASSERT_TRUE(AttachedReady(launcher));
  // Strangers' signals (broadcast and unicast) are ignored; sent before the daemon's, they would be in by then.
  const std::string application = zorvel::testing::CurrentClientBusName();
  ASSERT_FALSE(application.empty());
  for (const std::string& destination : {std::string(), application}) {
    control().EmitAs("onFound", common::SerializeIntoGVariant("fake", 66), destination);
    control().EmitAs("onConnectionAvailable", g_variant_new("(qq)", 66, 1), destination);
    control().EmitAs("onDbusClosing", g_variant_new("(i)", 1), destination);
  }
  const std::string raw("\xff\x00zorvel", 8);
  // Malformed payloads (every shape is fuzzed) are dropped here as on the bus.
  EmitEach("onFound", {common::SerializeIntoGVariant("Kitchen speaker", 12), g_variant_new("(ayq)", nullptr, 12),
                       g_variant_new("(si)", "Kitchen speaker", 12), nullptr, common::SerializeIntoGVariant(raw, 13)});
  EmitEach("onCancel", {common::ProfileWithStatusToVariant({"Hall display", 7}, 3),  // the status, not the id
                        common::IntegerToVariant(5), nullptr});
  EmitEach("onConnectionAvailable", {g_variant_new("(qq)", 5, 2), g_variant_new("(qq)", 65535, 0),
                                     g_variant_new("(s)", "5")});                 // of another type: both numbers 0
  control().Emit("onVoiceGuideSay", common::SerializeIntoGVariant("Turn left"));  // no handler
  control().Emit("onServiceShutdown", common::IntegerToVariant(1));
  ASSERT_TRUE(Holds(available_, {{5, true}, {65535, false}, {0, false}}));  // one sender: all before it were handled
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{12, "Kitchen speaker"}, {13, raw}}));
  EXPECT_EQ(cancelled_.Items(), std::vector<int>{3});
  // The fake "onDbusClosing" left the client ready: a command runs at once, it is not held.
  const CommandOutcome outcome = outcomes_.Run([&](CommandId* id) { launcher.DeleteStoredProfile(1, id); });
  EXPECT_EQ(std::make_pair(outcome.status, outcome.wasHeld), std::make_pair(CommandStatus::kAnswered, false));

  // Cleared callbacks are skipped; their handlers still run.
  ClearCallbacks(launcher);
  control().Emit("onFound", common::SerializeIntoGVariant("Kitchen speaker", 101));
  control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall display", 7}, 3));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 1));
  control().Emit("onDbusClosing", g_variant_new("(i)", 0));  // one sender: once it is handled, all were
  ASSERT_TRUE(WaitUntil([&] { return statuses_.Items().back().state == LinkState::kHeldUntilNewOwner; }));
  EXPECT_EQ(found_.Items().size() + cancelled_.Items().size() + available_.Items().size(), 6u);
}

TEST_F(LauncherTest, SettersMayRaceDeliveries) {
  std::atomic<int> foundCalls{0}, cancelCalls{0}, availableCalls{0};
  std::atomic<bool> stop{false};
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  control().SetInterval(2);
  std::thread setter([&] {
    for (unsigned round = 0; !stop; ++round) {  // a heap capture shows a callable destroyed while it runs
      const std::string capture(40 + 40 * (round % 2), 'c');
      launcher.SetOnInstanceFoundCallback([&, capture](int, const std::string&) { foundCalls += !capture.empty(); });
      launcher.SetOnCancelConnectionCallback([&, capture](int) { cancelCalls += !capture.empty(); });
      launcher.SetOnConnectionAvailable([&, capture](int, bool) { availableCalls += !capture.empty(); });
      if (round % 3 == 2) ClearCallbacks(launcher);  // and now and then cleared
    }
  });
  // Deliveries on the loop thread (broadcast, cancel, available) and on command threads (stored profiles).
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  for (int round = 0; round < 20; ++round) {
    launcher.ReadProfiles();
    launcher.DeleteStoredProfile(99);
    control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall display", 7}, round));
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", round, 1));
  }
  EXPECT_TRUE(WaitUntil([&] { return foundCalls > 100 && cancelCalls > 0 && availableCalls > 0; }));
  stop = true;
  setter.join();
}

TEST_F(LauncherTest, CallbacksMayCallTheLauncher) {
  std::atomic<int> startResult{1000}, readSize{1000}, stopResult{1000};
  std::atomic<bool> read{false};
  Launcher launcher;
  // connect -> available -> StartBroadcast -> 101 found -> ReadProfiles -> 1 found (command thread) ->
  // StopBroadcast. The first callable replaces itself, then still uses its own capture.
  launcher.SetOnConnectionAvailable([&, tag = std::string(64, 'a')](int, bool) {
    launcher.SetOnConnectionAvailable([&](int id, bool state) { available_.Add({id, state}); });
    startResult = launcher.StartBroadcast(tag.size() == 64);
  });
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    if (id < 100) found_.Add({id, name});
    if (id == 101 && !read.exchange(true)) readSize = static_cast<int>(launcher.ReadProfiles().size());
    if (id == 1) stopResult = launcher.StopBroadcast();
  });
  ASSERT_TRUE(InitReady(launcher));
  control().SetAnswer("stopBroadcast", 4);
  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(WaitUntil([&] { return found_.Items().size() == 2 && stopResult != 1000; })) << logs().Dump();
  EXPECT_EQ(std::make_tuple(startResult.load(), readSize.load(), stopResult.load()), std::make_tuple(0, 0, 4));
  EXPECT_EQ(control().CallTexts(), (Texts{"connect(7,)", "startBroadcast(1,)", "readProfiles()", "stopBroadcast()"}));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 9, 0));
  EXPECT_TRUE(Holds(available_, {{9, false}}));
}

TEST_F(LauncherTest, LinkStateAndListenersFollowInitStopBroadcastAndADaemonRestart) {
  struct Counter {  // a functor whose count lives in the callable itself
    Recorder<int>* out;
    int seen = 0;
    void operator()(int, bool) { out->Add(++seen); }
  };
  Recorder<int> availableCounts;
  Launcher launcher;
  launcher.SetOnConnectionAvailable(Counter{&availableCounts});
  launcher.SetOnCancelConnectionCallback([this, seen = 0](int) mutable { cancelled_.Add(++seen); });
  launcher.SetOnInstanceFoundCallback([this, seen = 0](int id, const std::string&) mutable {
    found_.Add({id, std::to_string(++seen)});
  });
  WatchLink(launcher);
  ASSERT_EQ(launcher.Init(), 0);
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kConnecting, LinkState::kReady}));
  launcher.StopBroadcast();
  EXPECT_EQ(Next(LinkState::kHeldUntilNewOwner), States{LinkState::kHeldUntilNewOwner});
  control().Restart();  // the name passes to a new owner
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kWaitingForDaemon, LinkState::kConnecting, LinkState::kReady}));

  sim().Kill();
  EXPECT_EQ(Next(LinkState::kWaitingForDaemon), States{LinkState::kWaitingForDaemon});
  ASSERT_TRUE(sim().Start());
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kConnecting, LinkState::kReady}));
  // Listeners hear the restarted daemon, which was sent nothing; their callables keep their state.
  for (guint16 n = 1; n <= 3; ++n) {
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", n, 1));
    control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall", 7}, n));
    control().Emit("onFound", common::SerializeIntoGVariant("Hall", n));
  }
  EXPECT_TRUE(Holds(availableCounts, {1, 2, 3}) && Holds(cancelled_, {1, 2, 3}));
  EXPECT_TRUE(Holds(found_, {{1, "1"}, {2, "2"}, {3, "3"}}));
  EXPECT_TRUE(control().CallTexts().empty());
}

TEST_F(LauncherTest, LinkStateSaysWhenTheBusIsUnreachableAndCommandsOutliveItsRestart) {
  Launcher launcher;
  ASSERT_TRUE(AttachedReady(launcher));
  const auto lastIs = [&](LinkState state) {
    return WaitUntil([&] { return statuses_.Items().back().state == state; });
  };
  // GLib's shared connection would end this process with the bus. A command issued while the daemon
  // is away is held, and runs once it is back.
  CommandId connect = 0;
  RestartBusAndDaemon(
      [&] {
        EXPECT_TRUE(lastIs(LinkState::kWaitingForDaemon));
        EXPECT_EQ(launcher.Connect(8, &connect), 0);
        EXPECT_TRUE(WaitUntil([&] { return outcomes_.Find(connect, false).has_value(); }));
      },
      [&] { EXPECT_TRUE(lastIs(LinkState::kBusUnreachable)); });
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kWaitingForDaemon, LinkState::kBusUnreachable,
                                             LinkState::kWaitingForDaemon, LinkState::kConnecting, LinkState::kReady}));
  for (const zorvel::LinkStatus& status : statuses_.Items()) {  // when unreachable: the address tried, and why
    EXPECT_TRUE(status.state != LinkState::kBusUnreachable ||
                (status.busAddress == BusAddress() && !status.error.empty()))
        << status.busAddress;
  }
  EXPECT_EQ(outcomes_.Final(connect).status, CommandStatus::kAnswered);
  EXPECT_EQ(control().CallTexts(), Texts{"connect(8,)"});
  EXPECT_TRUE(Holds(available_, {{8, true}}));  // the sim follows a connect with (8, 1): signals flow
}

TEST_F(LauncherTest, CommandsMayRaceTheClientsReplacement) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> issued{0};
  std::vector<std::thread> users;
  for (int t = 0; t < 3; ++t) {
    users.emplace_back([&, t] {
      Launcher user;  // never inited: it uses whichever client another Launcher installed
      while (!stop) {
        // StopBroadcast waits for the daemon and holds later commands: the command threads stay few.
        user.StopBroadcast();
        user.StartBroadcast(t % 2 == 0);
        user.Connect(t);
        ++issued;
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    Launcher owner;
    ASSERT_EQ(owner.Init(), 0);
    const std::uint64_t before = issued;
    ASSERT_TRUE(WaitUntil([&] { return issued >= before + 3; }));
  }
  stop = true;
  for (std::thread& user : users) user.join();
}

}  // namespace
}  // namespace zv_client::testing
