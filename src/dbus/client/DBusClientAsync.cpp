#include <zorvel/dbus/client/DBusClientAsync.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include <zorvel/dbus/client/CallbackAnchor.h>
#include <zorvel/dbus/client/CommandGate.h>
#include <zorvel/dbus/client/CommandIntake.h>
#include <zorvel/dbus/client/CommandTally.h>
#include <zorvel/dbus/client/LibraryThread.h>
#include <zorvel/dbus/client/OrderedDeliveries.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/dbus/client/TestHooks.h>
#include <zorvel/platform/Log.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace {

constexpr char kLogTag[] = "zorvel.dbus_client";
constexpr guint kConnectRetryIntervalMs = 500;
// How long teardown lets accepted commands run normally before it cancels the
// D-Bus call in flight and discards the rest.
constexpr std::chrono::milliseconds kTeardownGrace{1000};

// The link was lost (the attempts say why) rather than never made or ready.
bool IsLoss(const std::optional<LinkState>& state) {
  return state == LinkState::kWaitingForDaemon || state == LinkState::kBusUnreachable;
}

}  // namespace

// Never destroyed, like the application callback mutex.
common::Mutex& detail::RestoreMutex() {
  static common::Mutex* const mutex = new common::Mutex;
  return *mutex;
}

DBusClientAsync::DBusClientAsync()
    : intake_(std::make_unique<detail::CommandIntake<IntakeItem>>()),
      deliveries_(std::make_unique<detail::OrderedDeliveries>()),
      tally_(std::make_unique<detail::CommandTally>()),
      gate_(std::make_shared<detail::CommandGate>()),
      linkGate_(std::make_shared<detail::CommandGate>()) {
  SetFunctions();
}

DBusClientAsync::~DBusClientAsync() {
  ZV_LOGI("Stop dbus client");
  testing::Hook(testing::Point::kTeardownBegins);

  // Commands accepted before teardown still run while the daemon is ready, for
  // a short grace period; commands that would have to wait are discarded.
  draining_ = true;
  gate_->WaitIdleFor(kTeardownGrace);

  // From here on nothing new starts: the call in flight fails at once, no
  // GLib callback reaches this object, no reconnect task is started.
  closing_ = true;
  CancelCalls();
  DetachCallbacks();
  ResetTimer(true);

  // The restoration task and a connect attempt fail fast now that calls are
  // cancelled; a timer the task armed before it saw closing_ goes after them.
  linkGate_->WaitIdle();
  DropTimer();

  gate_->WaitIdle();
  common::MutexLock lock(poolMutex_);
  DiscardPool();
  lastReply_.reset();
  DeliverQueued(lock.native());  // the discarded commands' ends
}

void DBusClientAsync::SetFunctions() {
  functions_[kMethodInit] = ForwardingCommand{this};
  functions_[kMethodDeinit] = ForwardingCommand{this};
  functions_[kMethodConnect] = ForwardingCommand{this};
  functions_[kMethodStartBroadcast] = ForwardingCommand{this};
  functions_[kMethodStopBroadcast] = ForwardingCommand{this};
  functions_[kMethodDeleteStoredProfile] = ForwardingCommand{this};
  functions_[kMethodReadProfiles] = ProfileReadingCommand{this};
  SetIpcReadyCallback(IpcReadyHandler{this});
}

bool DBusClientAsync::ForwardingCommand::operator()(const CommandData::Parameters& parameters) const {
  // Called through the command table's std::function, by RunFunction, which
  // holds runMutex_.
  client->runMutex_.AssertHeld();
  // The base class's synchronous call: the virtual slot would lead back here.
  if (parameters.result != nullptr) {
    return client->DBusClient::Call(parameters.method, parameters.params, parameters.result, parameters.timeout,
                                    client->lastError_);
  }
  client->lastReply_.reset();
  GVariant* reply = nullptr;
  const bool ran =
      client->DBusClient::Call(parameters.method, parameters.params, &reply, parameters.timeout, client->lastError_);
  client->lastReply_.reset(reply);
  return ran;
}

bool DBusClientAsync::ProfileReadingCommand::operator()(const CommandData::Parameters& parameters) const {
  if (!ForwardingCommand{client}(parameters)) return false;
  if (parameters.result != nullptr) return true;

  DBusClientAsync& self = *client;
  // Called as ForwardingCommand is.
  self.runMutex_.AssertHeld();
  // Decoded whole before anything is queued: a reply that does not decode
  // throws here and delivers nothing.
  self.profiles_ = common::VariantToProfiles(self.lastReply_.get());
  ZV_LOGI_THD("Read profiles size[%zu]", self.profiles_.size());
  // Queued, not dispatched: the handlers run once the command has ended and
  // no lock of the layer is held. The payloads are made there too, so that
  // nothing of theirs holds up the command's end (the list), told before them.
  // One delivery per profile (the batch reports one that throws and goes on),
  // all reading one copy of the list: the end takes the decoded one.
  const auto list = std::make_shared<const std::vector<common::SessionProfile>>(self.profiles_);
  for (std::size_t i = 0; i < list->size(); ++i) {
    self.foundDeliveries_.push_back([&self, list, i] {
      if (self.closing_) return;
      const common::SessionProfile& profile = (*list)[i];
      const common::GVariantPtr payload = common::SinkVariant(common::SerializeIntoGVariant(profile.name, profile.id));
      if (!payload) {
        ZV_LOGE("Failed to allocate tuple");
        return;
      }
      self.HandleSignal(kSignalOnFound, payload.get());
    });
  }
  return true;
}

bool DBusClientAsync::Call(const std::string& method, GVariant* params, GVariant** result, int timeout) {
  // The caller's `result` is never written: the command runs later, with the
  // reply going to lastReply_.
  (void)result;
  return Submit(method, params, timeout, nullptr);
}

bool DBusClientAsync::Submit(const std::string& method, GVariant* params, int timeout, CommandObserver observer) {
  // Ours from here, floating or not, until the intake has the command.
  common::GVariantPtr owned(params);
  // Logged as the Call it implements.
  const auto entry = functions_.find(method);
  if (entry == functions_.end()) {
    ZV_LOG_AT_("Call", kSystem, kError, "DBusClientAsync::Call cann't find method [%s]", method.c_str());
    return false;
  }

  tally_->Add(&Counts::accepted);
  try {
    StartIntakeThread(CommandData{{method, params, nullptr, timeout}, entry->second, std::move(observer)});
  } catch (...) {
    tally_->Add(&Counts::accepted, -1);
    throw;
  }
  (void)owned.release();  // the command's thread releases it
  return true;
}

void DBusClientAsync::StartIntakeThread(IntakeItem item) {
  // The destructor waits for gate_ to be idle before this object goes.
  intake_->Put(std::move(item),
               [this] { detail::StartGatedLibraryThread(gate_, [this] { ExecuteCommand(nullptr); }); });
}

int DBusClientAsync::ExecuteCommand(const CommandData& command) { return ExecuteCommand(&command); }

// ExecuteCommand's two ways with a command it may run, once it holds both
// runMutex_ and poolMutex_ and the layer is open: run it now, or hold it in
// the pool. Each returns how to end the command right there (a repeat, or
// teardown under way), or nothing when it saw to the command itself. Their
// steps are ExecuteCommand's, and so is the function name of their log lines.
// Below them, the hand-over of the held commands' replay to a library thread.
struct detail::CommandExecution {
  using CommandData = DBusClientAsync::CommandData;
  using CommandEnd = DBusClientAsync::CommandEnd;

  // Ready with nothing held: the command runs now, with poolMutex_ released
  // (through `poolLock`) while its function runs; unless it repeats the
  // method that ran just before.
  static std::optional<CommandEnd::Kind> RunAtOnce(DBusClientAsync& client, const CommandData& command,
                                                   common::GVariantPtr& params, bool& ended,
                                                   std::unique_lock<std::mutex>& poolLock)
      ZV_REQUIRES(client.runMutex_, client.poolMutex_) {
    const std::string& method = command.parameters.method;
    if (client.activeCommand_ == method) {
      ZV_LOG_AT_("ExecuteCommand", kMain, kInfo, "Duplicate command in active %s", method.c_str());
      return CommandEnd::Kind::kDroppedAsRepeat;
    }
    client.activeCommand_ = method;
    ZV_LOG_AT_("ExecuteCommand", kSystem, kInfo, "Ipc is ready - make call");
    ended = true;  // RunFunction ends it, also when the function throws
    client.poolMutex_.UnlockThrough(poolLock);
    if (!client.RunFunction(command, false, poolLock)) {
      ZV_LOG_AT_("ExecuteCommand", kSystem, kInfo, "Command wasnot derived. It can be ok if timeout");
    }
    params.reset();
    return std::nullopt;
  }

  // Not ready, or commands held already: a copy of the command joins the
  // pool (and the link is restored when it is lost), unless its method is
  // held already or teardown would discard it anyway.
  static std::optional<CommandEnd::Kind> Hold(DBusClientAsync& client, const CommandData& command,
                                              common::GVariantPtr& params, bool& ended)
      ZV_REQUIRES(client.runMutex_, client.poolMutex_) {
    const std::string& method = command.parameters.method;
    client.activeCommand_.clear();
    const bool held = std::any_of(client.commandPool_.begin(), client.commandPool_.end(),
                                  [&](const CommandData& pooled) { return pooled.parameters.method == method; });
    if (held || client.draining_) {  // teardown would discard it anyway
      if (held) ZV_LOG_AT_("ExecuteCommand", kMain, kInfo, "Duplicate command in pool %s", method.c_str());
      return held ? CommandEnd::Kind::kDroppedAsRepeat : CommandEnd::Kind::kDiscarded;
    }
    if (!client.ready_ && !client.IsConnected()) {
      ZV_LOG_AT_("ExecuteCommand", kSystem, kInfo, "Ipc isn't connected - make restore");
      client.RestoreConnection();
    }
    CommandData pooled = command;
    pooled.parameters.result = nullptr;
    if (pooled.parameters.params != nullptr && g_variant_is_floating(pooled.parameters.params)) {
      g_variant_ref_sink(pooled.parameters.params);
    }
    client.commandPool_.push_back(std::move(pooled));
    (void)params.release();  // the pool holds the reference now
    ended = true;            // the pooled copy ends later
    client.Finish(command, CommandEnd{CommandEnd::Kind::kHeld});
    ZV_LOGI_THD_AT_("ExecuteCommand", "Ipc isn't ready, move command[%s] into pool[%zu], isConnectionLost[%d]",
                    method.c_str(), client.commandPool_.size(), client.ready_ ? 1 : 0);
    return std::nullopt;
  }

  // Hands the replay of the held commands to a library thread, in its place
  // in the intake. False when no thread could be started: the commands stay
  // held, and ScheduleReplayHandOver tries again. Replaying on the caller's
  // thread instead would hold the main loop for a call to the daemon per
  // held command.
  static bool HandOverReplay(DBusClientAsync& client) ZV_REQUIRES(client.poolMutex_) {
    if (!client.ready_ || client.commandPool_.empty() || client.closing_) return true;  // nothing left to hand over
    try {
      client.StartIntakeThread(DBusClientAsync::IntakeItem());
      testing::Hook(testing::Point::kReplayHandedOver);
      return true;
    } catch (const std::exception& exception) {
      ZV_LOG_AT_("IpcReadyHandler", kSystem, kError, "No thread for the replay (%s): trying again in %u ms",
                 exception.what(), kConnectRetryIntervalMs);
      return false;
    }
  }

  // Tries the hand-off again from the main loop until it worked or nothing
  // is held any more. The source carries a handle, not the client, so a
  // tick after teardown only removes it.
  static void ScheduleReplayHandOver(const DBusClientAsync& client) {
    g_timeout_add_full(G_PRIORITY_DEFAULT, kConnectRetryIntervalMs, &RetryReplayHandOver, client.NewCallbackHandle(),
                       &DBusClientAsync::FreeCallbackHandle);
  }

  static gboolean RetryReplayHandOver(gpointer handle) {
    detail::CallbackScope scope(handle);
    auto* client = static_cast<DBusClientAsync*>(scope.client());
    if (client == nullptr) return G_SOURCE_REMOVE;
    common::MutexLock lock(client->poolMutex_);
    return HandOverReplay(*client) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
  }
};

// Named like the public overload: its log lines carry the function name.
int DBusClientAsync::ExecuteCommand(const CommandData* given) {
  common::MutexLock run(runMutex_);
  IntakeItem next;
  const CommandData* command = given;
  if (command == nullptr) {  // taken under runMutex_, so the intake order is the execution order
    next = intake_->Take();
    if (!next) {
      HeldCommandsReplay{this}(run.native());
      return 0;
    }
    command = &*next;
  }
  common::GVariantPtr params(command->parameters.params);  // the layer's one reference
  bool ended = false;  // Finish was called for the command (or its pooled copy took over)
  common::MutexLock lock(poolMutex_, std::defer_lock);
  try {
    lock.lock();
    const std::string& method = command->parameters.method;
    std::optional<CommandEnd::Kind> endHere;  // ends the command without running or holding it
    if (closing_) {
      endHere = CommandEnd::Kind::kDiscarded;
    } else {
      ZV_LOGI_THD("ExecuteCommand[%s] STARTED IsReady[%d] IsConnected[%d] cmdPool[%zu]", method.c_str(), ready_ ? 1 : 0,
                  IsConnected() ? 1 : 0, commandPool_.size());

      // Readiness without a link would make every command fail at once, with
      // nothing ever restoring the link: drop the readiness and go on as when
      // not connected. (The layer never gets there, see linkMutex_.)
      if (ready_ && !IsConnected()) ready_ = false;

      endHere = ready_ && commandPool_.empty()
                    ? detail::CommandExecution::RunAtOnce(*this, *command, params, ended, lock.native())
                    : detail::CommandExecution::Hold(*this, *command, params, ended);
    }
    if (endHere) {
      ended = true;
      Finish(*command, CommandEnd{*endHere});
    }
    run.unlock();
    DeliverQueued(lock.native());
    if (endHere) return 0;
  } catch (const std::exception& exception) {
    // Where the exception came from decides whether poolMutex_ is held
    // (RunFunction throws with it held again); owns_lock() tells, which the
    // analysis cannot follow.
    if (lock.owns_lock()) poolMutex_.AssertHeldBy(lock.native());
    if (lock.owns_lock() && !ended) {
      CommandEnd end{CommandEnd::Kind::kFailedToRun};
      end.failure = exception.what();
      Finish(*command, std::move(end));
    }
    ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence");
    if (run.owns_lock()) run.unlock();
    if (lock.owns_lock()) DeliverQueued(lock.native());
    return -1;
  }
  ZV_LOGI_THD("ExecuteCommand[%s] FINISHED", command->parameters.method.c_str());
  return 0;
}

bool DBusClientAsync::RunFunction(const CommandData& command, bool wasHeld, std::unique_lock<std::mutex>& poolLock) {
  CommandEnd end{CommandEnd::Kind::kRan, wasHeld};
  foundDeliveries_.clear();
  bool ran = false;
  try {
    ran = command.function(command.parameters);
  } catch (const std::exception& exception) {
    foundDeliveries_.clear();
    lastReply_.reset();  // a reply that did not decode
    end.failure = exception.what();
    poolMutex_.LockThrough(poolLock);
    Finish(command, std::move(end));
    throw;
  }
  // The reply goes to the end: the layer keeps nothing of a command once it ended.
  if (command.parameters.result == nullptr) end.reply = common::SharedVariantPtr(std::move(lastReply_));
  if (!ran && lastError_) end.error = common::CopyableErrorPtr(std::move(lastError_));
  // The list goes to the end as it is: the deliveries have their own copy.
  if (ran && command.parameters.method == kMethodReadProfiles) end.profiles = std::move(profiles_);
  std::vector<std::function<void()>> found = std::move(foundDeliveries_);
  foundDeliveries_.clear();
  poolMutex_.LockThrough(poolLock);
  Finish(command, std::move(end));  // the end (the list) is told before the list's deliveries
  for (auto& delivery : found) deliveries_->Add(poolMutex_, std::move(delivery));
  return ran;
}

void DBusClientAsync::Finish(const CommandData& command, CommandEnd end) {
  switch (end.kind) {
    case CommandEnd::Kind::kRan:
      tally_->Add(end.wasHeld ? &Counts::replayed : &Counts::ranAtOnce, 1,
                  end.wasHeld ? commandPool_.size() : detail::CommandTally::kHeldUnchanged);
      break;
    case CommandEnd::Kind::kDroppedAsRepeat:
      tally_->Add(&Counts::droppedDuplicate);
      break;
    case CommandEnd::Kind::kHeld:
      tally_->Add(&Counts::pooled, 1, commandPool_.size());
      break;
    case CommandEnd::Kind::kDiscarded:
      tally_->Add(&Counts::discarded, 1, end.wasHeld ? commandPool_.size() : detail::CommandTally::kHeldUnchanged);
      break;
    case CommandEnd::Kind::kFailedToRun:
      tally_->Add(&Counts::failed);
      break;
  }
  if (!command.observer) return;
  deliveries_->Add(poolMutex_, [observer = command.observer,
                                shared = std::make_shared<const CommandEnd>(std::move(end))] { observer(*shared); });
}

void DBusClientAsync::DeliverQueued(std::unique_lock<std::mutex>& poolLock) {
  detail::OrderedDeliveries::Batch batch = deliveries_->Close(poolMutex_);
  poolMutex_.UnlockThrough(poolLock);
  batch.Run([] { ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence"); });
}

void DBusClientAsync::IpcReadyHandler::operator()(bool isReady) const {
  DBusClientAsync& self = *client;
  common::MutexLock lock(self.poolMutex_);
  ZV_LOGI_THD("IpcReady [%d] command pool size [%zu]", isReady ? 1 : 0, self.commandPool_.size());
  self.ResetTimer(true);
  self.ready_ = isReady;
  if (isReady) {
    // A loss is always followed by "connecting", whichever of the watcher's
    // report and the attempt that launched it gets here first.
    self.ReportLink(LinkState::kConnecting, "the daemon's name has an owner: connecting", {}, {}, true);
    self.ReportLink(LinkState::kReady, "the daemon is ready");
  } else {
    self.ReportLink(LinkState::kWaitingForDaemon,
                    "the daemon's name " + kBusName + " vanished: waiting for a new owner");
  }

  if (!isReady) {
    ZV_LOGI("Connection lost. Disconnect from the server and stop watcher");
    self.StopBusWatcher();
    self.DBusClient::Disconnect();
    if (!self.commandPool_.empty()) {
      ZV_LOGI("Connection is lost, but there are unhandled commands. RestoreConnection");
    }
    // Also with nothing held: an application that only listens must hear the
    // daemon's next instance without issuing a command first.
    self.RestoreConnection();
    return;
  }
  // The replay makes one call to the daemon per held command: on a thread of
  // the library, never on the application's main loop. It takes its place in
  // the intake, so it runs after the commands accepted before now and before
  // any accepted later (those meanwhile find the pool not empty and join it).
  if (!detail::CommandExecution::HandOverReplay(self)) detail::CommandExecution::ScheduleReplayHandOver(self);
}

void DBusClientAsync::HeldCommandsReplay::operator()(std::unique_lock<std::mutex>& runLock) const {
  DBusClientAsync& self = *client;
  // The caller's std::unique_lock holds runMutex_; the analysis cannot carry
  // that across the call, nor tie the caller's client to `client`.
  self.runMutex_.AssertHeldBy(runLock);
  common::MutexLock lock(self.poolMutex_);
  // Stops when the daemon went again (or the layer was disconnected): what is
  // still held then waits for the next readiness.
  while (self.ready_ && !self.commandPool_.empty() && !self.closing_) {
    // Taken out before it runs, so that a Disconnect meanwhile cannot end it a second time.
    const CommandData command = std::move(self.commandPool_.front());
    self.commandPool_.pop_front();
    const common::GVariantPtr params(command.parameters.params);
    ZV_LOGI_THD("IpcReady command[%s] STARTED", command.parameters.method.c_str());
    lock.unlock();
    try {
      self.RunFunction(command, true, lock.native());
    } catch (const std::exception&) {
      ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence");
    }
    ZV_LOGI_THD("IpcReady command[%s] FINISHED", command.parameters.method.c_str());
  }
  self.runMutex_.UnlockThrough(runLock);
  self.DeliverQueued(lock.native());
}

void DBusClientAsync::DiscardPool() {
  while (!commandPool_.empty()) {
    const CommandData command = std::move(commandPool_.front());
    commandPool_.pop_front();
    const common::GVariantPtr params(command.parameters.params);  // the pool's reference
    Finish(command, CommandEnd{CommandEnd::Kind::kDiscarded, true});
  }
}

bool DBusClientAsync::Connect() {
  ZV_LOGI("ConnectAsync");
  if (closing_) return true;
  guint id = 0;
  {
    common::MutexLock lock(timerMutex_);
    if (connectTimerId_ != 0) return true;
    // The source is kept with a reference of our own, so removing it later is
    // safe even if it has just removed itself on the main-loop thread.
    common::GSourcePtr source(g_timeout_source_new(kConnectRetryIntervalMs));
    g_source_set_callback(source.get(), &DBusClientAsync::OnConnectTimer, NewCallbackHandle(),
                          &DBusClient::FreeCallbackHandle);
    id = g_source_attach(source.get(), nullptr);
    connectTimerId_ = id;
    connectTimerSource_ = std::move(source);
  }
  ZV_LOGI("connect id[%d]", static_cast<int>(id));
  bool lost = false;  // a restoration: the attempts tell why the daemon is not there
  {
    common::MutexLock lock(statusMutex_);
    lost = IsLoss(reportedState_);
  }
  if (!lost) ReportLink(LinkState::kConnecting, "connecting to the daemon on the system bus");
  return true;
}

gboolean DBusClientAsync::OnConnectTimer(gpointer handle) {
  detail::CallbackScope scope(handle);
  auto* self = static_cast<DBusClientAsync*>(scope.client());
  if (self == nullptr) return G_SOURCE_REMOVE;
  // The attempt removes the timer once it connected.
  self->RequestAttempt(true);
  return G_SOURCE_CONTINUE;
}

void DBusClientAsync::OnDaemonNameAppeared(GDBusConnection* /*connection*/, const char* /*name*/, const char* nameOwner,
                                           void* handle) {
  detail::CallbackScope scope(handle);
  auto* self = static_cast<DBusClientAsync*>(scope.client());
  if (self == nullptr || nameOwner == nullptr) return;
  {
    // The watch may have been stopped after GLib queued this report.
    common::MutexLock lock(self->timerMutex_);
    if (self->nameWatchId_ == 0) return;
  }
  self->RequestAttempt(false);
}

void DBusClientAsync::RequestAttempt(bool fromTimer) {
  {
    common::MutexLock lock(attemptMutex_);
    if (closing_) return;
    if (attemptRunning_) {
      // The running attempt may have asked before the name had an owner: one
      // more follows it. The timer asks again by itself.
      if (!fromTimer) attemptAgain_ = true;
      return;
    }
    attemptRunning_ = true;
  }
  // Opening the bus connection and creating the proxy wait for the bus (and
  // the proxy for the daemon): never on the main loop.
  try {
    detail::StartGatedLibraryThread(linkGate_, [this, fromTimer] { RunAttempts(fromTimer); });
  } catch (const std::exception& exception) {
    ZV_LOGE("No thread for a connect attempt (%s); the timer asks again", exception.what());
    common::MutexLock lock(attemptMutex_);
    attemptRunning_ = false;
  }
}

void DBusClientAsync::RunAttempts(bool fromTimer) {
  for (;;) {
    const bool connected = AttemptConnect(fromTimer);
    common::MutexLock lock(attemptMutex_);
    if (connected || !attemptAgain_ || closing_) {
      attemptRunning_ = false;
      attemptAgain_ = false;
      return;
    }
    attemptAgain_ = false;
    fromTimer = false;
  }
}

bool DBusClientAsync::AttemptConnect(bool fromTimer) {
  common::MutexLock link(linkMutex_);
  if (IsConnected()) {
    // A timer tick that GLib dispatched just before the attempt that connected
    // removed the timer: nothing to connect, only the timer to drop if it is
    // still armed.
    ResetTimer(!fromTimer);
    return true;
  }
  testing::Hook(testing::Point::kAttemptStarts);
  ZV_LOGI_THD("Try to connect to DBus server");
  if (DBusClient::Connect()) {
    testing::Hook(fromTimer ? testing::Point::kConnectedByTimer : testing::Point::kConnectedByNameWatch);
    ResetTimer(!fromTimer);
    // Unless the readiness the watcher reports on the main loop came first.
    ReportLink(LinkState::kConnecting, "the daemon's name has an owner: connecting", {}, {}, true);
    return true;
  }
  ReportConnectFailure();
  // Until the daemon's name gets an owner the timer keeps trying; the watch
  // makes the attempt as soon as it has one.
  StartNameWatch();
  return false;
}

void DBusClientAsync::StartNameWatch() {
  common::GObjectPtr<GDBusConnection> bus = BusConnection();
  if (!bus) return;  // the bus itself is away: only the timer can tell when it is back
  guint stale = 0;
  common::GObjectPtr<GDBusConnection> staleBus;
  {
    common::MutexLock lock(timerMutex_);
    if (connectTimerId_ == 0 || closing_) return;
    if (nameWatchId_ != 0 && nameWatchBus_.get() == bus.get()) return;
    // A watch on a connection that has since closed (the bus restarted)
    // would never report the daemon: it is replaced by one on the new one.
    stale = nameWatchId_;
    staleBus = std::move(nameWatchBus_);
    nameWatchId_ = g_bus_watch_name_on_connection(bus.get(), kBusName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                  &DBusClientAsync::OnDaemonNameAppeared, nullptr, NewCallbackHandle(),
                                                  &DBusClient::FreeCallbackHandle);
    nameWatchBus_ = std::move(bus);
  }
  if (stale != 0) g_bus_unwatch_name(stale);
}

void DBusClientAsync::ArmRestoration() {
  Connect();
  StartNameWatch();
}

void DBusClientAsync::ResetTimer(bool remove) {
  ZV_LOGI("Reset timer (remove: %d)", remove ? 1 : 0);
  {
    common::MutexLock lock(timerMutex_);
    if (remove && connectTimerId_ == 0) return;  // the watch lives only while the timer is armed
  }
  // Without `remove` the source goes too: the attempt that connected ran on
  // a thread of its own, not in the timer's callback that would return FALSE.
  DropTimer();
}

void DBusClientAsync::DropTimer() {
  common::GSourcePtr source;
  guint watch = 0;
  common::GObjectPtr<GDBusConnection> watchBus;
  {
    common::MutexLock lock(timerMutex_);
    connectTimerId_ = 0;
    source = std::move(connectTimerSource_);
    watch = std::exchange(nameWatchId_, 0);
    watchBus = std::move(nameWatchBus_);
  }
  if (watch != 0) g_bus_unwatch_name(watch);
  if (source) g_source_destroy(source.get());  // a no-op if it already went
}

bool DBusClientAsync::Disconnect() {
  if (!ready_) {
    ZV_LOGI("Already disconnected");
    return true;
  }
  ZV_LOGI("Async Disconnect. Reset `ready` without the real disconnecting");
  testing::Hook(testing::Point::kDisconnectAwaitsPool);
  common::MutexLock lock(poolMutex_);
  DiscardPool();
  ready_ = false;
  ReportLink(LinkState::kHeldUntilNewOwner,
             "commands are held until the daemon's name passes to a new owner (after StopBroadcast or the daemon's "
             "closing event)");
  DeliverQueued(lock.native());  // the discarded commands' ends, on this thread
  return true;
}

void DBusClientAsync::Reconnect() {
  ZV_LOGI("Reconnect start");
  // No command runs and no replay happens between dropping the link and
  // arming the timer.
  common::MutexLock run(runMutex_);
  testing::Hook(testing::Point::kReconnectAwaitsLink);
  {
    common::MutexLock link(linkMutex_);
    // A connect attempt may have restored the link while this task waited:
    // dropping it now would leave its watcher to report the daemon to a
    // client without a link.
    if (!IsConnected()) {
      DBusClient::Disconnect();
      ArmRestoration();
    }
  }
  reconnectPassed_ = true;
  ZV_LOGI("Reconnect end");
}

void DBusClientAsync::RestoreConnection() {
  ZV_LOGI("RestoreConnection start");
  {
    common::MutexLock lock(detail::RestoreMutex());
    if (closing_) return;  // teardown waits for the last task
    if (reconnectFuture_.valid() && reconnectFuture_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      ZV_LOGI("Reconnecting is still running. Return");
      // The running task may be past its Reconnect, and the retry timer it
      // armed may just have been removed by a lost-connection report; with
      // nothing left to retry, the link would never come back. Arm it again,
      // as the task did (a no-op if armed).
      if (reconnectPassed_ && !IsConnected()) ArmRestoration();
      return;
    }
    reconnectPassed_ = false;
    std::promise<bool> done;
    std::future<bool> finished = done.get_future();
    try {
      detail::StartGatedLibraryThread(linkGate_, [this, done = std::make_shared<std::promise<bool>>(std::move(done))] {
        Reconnect();
        done->set_value(true);
      });
    } catch (const std::exception& exception) {
      // Called from GLib's name-vanished callback too, where an exception
      // must not pass. The retry timer and the name watch go on trying:
      // their attempts start threads of their own, and survive a failed one.
      ZV_LOGE("No thread to restore the link (%s): the retry timer will", exception.what());
      ArmRestoration();
      return;
    }
    reconnectFuture_ = std::move(finished);
  }
  ZV_LOGI("RestoreConnection end");
}

const char* LinkStateName(LinkState state) {
  switch (state) {
    case LinkState::kConnecting:
      return "connecting";
    case LinkState::kWaitingForDaemon:
      return "waiting-for-daemon";
    case LinkState::kBusUnreachable:
      return "bus-unreachable";
    case LinkState::kReady:
      return "ready";
    case LinkState::kHeldUntilNewOwner:
      return "held-until-new-owner";
  }
  return "unknown";
}

void DBusClientAsync::SetLinkStateObserver(std::function<void(const LinkStatus&)> observer) {
  std::shared_ptr<const std::function<void(const LinkStatus&)>> replacement;
  if (observer) replacement = std::make_shared<const std::function<void(const LinkStatus&)>>(std::move(observer));
  common::MutexLock lock(statusMutex_);
  linkObserver_.swap(replacement);
}

void DBusClientAsync::ReportLink(LinkState state, std::string text, std::string busAddress, std::string error,
                                 bool onlyAfterLoss) {
  {
    common::MutexLock lock(statusMutex_);
    if (closing_ || reportedState_ == state) return;
    if (onlyAfterLoss && !IsLoss(reportedState_)) return;
    reportedState_ = state;
    // The idle source that tells them is armed exactly while some are queued.
    const bool armed = !statusQueue_.empty();
    statusQueue_.push_back(LinkStatus{state, std::move(text), std::move(busAddress), std::move(error)});
    if (armed) return;
  }
  // Changes come from the command, attempt and application threads; the
  // application hears of them on its main loop, in order.
  const common::GSourcePtr source(g_idle_source_new());
  g_source_set_callback(source.get(), &DBusClientAsync::OnLinkStatusIdle, NewCallbackHandle(),
                        &DBusClient::FreeCallbackHandle);
  g_source_attach(source.get(), nullptr);
}

void DBusClientAsync::ReportConnectFailure() {
  const ConnectFailure failure = LastConnectFailure();
  switch (failure.kind) {
    case ConnectFailure::kBusUnreachable:
      ReportLink(LinkState::kBusUnreachable,
                 "the system bus at " +
                     (failure.busAddress.empty() ? std::string("(no address)") : failure.busAddress) +
                     " cannot be reached: " + failure.error,
                 failure.busAddress, failure.error);
      return;
    case ConnectFailure::kNoOwner:
      ReportLink(LinkState::kWaitingForDaemon,
                 "waiting for the daemon: " + kBusName + " has no owner on the system bus");
      return;
    case ConnectFailure::kOwnerGoingAway:
      ReportLink(LinkState::kWaitingForDaemon,
                 "waiting for the daemon: " + kBusName + " is still owned by the instance that is going away");
      return;
    case ConnectFailure::kNone:
      return;
  }
}

gboolean DBusClientAsync::OnLinkStatusIdle(gpointer handle) {
  detail::CallbackScope scope(handle);
  auto* self = static_cast<DBusClientAsync*>(scope.client());
  if (self == nullptr) return G_SOURCE_REMOVE;
  std::deque<LinkStatus> statuses;
  std::shared_ptr<const std::function<void(const LinkStatus&)>> observer;
  {
    common::MutexLock lock(self->statusMutex_);
    statuses.swap(self->statusQueue_);
    observer = self->linkObserver_;
  }
  if (!observer || !*observer) return G_SOURCE_REMOVE;
  for (const LinkStatus& status : statuses) {
    try {  // an exception must not unwind through GLib's C frames
      (*observer)(status);
    } catch (const std::exception& exception) {
      ZV_LOGE("Link state callback threw: %s", exception.what());
    } catch (...) {
      ZV_LOGE("Link state callback threw");
    }
  }
  return G_SOURCE_REMOVE;
}

DBusClientAsync::Counts DBusClientAsync::GetCounts() {
  Counts counts = tally_->Snapshot();
  counts.inFlight = gate_->InFlight();
  return counts;
}

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
