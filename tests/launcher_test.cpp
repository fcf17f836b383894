// The Launcher end to end: lifecycle, what each command answers and sends, the shared
// client's replacement and teardown, daemon restarts, signals reaching the callbacks.

#include <future>
#include <regex>
#include <utility>

#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

using dbus::client::DBusClientAsync;
using zorvel::Launcher;
using zorvel::testing::CurrentClient;
using Found = std::pair<int, std::string>;
using Available = std::pair<int, bool>;
using Texts = std::vector<std::string>;

constexpr char kNotInited[] = "Launcher is not inited. Please check your call sequence";

template <typename T>
class Recorder {
 public:
  void Add(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(value));
  }
  std::vector<T> Items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  bool WaitForSize(std::size_t size) const {
    return WaitUntil([&] { return Items().size() >= size; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> items_;
};

// Takes the pool lock: not for use while the sim sits on a reply.
DBusClientAsync::Counts CurrentCounts() {
  auto* client = dynamic_cast<DBusClientAsync*>(CurrentClient());
  return client != nullptr ? client->GetCounts() : DBusClientAsync::Counts{};
}

// False when `work` did not finish within WaitUntil's deadline (a deadlock).
bool FinishesInBoundedTime(std::function<void()> work) {
  auto done = std::async(std::launch::async, std::move(work));
  const bool finished =
      WaitUntil([&] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  if (finished) done.get();
  return finished;
}

class LauncherTest : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "One"}, {2, "Two"}}, {}, 50}; }

  // Init, then wait until the command layer is ready for the `count`th time.
  ::testing::AssertionResult InitReady(Launcher& launcher, std::size_t count = 1) {
    if (launcher.Init() == 0 && logs().WaitFor("IpcReady [1]", count)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the daemon never became ready\n" << logs().Dump();
  }
  void Attach(Launcher& launcher) {
    launcher.SetOnInstanceFoundCallback([this](int id, const std::string& name) { found_.Add({id, name}); });
    launcher.SetOnCancelConnectionCallback([this](int status) { cancelled_.Add(status); });
    launcher.SetOnConnectionAvailable([this](int id, bool state) { available_.Add({id, state}); });
  }
  bool WaitPooled(const std::string& method) { return logs().WaitFor("move command[" + method + "] into pool"); }
  // Waits until the daemon has the command: command threads race for the pool.
  void Send(const std::string& method, const std::function<void()>& command) {
    const std::size_t before = control().CallsOf(method).size();
    command();
    EXPECT_TRUE(control().WaitForCall(method, before + 1)) << method;
  }
  void EmitEach(const std::string& member, std::initializer_list<GVariant*> bodies) {
    for (GVariant* body : bodies) control().Emit(member, body);
  }
  // Messages (prefix stripped, in order) of the lines whose prefix starts with one of `sources`.
  Texts Messages(std::initializer_list<const char*> sources) {
    Texts messages;
    for (const LogLine& line : logs().Lines()) {
      for (const char* source : sources) {
        if (line.text.rfind(source, 0) == 0) messages.push_back(line.text.substr(line.text.find("> ") + 2));
      }
    }
    return messages;
  }
  static void ExpectAllRefused(Launcher& launcher) {
    EXPECT_EQ(launcher.Connect(7), -1);
    EXPECT_EQ(launcher.StartBroadcast(true), -1);
    EXPECT_EQ(launcher.StopBroadcast(), -1);
    EXPECT_EQ(launcher.Stop(), -1);
    EXPECT_TRUE(launcher.ReadProfiles().empty());
    EXPECT_EQ(launcher.DeleteStoredProfile(1), -1);
  }

  Recorder<Found> found_;
  Recorder<int> cancelled_;
  Recorder<Available> available_;
};

TEST_F(LauncherTest, InitWorksOnceDeinitChangesNothingAndCommandsRefuseWithoutInitOrClient) {
  Launcher fresh;
  ExpectAllRefused(fresh);  // no client at all
  EXPECT_EQ(logs().Count(kNotInited), 6u);

  Launcher launcher;
  ASSERT_EQ(launcher.Init(), 0);
  dbus::client::DBusClient* const client = CurrentClient();
  EXPECT_NE(dynamic_cast<DBusClientAsync*>(client), nullptr);
  EXPECT_EQ(launcher.Init(), 0);
  EXPECT_EQ(logs().Count("Launcher is already inited. Ignore it from now on"), 1u);
  launcher.Deinit();
  EXPECT_EQ(launcher.Init(), 0);
  EXPECT_EQ(logs().Count("Launcher is already inited. Ignore it from now on"), 2u);
  EXPECT_EQ(logs().Count("Deinit. we're lazy here, so we do nothing"), 1u);
  EXPECT_EQ(logs().Count("Launcher.cpp: Deinit("), 1u);
  EXPECT_EQ(CurrentClient(), client);
  EXPECT_EQ(logs().Count("ConnectAsync"), 1u);  // only the first Init armed the connect timer
  ASSERT_TRUE(logs().WaitFor("IpcReady [1]"));

  // Another Launcher's working client does not make `fresh` inited.
  EXPECT_EQ(fresh.Stop(), -1);
  EXPECT_TRUE(fresh.ReadProfiles().empty());
  EXPECT_EQ(fresh.DeleteStoredProfile(1), -1);
  EXPECT_EQ(logs().Count(kNotInited), 9u);
  EXPECT_EQ(launcher.Stop(), 0);
  EXPECT_EQ(CurrentCounts().accepted, 0u);

  // Destroying any Launcher removes the client of all of them.
  { Launcher other; }
  EXPECT_EQ(CurrentClient(), nullptr);
  ExpectAllRefused(launcher);
  EXPECT_EQ(logs().Count(kNotInited), 15u);
  EXPECT_EQ(control().CallTexts(), Texts{"deinit()"});
}

TEST_F(LauncherTest, StopAndStopBroadcastReturnTheDaemonsAnswerAndFailAtOnceWhileItIsNotReady) {
  control().ReleaseName();
  Launcher launcher;
  ASSERT_EQ(launcher.Init(), 0);  // the daemon being away does not fail Init
  logs().Clear();
  EXPECT_EQ(launcher.Stop(), -1);
  EXPECT_EQ(launcher.StopBroadcast(), -1);  // and still disconnects
  EXPECT_EQ(Messages({"Launcher.cpp: ", "DBusClientAsync.cpp: Disconnect("}),
            (Texts{"Stop STARTED", "Deinit failed with code [0]", "StopBroadcast STARTED",
                   "StopBroadcast failed with code [-1]", "Already disconnected", "StopBroadcast FINISHED"}));

  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor("IpcReady [1]"));
  control().SetAnswer("deinit", -1);
  control().SetDelay("deinit", 200);
  EXPECT_EQ(launcher.Stop(), 0);  // the answer is logged, not returned
  EXPECT_TRUE(logs().Contains("##### Extracted int: [-1] #########"));
  control().SetAnswer("stopBroadcast", 7);
  EXPECT_EQ(launcher.StopBroadcast(), 7);
  EXPECT_TRUE(logs().Contains("##### Extracted int: [7] #########"));
  control().SetNoReply("stopBroadcast");  // a direct call gives up on its own
  EXPECT_EQ(launcher.StopBroadcast(), -1);
  EXPECT_EQ(logs().Count("Failed to call D-Bus for Zorvel daemon, error = "), 1u);
  EXPECT_EQ(control().CallTexts(), (Texts{"deinit()", "stopBroadcast()", "stopBroadcast()"}));
}

TEST_F(LauncherTest, QueuedCommandsCarryTheirArgumentsAndConnectWaitsForTheBroadcastToStartOrStop) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  Send("connect", [&] { EXPECT_EQ(launcher.Connect(7), 0); });
  const auto accepted = CurrentCounts().accepted;
  EXPECT_EQ(launcher.Connect(8), -1);
  EXPECT_EQ(CurrentCounts().accepted, accepted);  // never handed to the client
  Send("startBroadcast", [&] { EXPECT_EQ(launcher.StartBroadcast(false), 0); });
  Send("connect", [&] { EXPECT_EQ(launcher.Connect(8), 0); });
  EXPECT_EQ(launcher.Connect(9), -1);
  Send("deleteStoredProfile", [&] { EXPECT_EQ(launcher.DeleteStoredProfile(-3), 0); });
  Send("readProfiles", [&] { EXPECT_TRUE(launcher.ReadProfiles().empty()); });
  EXPECT_EQ(launcher.StopBroadcast(), 0);
  EXPECT_EQ(launcher.Connect(9), 0);
  ASSERT_TRUE(WaitPooled("connect"));  // StopBroadcast dropped readiness until a new owner
  control().Restart();
  ASSERT_TRUE(control().WaitForCall("connect", 3));
  EXPECT_EQ(control().CallTexts(), (Texts{"connect(7,)", "startBroadcast(0,)", "connect(8,)", "deleteStoredProfile(-3,)",
                                          "readProfiles()", "stopBroadcast()", "connect(9,)"}));
  const std::vector<SimCall> calls = control().GetCalls();
  for (const SimCall& call : calls) EXPECT_EQ(call.sender, calls.front().sender);
}

TEST_F(LauncherTest, InitOnASecondLauncherReplacesTheClientWhileTheFirstHasCommandsInFlight) {
  Recorder<Found> firstFound;
  Launcher first;
  Launcher second;
  first.SetOnInstanceFoundCallback([&](int id, const std::string& name) { firstFound.Add({id, name}); });
  Attach(second);
  ASSERT_TRUE(InitReady(first));
  dbus::client::DBusClient* const firstClient = CurrentClient();

  control().SetNoReply("readProfiles");
  first.ReadProfiles();
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  EXPECT_EQ(first.StartBroadcast(true), 0);  // waits behind readProfiles
  EXPECT_EQ(first.DeleteStoredProfile(1), 0);

  // Replacing the client cancels the call in flight and discards the rest.
  ASSERT_TRUE(FinishesInBoundedTime([&] { EXPECT_EQ(second.Init(), 0); }));
  EXPECT_NE(CurrentClient(), firstClient);
  EXPECT_TRUE(logs().Contains("Stop dbus client"));

  ASSERT_TRUE(logs().WaitFor("IpcReady [1]", 2));
  control().SetNoReply("readProfiles", false);
  second.ReadProfiles();
  ASSERT_TRUE(found_.WaitForSize(2));
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));
  EXPECT_TRUE(firstFound.Items().empty());
  EXPECT_TRUE(control().CallsOf("startBroadcast").empty());
  EXPECT_TRUE(control().CallsOf("deleteStoredProfile").empty());
}

TEST_F(LauncherTest, QueuedCommandsReturnAtOnceAndDestroyingTheLauncherWithThemInFlightIsBoundedAndSilent) {
  std::atomic<bool> destroyed{false};
  std::atomic<int> lateCalls{0};
  auto launcher = std::make_unique<Launcher>();
  launcher->SetOnInstanceFoundCallback([&](int, const std::string&) { lateCalls += destroyed ? 1 : 0; });
  launcher->SetOnConnectionAvailable([&](int, bool) { lateCalls += destroyed ? 1 : 0; });
  ASSERT_TRUE(InitReady(*launcher));

  // readProfiles' deliveries race the teardown; deleteStoredProfile is never answered.
  control().SetDelay("readProfiles", 700);
  control().SetNoReply("deleteStoredProfile");
  EXPECT_TRUE(launcher->ReadProfiles().empty());
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  EXPECT_EQ(launcher->DeleteStoredProfile(1), 0);
  EXPECT_EQ(launcher->StartBroadcast(true), 0);
  EXPECT_EQ(launcher->Connect(7), 0);

  ASSERT_TRUE(FinishesInBoundedTime([&] { launcher.reset(); }));
  destroyed = true;
  EXPECT_EQ(CurrentClient(), nullptr);

  // A new Launcher hears the daemon; the destroyed one's callbacks stay silent.
  Launcher witness;
  Attach(witness);
  ASSERT_TRUE(InitReady(witness, 2));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 7, 1));
  ASSERT_TRUE(available_.WaitForSize(1));
  EXPECT_EQ(lateCalls, 0);
}

TEST_F(LauncherTest, SignalsPassTheirNamesAndNumbersAfterTheirLogLineAndMalformedPayloadsAreDropped) {
  std::atomic<bool> loggedBefore{false};
  Launcher launcher;
  Attach(launcher);
  const std::regex logged(R"(> thd: \S+ "Execute Instance Found callback: id\[12\], name\[Kitchen speaker\]")");
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    if (id == 12) loggedBefore = std::regex_search(logs().Dump(), logged);  // thread id first, before the call
    found_.Add({id, name});
  });
  ASSERT_TRUE(InitReady(launcher));

  control().Emit("onFound", common::SerializeIntoGVariant("Kitchen speaker", 12));
  EmitEach("onFound", {g_variant_new("(ayq)", nullptr, 12), g_variant_new("(si)", "Kitchen speaker", 12),
                       g_variant_new("(i)", 1), g_variant_new("(ayqq)", nullptr, 1, 2), nullptr});
  control().Emit("onFound", common::SerializeIntoGVariant("Hall display", 13));
  ASSERT_TRUE(found_.WaitForSize(2));
  EXPECT_TRUE(loggedBefore);
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{12, "Kitchen speaker"}, {13, "Hall display"}}));
  const auto errors = logs().Lines("> Failed to deserialize data");
  EXPECT_EQ(errors.size(), 5u);
  for (const LogLine& line : errors) EXPECT_EQ(line.priority, platform::LogPriority::kError) << line.text;

  control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall display", 7}, 3));  // the status, not the id
  EmitEach("onCancel", {common::IntegerToVariant(5), nullptr, g_variant_new("(ayqq)", nullptr, 7, 3),
                        g_variant_new("(s)", "x"), g_variant_new("(ayq)", nullptr, 1)});
  control().Emit("onCancel", common::ProfileWithStatusToVariant({"Kitchen speaker", 1}, 0));
  ASSERT_TRUE(logs().WaitFor("onCancelConnection handled", 7));
  EXPECT_EQ(cancelled_.Items(), (std::vector<int>{3, 0}));
  EXPECT_TRUE(logs().Contains("onCancelConnection emitted: profile[Hall display][7], status[3]"));
  EXPECT_EQ(logs().Count("onCancelConnection emitted"), 2u);  // undecodable ones log only "handled"

  EXPECT_EQ(launcher.Connect(7), 0);  // the sim follows its answer with (7, 1)
  ASSERT_TRUE(available_.WaitForSize(1));
  // Of another type, (s) or (ii): both numbers stay 0.
  EmitEach("onConnectionAvailable", {g_variant_new("(qq)", 5, 2), g_variant_new("(qq)", 5, 0),
                                     g_variant_new("(qq)", 65535, 1), g_variant_new("(s)", "5"),
                                     g_variant_new("(ii)", 5, 1)});
  ASSERT_TRUE(available_.WaitForSize(6));
  EXPECT_EQ(available_.Items(),
            (std::vector<Available>{{7, true}, {5, true}, {5, false}, {65535, true}, {0, false}, {0, false}}));
  EXPECT_TRUE(logs().Contains("Execute Instance ConnectionAvailable callback: id[65535] state[1]"));
}

TEST_F(LauncherTest, OnDbusClosingDisconnectsOncePerSignalAndLaterCommandsAreHeldForTheNextOwner) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  logs().Clear();
  EmitEach("onDbusClosing", {common::IntegerToVariant(0), common::IntegerToVariant(-42), g_variant_new("(s)", "bye")});
  ASSERT_TRUE(logs().WaitFor("onDbusClosing handled", 3));
  EXPECT_EQ(Messages({"Launcher.cpp: ", "DBusClientAsync.cpp: Disconnect("}),
            (Texts{"onDbusClosing emitted [0]", "Async Disconnect. Reset `ready` without the real disconnecting",
                   "onDbusClosing handled", "onDbusClosing emitted [-42]", "Already disconnected",
                   "onDbusClosing handled", "onDbusClosing emitted [0]", "Already disconnected",
                   "onDbusClosing handled"}));

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(WaitPooled("connect"));
  EXPECT_TRUE(control().CallsOf("connect").empty());
}

TEST_F(LauncherTest, ClearedCallbacksAreSkippedWhileTheirHandlersStillRunAndUnhandledSignalsReachNoLauncherCode) {
  Launcher launcher;
  Attach(launcher);
  ASSERT_TRUE(InitReady(launcher));
  const auto emitAll = [&] {
    control().Emit("onFound", common::SerializeIntoGVariant("Kitchen speaker", 101));
    control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall display", 7}, 3));
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 1));
  };
  emitAll();
  ASSERT_TRUE(available_.WaitForSize(1));
  launcher.SetOnInstanceFoundCallback(nullptr);
  launcher.SetOnCancelConnectionCallback(nullptr);
  launcher.SetOnConnectionAvailable(nullptr);
  logs().Clear();

  emitAll();
  control().Emit("onVoiceGuideSay", common::SerializeIntoGVariant("Turn left"));
  control().Emit("onServiceShutdown", common::IntegerToVariant(1));
  // Signals are handled in order: once this one is dropped, all are done.
  ASSERT_TRUE(logs().WaitFor("Haven't found callback for signal onServiceShutdown. Skipping processing..."));
  EXPECT_TRUE(logs().Contains("Haven't found callback for signal onVoiceGuideSay. Skipping processing..."));
  EXPECT_EQ(found_.Items().size() + cancelled_.Items().size() + available_.Items().size(), 3u);
  EXPECT_EQ(Messages({"Launcher.cpp: "}), (Texts{"OnFoundCallback emitted",
                                                 "onCancelConnection emitted: profile[Hall display][7], status[3]",
                                                 "onCancelConnection handled", "onConnectionAvailable emitted"}));
}

TEST_F(LauncherTest, SettersMayRaceDeliveriesFromOtherThreads) {
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
      if (round % 3 != 2) continue;  // and now and then cleared
      launcher.SetOnInstanceFoundCallback(nullptr);
      launcher.SetOnCancelConnectionCallback(nullptr);
      launcher.SetOnConnectionAvailable(nullptr);
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
  EXPECT_TRUE(logs().WaitFor("onCancelConnection handled", 20));
  stop = true;
  setter.join();
}

TEST_F(LauncherTest, CallbacksMayReplaceThemselvesAndCallTheLauncherEvenStopBroadcastDuringAStoredProfileDelivery) {
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
  EXPECT_EQ(startResult, 0);
  EXPECT_EQ(readSize, 0);
  EXPECT_EQ(stopResult, 4);
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));
  EXPECT_EQ(control().CallTexts(), (Texts{"connect(7,)", "startBroadcast(1,)", "readProfiles()", "stopBroadcast()"}));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 9, 0));
  ASSERT_TRUE(available_.WaitForSize(1));
  EXPECT_EQ(available_.Items(), (std::vector<Available>{{9, false}}));
}

TEST_F(LauncherTest, AListeningApplicationHearsARestartedDaemonWithoutIssuingACommand) {
  Launcher launcher;
  Attach(launcher);
  ASSERT_TRUE(InitReady(launcher));
  sim().Kill();
  ASSERT_TRUE(sim().Start());
  ASSERT_TRUE(logs().WaitFor("IpcReady [1]", 2)) << logs().Dump();
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 3, 1));
  ASSERT_TRUE(available_.WaitForSize(1));
  EXPECT_EQ(available_.Items(), (std::vector<Available>{{3, true}}));
  EXPECT_TRUE(control().GetCalls().empty());
}

TEST_F(LauncherTest, OutlivesARestartOfTheSystemBusAndSendsWhatWasHeldMeanwhile) {
  Launcher launcher;
  Attach(launcher);
  ASSERT_TRUE(InitReady(launcher));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 1, 1));
  ASSERT_TRUE(available_.WaitForSize(1));
  // GLib's shared connection would end this process with the bus.
  RestartBusAndDaemon([&] {
    EXPECT_EQ(launcher.Connect(8), 0);
    EXPECT_TRUE(WaitPooled("connect"));
  });
  ASSERT_TRUE(control().WaitForCall("connect")) << logs().Dump();
  EXPECT_EQ(control().CallTexts(), Texts{"connect(8,)"});
  ASSERT_TRUE(available_.WaitForSize(2));  // the sim answers a connect with (8, 1)
  EXPECT_EQ(available_.Items().back(), (Available{8, true}));
}

TEST_F(LauncherTest, CallbacksKeepTheirStateBetweenEvents) {
  struct Counter {  // a functor whose count lives in the callable itself
    Recorder<int>* out;
    int seen = 0;
    void operator()(int, bool) { out->Add(++seen); }
  };
  Recorder<int> availableCounts;
  Launcher launcher;
  launcher.SetOnConnectionAvailable(Counter{&availableCounts});
  launcher.SetOnCancelConnectionCallback([this, seen = 0](int) mutable { cancelled_.Add(++seen); });
  launcher.SetOnInstanceFoundCallback(
      [this, seen = 0](int id, const std::string&) mutable { found_.Add({id, std::to_string(++seen)}); });
  ASSERT_TRUE(InitReady(launcher));
  for (guint16 n = 1; n <= 3; ++n) {
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", n, 1));
    control().Emit("onCancel", common::ProfileWithStatusToVariant({"Hall", 7}, n));
    control().Emit("onFound", common::SerializeIntoGVariant("Hall", n));
  }
  ASSERT_TRUE(availableCounts.WaitForSize(3) && cancelled_.WaitForSize(3) && found_.WaitForSize(3));
  EXPECT_EQ(availableCounts.Items(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(cancelled_.Items(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{1, "1"}, {2, "2"}, {3, "3"}}));
}

TEST_F(LauncherTest, CommandsOnOtherThreadsMayRaceTheDestructionAndCreationOfTheClient) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> issued{0};
  std::vector<std::thread> users;
  for (int t = 0; t < 3; ++t) {
    users.emplace_back([&, t] {
      Launcher user;  // never inited: it uses whichever client another Launcher installed
      while (!stop) {
        // StopBroadcast waits for the daemon and holds commands until a new owner: the threads
        // of the others stay few.
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

// A daemon that misbehaves and strangers that speak in its name: the library
// must log, drop what it cannot use, never crash, and keep working.
class HostileDaemon : public LauncherTest {
 protected:
  void SetUp() override {
    LauncherTest::SetUp();
    control().SetInstances({});  // a broadcast announces nothing: every onFound here is the test's own
    Attach(launcher_);
    ASSERT_TRUE(InitReady(launcher_));
  }
  // After a daemon restart: a connect request reaches the daemon and its answer the application.
  void ExpectNextCommandWorks() {
    const std::size_t before = control().CallsOf("connect").size(), events = available_.Items().size();
    launcher_.StartBroadcast(false);  // clears the Connect guard
    EXPECT_EQ(launcher_.Connect(42), 0);
    EXPECT_TRUE(control().WaitForCall("connect", before + 1));
    EXPECT_TRUE(available_.WaitForSize(events + 1));
  }

  Launcher launcher_;  // after what its callbacks touch
};

TEST_F(HostileDaemon, SurvivesRepliesOfTheWrongTypeToEveryMethod) {
  // readProfiles answering (i), () and a count that is no text payload;
  // startBroadcast between them gets past the duplicate guard.
  for (GVariant* reply : {g_variant_new("(i)", 5), static_cast<GVariant*>(nullptr), g_variant_new("((i))", 1)}) {
    control().SetReply("readProfiles", reply);
    Send("startBroadcast", [&] { launcher_.StartBroadcast(false); });
    Send("readProfiles", [&] { launcher_.ReadProfiles(); });
  }
  EXPECT_TRUE(logs().WaitFor("Exception was raised from connectionManager. Please check sequence"));
  EXPECT_EQ(logs().Count("Read profiles size[0]"), 2u);  // one at a time: the first two are done
  EXPECT_TRUE(found_.Items().empty());

  // Integer methods answering a string or an empty body.
  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile"}) {
    control().SetReply(method, g_variant_new("(s)", "not a number"));
  }
  Send("startBroadcast", [&] { launcher_.StartBroadcast(true); });
  Send("connect", [&] { EXPECT_EQ(launcher_.Connect(3), 0); });
  Send("deleteStoredProfile", [&] { EXPECT_EQ(launcher_.DeleteStoredProfile(3), 0); });
  control().SetReply("stopBroadcast", g_variant_new("(s)", "seven"));
  control().SetReply("deinit", nullptr);
  EXPECT_EQ(launcher_.Stop(), 0);
  EXPECT_EQ(launcher_.StopBroadcast(), 0);  // decodes nothing: 0

  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile", "readProfiles"}) {
    control().ClearReply(method);
  }
  control().Restart();  // StopBroadcast left the layer waiting for a new owner
  ExpectNextCommandWorks();
  Send("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Read profiles size[", 3));
}

TEST_F(HostileDaemon, DeliversHugeAndRawNamesAndSixteenBitIdsAndCopesWithTenThousandProfiles) {
  const std::string huge(1 << 20, 'x');
  const std::string binary("\xff\xfe\x00zorvel\x80", 10);  // NUL and not UTF-8
  control().Emit("onFound", common::SerializeIntoGVariant(huge, 1));
  control().Emit("onFound", common::SerializeIntoGVariant(binary, 2));
  ASSERT_TRUE(WaitUntil([&] { return found_.Items().size() == 2; }));
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{1, huge}, {2, binary}}));

  // A signature holds 255 characters: one reply carries at most 41 profiles. They
  // arrive whole and in order, raw bytes included, each id in 16 bits: -5 as 65531.
  std::vector<common::SessionProfile> stored;
  std::vector<Found> expected = found_.Items();
  for (int id = 0; id < 41; ++id) stored.push_back({"profile " + std::to_string(id), 40 - id});
  stored[17].name = binary;
  stored[18].name = huge;
  stored[40].id = -5;
  for (const common::SessionProfile& profile : stored) expected.emplace_back(profile.id & 0xffff, profile.name);
  control().SetReply("readProfiles", common::ProfilesToVariant(stored));
  Send("readProfiles", [&] { launcher_.ReadProfiles(); });
  ASSERT_TRUE(WaitUntil([&] { return found_.Items().size() == expected.size(); }));
  EXPECT_EQ(found_.Items(), expected);

  // 10,000 stored profiles cannot be sent: the library logs the error and carries on.
  control().ClearReply("readProfiles");
  SimEntries many;
  for (int id = 0; id < 10000; ++id) many.emplace_back(id, "profile " + std::to_string(id));
  control().SetProfiles(many);
  Send("startBroadcast", [&] { launcher_.StartBroadcast(false); });
  Send("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Command wasnot derived. It can be ok if timeout"));
  EXPECT_TRUE(logs().Contains("LimitsExceeded"));
  EXPECT_EQ(found_.Items().size(), expected.size());
  ExpectNextCommandWorks();
}

TEST_F(HostileDaemon, NeverPassesAStrangersSignalsToTheApplication) {
  const std::string application = zorvel::testing::CurrentClientBusName();
  ASSERT_FALSE(application.empty());
  for (const std::string& destination : {std::string(), application}) {  // broadcast and unicast
    control().EmitAs("onFound", common::SerializeIntoGVariant("fake", 66), destination);
    control().EmitAs("onCancel", common::ProfileWithStatusToVariant({"fake", 66}, 1), destination);
    control().EmitAs("onConnectionAvailable", g_variant_new("(qq)", 66, 1), destination);
    control().EmitAs("onDbusClosing", g_variant_new("(i)", 1), destination);
  }
  // A real signal after the fake ones: once it is in, the fakes would be too.
  control().Emit("onFound", common::SerializeIntoGVariant("real", 7));
  ASSERT_TRUE(WaitUntil([&] { return found_.Items().size() == 1; }));
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{7, "real"}}));
  EXPECT_EQ(available_.Items().size() + cancelled_.Items().size(), 0u);
  EXPECT_FALSE(logs().Contains("onDbusClosing emitted"));

  // A stranger owning the name while the daemon is away is the daemon until it lets go.
  control().ReleaseName();
  common::GObjectPtr<GDBusConnection> claimer = OpenBusConnection();
  for (const auto& [call, args] : {std::make_pair("RequestName", g_variant_new("(su)", "zorvel.dbus.service", 4U)),
                                   std::make_pair("ReleaseName", g_variant_new("(s)", "zorvel.dbus.service"))}) {
    common::GVariantPtr answer(g_dbus_connection_call_sync(claimer.get(), "org.freedesktop.DBus",
                                                           "/org/freedesktop/DBus", "org.freedesktop.DBus", call, args,
                                                           G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                                                           nullptr));
    ASSERT_TRUE(answer) << call;
  }
  control().AcquireName();
  ExpectNextCommandWorks();  // the library follows the daemon again
  g_dbus_connection_emit_signal(claimer.get(), nullptr, "/zorvel/dbus/service", "dbus.zorvel.Interface", "onFound",
                                common::SerializeIntoGVariant("former", 67), nullptr);
  g_dbus_connection_flush_sync(claimer.get(), nullptr, nullptr);
  control().Emit("onFound", common::SerializeIntoGVariant("real again", 8));
  ASSERT_TRUE(WaitUntil([&] { return found_.Items().size() >= 2; }));
  EXPECT_EQ(found_.Items(), (std::vector<Found>{{7, "real"}, {8, "real again"}}));
}

}  // namespace
}  // namespace zv_client::testing
