// How each command issued through a Launcher ended, as its outcome tells the application.

#include <map>
#include <thread>

#include <common/GLibUtils.h>
#include <dbus/client/TestHooks.h>
#include <zorvel/Launcher.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

using zorvel::CommandId;
using zorvel::CommandOutcome;
using zorvel::CommandStatus;
using zorvel::Launcher;

// Every outcome delivered, with the thread it came on; checks that each command ends once.
class Outcomes {
 public:
  void Attach(Launcher& launcher) {
    launcher.SetOnCommandOutcome([this](const CommandOutcome& outcome) {
      std::function<void(const CommandOutcome&)> also;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        Entry& entry = entries_[outcome.id];
        EXPECT_FALSE(entry.final) << "command " << outcome.id << " told after it ended";
        (outcome.final ? entry.final : entry.interim) = std::make_unique<CommandOutcome>(outcome);
        entry.thread = std::this_thread::get_id();
        also = also_;
      }
      if (also) also(outcome);
    });
  }
  // Also runs `also` for each outcome, after recording it (in the callback, no lock held).
  void OnEach(std::function<void(const CommandOutcome&)> also) {
    std::lock_guard<std::mutex> lock(mutex_);
    also_ = std::move(also);
  }
  // The final outcome of `id` once it came, or an empty one (a test failure) at the deadline.
  CommandOutcome Final(CommandId id) {
    CommandOutcome outcome;
    EXPECT_TRUE(WaitUntil([&] {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto entry = entries_.find(id);
      if (entry == entries_.end() || !entry->second.final) return false;
      return outcome = *entry->second.final, true;
    })) << "no final outcome for command " << id;
    return outcome;
  }
  bool WasHeldFirst(CommandId id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Entry& entry = entries_[id];
    return entry.interim && entry.interim->status == CommandStatus::kHeld && !entry.interim->final;
  }
  bool Has(CommandId id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.count(id) != 0 && entries_[id].final;
  }
  std::thread::id ThreadOf(CommandId id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_[id].thread;
  }

 private:
  struct Entry {
    std::unique_ptr<CommandOutcome> interim, final;
    std::thread::id thread;
  };
  std::mutex mutex_;
  std::map<CommandId, Entry> entries_;
  std::function<void(const CommandOutcome&)> also_;
};

class CommandOutcomes : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "Living room"}, {2, "Kitchen"}}, {}, 0}; }
  void SetUp() override {
    BusTest::SetUp();
    outcomes_.Attach(launcher_);
    ASSERT_EQ(launcher_.Init(), 0);
    ASSERT_TRUE(logs().WaitFor("IpcReady [1]")) << logs().Dump();
  }
  // Every command returns at once; this issues one and waits for its final outcome.
  template <typename Issue>
  CommandOutcome Run(Issue issue) {
    CommandId id = 0;
    issue(&id);
    EXPECT_NE(id, 0u);
    return outcomes_.Final(id);
  }

  Outcomes outcomes_;
  Launcher launcher_;  // after what its callbacks touch
};

TEST_F(CommandOutcomes, CarryTheDaemonsAnswerItsErrorOrWhyNothingWasSent) {
  CommandOutcome outcome = Run([&](CommandId* id) { EXPECT_EQ(launcher_.Connect(7, id), 0); });
  EXPECT_EQ(outcome.status, CommandStatus::kAnswered);
  EXPECT_EQ(outcome.method, "connect");
  EXPECT_EQ(outcome.argument, 7);
  EXPECT_EQ(outcome.answer, 0);
  // Refused without a call: a connection is pending.
  outcome = Run([&](CommandId* id) { EXPECT_EQ(launcher_.Connect(8, id), -1); });
  EXPECT_EQ(outcome.status, CommandStatus::kNotStarted);
  EXPECT_EQ(outcome.errorName, zorvel::kErrorConnectPending);

  // A refusal is an answer; a D-Bus error is a failure with its name and message.
  control().SetAnswer("startBroadcast", 7);
  outcome = Run([&](CommandId* id) { launcher_.StartBroadcast(true, id); });
  EXPECT_EQ(outcome.status, CommandStatus::kAnswered);
  EXPECT_EQ(outcome.argument, 1);
  EXPECT_EQ(outcome.answer, 7);
  control().SetError("deleteStoredProfile", "org.example.Error.Busy", "busy right now");
  outcome = Run([&](CommandId* id) { EXPECT_EQ(launcher_.DeleteStoredProfile(1, id), 0); });
  EXPECT_EQ(outcome.status, CommandStatus::kFailed);
  EXPECT_EQ(outcome.errorName, "org.example.Error.Busy");
  EXPECT_EQ(outcome.errorMessage, "busy right now");
  // The repeat guard knows methods, not arguments.
  outcome = Run([&](CommandId* id) { EXPECT_EQ(launcher_.DeleteStoredProfile(2, id), 0); });
  EXPECT_EQ(outcome.status, CommandStatus::kDroppedAsRepeat);
  EXPECT_EQ(outcome.argument, 2);
  control().SetReply("connect", g_variant_new("(s)", "seven"));
  launcher_.StartBroadcast(false);
  outcome = Run([&](CommandId* id) { launcher_.Connect(9, id); });
  EXPECT_EQ(outcome.status, CommandStatus::kFailed);
  EXPECT_EQ(outcome.errorName, zorvel::kErrorInvalidReply);

  // Direct calls end on the calling thread, before they return.
  CommandId stop = 0;
  control().SetError("deinit", "org.example.Error.Refused", "not now");
  EXPECT_EQ(launcher_.Stop(&stop), -1);
  ASSERT_TRUE(outcomes_.Has(stop));
  EXPECT_EQ(outcomes_.ThreadOf(stop), std::this_thread::get_id());
  EXPECT_EQ(outcomes_.Final(stop).errorName, "org.example.Error.Refused");
  control().SetNoReply("stopBroadcast");
  outcome = Run([&](CommandId* id) { EXPECT_EQ(launcher_.StopBroadcast(id), -1); });
  EXPECT_EQ(outcome.status, CommandStatus::kTimedOut);
  EXPECT_EQ(outcome.errorName, "org.freedesktop.DBus.Error.NoReply");

  Launcher fresh;  // not inited: Stop, ReadProfiles and DeleteStoredProfile start nothing
  Outcomes freshOutcomes;
  freshOutcomes.Attach(fresh);
  CommandId read = 0;
  EXPECT_TRUE(fresh.ReadProfiles(&read).empty());
  ASSERT_TRUE(freshOutcomes.Has(read));
  EXPECT_EQ(freshOutcomes.Final(read).errorName, zorvel::kErrorNotInited);
}

TEST_F(CommandOutcomes, ReportHeldCommandsTwiceAndDiscardedOnesOnTheDiscardingThread) {
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("IpcReady [0]"));
  CommandId connect = 0, read = 0;
  launcher_.Connect(3, &connect);
  launcher_.ReadProfiles(&read);
  ASSERT_TRUE(WaitUntil([&] { return outcomes_.WasHeldFirst(connect) && outcomes_.WasHeldFirst(read); }));
  control().AcquireName();
  CommandOutcome outcome = outcomes_.Final(connect);
  EXPECT_EQ(outcome.status, CommandStatus::kAnswered);
  EXPECT_TRUE(outcome.wasHeld);
  outcome = outcomes_.Final(read);
  EXPECT_EQ(outcome.status, CommandStatus::kAnswered);
  EXPECT_EQ(outcome.profiles.size(), 2u);

  // While the daemon is ready nothing is held, so StopBroadcast discards only what the daemon's
  // vanishing at that moment put on hold: forced here between its readiness test and its lock.
  // It is called from inside a delivery (an outcome's callback, on a command thread), so the
  // discarded command's outcome is delivered inside that one, on the same thread.
  std::atomic<CommandId> putOnHold{0};
  CommandId trigger = 0;
  dbus::client::testing::SetHook([&](dbus::client::testing::Point point) {
    if (point != dbus::client::testing::Point::kDisconnectAwaitsPool || putOnHold != 0) return;
    control().ReleaseName();
    EXPECT_TRUE(logs().WaitFor("IpcReady [0]", 2));
    CommandId id = 0;
    launcher_.StartBroadcast(true, &id);
    putOnHold = id;
    // Its "held" outcome waits for the delivery this runs in: the log says when it is held.
    EXPECT_TRUE(logs().WaitFor("move command[startBroadcast] into pool"));
  });
  outcomes_.OnEach([&](const CommandOutcome& told) {
    if (told.id == trigger) launcher_.StopBroadcast();
  });
  launcher_.DeleteStoredProfile(1, &trigger);
  ASSERT_TRUE(WaitUntil([&] { return putOnHold != 0; }));
  CommandId held = putOnHold;
  outcome = outcomes_.Final(held);
  EXPECT_TRUE(outcomes_.WasHeldFirst(held)) << "held after it ended";
  dbus::client::testing::SetHook(nullptr);
  EXPECT_EQ(outcome.status, CommandStatus::kDiscarded);
  EXPECT_TRUE(outcome.wasHeld);
  EXPECT_EQ(outcomes_.ThreadOf(held), outcomes_.ThreadOf(trigger));

  // Teardown discards what is still held, before the destructor returns.
  Outcomes otherOutcomes;
  {
    Launcher other;
    otherOutcomes.Attach(other);
    ASSERT_EQ(other.Init(), 0);  // replaces the client; the daemon is away
    other.DeleteStoredProfile(1, &held);
    ASSERT_TRUE(WaitUntil([&] { return otherOutcomes.WasHeldFirst(held); }));
  }
  ASSERT_TRUE(otherOutcomes.Has(held)) << "not told before ~Launcher returned";
  EXPECT_EQ(otherOutcomes.Final(held).status, CommandStatus::kDiscarded);
}

TEST_F(CommandOutcomes, ListAllStoredProfilesWithFullIdsAfterTheirInstanceFoundCalls) {
  std::vector<std::pair<int, std::string>> found;
  launcher_.SetOnInstanceFoundCallback([&](int id, const std::string& name) { found.emplace_back(id, name); });
  const std::string raw("\xff\x00zorvel", 8);
  std::vector<common::SessionProfile> many;
  for (int n = 0; n < 41; ++n) many.push_back({"profile " + std::to_string(n), n * 100000 - 5});
  many[3].name = raw;
  const std::vector<std::vector<common::SessionProfile>> stores{{}, {{raw, -5}}, many};
  for (const auto& store : stores) {
    control().SetReply("readProfiles", common::ProfilesToVariant(store));
    launcher_.StartBroadcast(false);  // so that ReadProfiles is no repeat
    std::size_t calls = 0;
    const CommandOutcome outcome = Run([&](CommandId* id) {
      calls = found.size();
      launcher_.ReadProfiles(id);
    });
    ASSERT_EQ(outcome.status, CommandStatus::kAnswered) << outcome.errorMessage;
    ASSERT_EQ(outcome.profiles.size(), store.size());
    EXPECT_EQ(found.size(), calls + store.size()) << "the list came before the instance-found calls";
    for (std::size_t i = 0; i < store.size(); ++i) {
      EXPECT_EQ(outcome.profiles[i].id, store[i].id);
      EXPECT_EQ(outcome.profiles[i].name, store[i].name);
      EXPECT_EQ(found[calls + i].first, store[i].id & 0xffff) << "instance-found ids travel in 16 bits";
    }
  }
}

}  // namespace
}  // namespace zv_client::testing
