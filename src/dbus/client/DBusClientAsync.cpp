#include <dbus/client/DBusClientAsync.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include <dbus/client/CallbackAnchor.h>
#include <dbus/client/ServiceContract.h>
#include <platform/Log.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace {

constexpr char kLogTag[] = "zorvel.dbus_client";
constexpr guint kConnectRetryIntervalMs = 500;
// How long teardown lets accepted commands run normally before it cancels the
// D-Bus call in flight and discards the rest.
constexpr std::chrono::milliseconds kTeardownGrace{1000};

// Serialises the test of reconnectFuture_ with the start of a new task, for
// every client of the process. Never destroyed, like the signal mutex.
std::mutex& RestoreMutex() {
  static std::mutex* const mutex = new std::mutex;
  return *mutex;
}

// Releases the one reference the command layer holds to a command's params.
struct ParamsRef {
  explicit ParamsRef(GVariant* value) : params(value) {}
  ~ParamsRef() { reset(); }
  ParamsRef(const ParamsRef&) = delete;
  ParamsRef& operator=(const ParamsRef&) = delete;
  void reset() {
    if (params != nullptr) g_variant_unref(std::exchange(params, nullptr));
  }
  GVariant* release() { return std::exchange(params, nullptr); }
  GVariant* params;
};

}  // namespace

struct DBusClientAsync::CommandGate {
  std::mutex mutex;
  std::condition_variable idle;
  std::size_t inFlight = 0;  // guarded by mutex
};

DBusClientAsync::DBusClientAsync() : gate_(std::make_shared<CommandGate>()) { SetFunctions(); }

DBusClientAsync::~DBusClientAsync() {
  ZV_LOGI("Stop dbus client");

  // Commands accepted before teardown still run while the daemon is ready, for
  // a short grace period; commands that would have to wait are discarded.
  draining_ = true;
  {
    std::unique_lock<std::mutex> lock(gate_->mutex);
    gate_->idle.wait_for(lock, kTeardownGrace, [this] { return gate_->inFlight == 0; });
  }

  // From here on nothing new starts: the call in flight fails at once, no
  // GLib callback reaches this object, no reconnect task is started.
  closing_ = true;
  CancelCalls();
  DetachCallbacks();
  ResetTimer(true);

  std::future<bool> task;
  {
    std::lock_guard<std::mutex> lock(RestoreMutex());
    task = std::move(reconnectFuture_);
  }
  if (task.valid()) {
    try {
      task.get();
    } catch (const std::exception&) {
      // The task failed; there is nothing left to undo.
    }
  }
  RemoveTimerQuietly();  // one the task may have armed before it saw closing_

  {
    std::unique_lock<std::mutex> lock(gate_->mutex);
    gate_->idle.wait(lock, [this] { return gate_->inFlight == 0; });
  }

  {
    std::lock_guard<std::mutex> lock(poolMutex_);
    DiscardPool();
    {
      std::lock_guard<std::mutex> intakeLock(intakeMutex_);
      for (CommandData& command : intake_) {  // only if a command thread died before taking its command
        if (command.parameters.params != nullptr) g_variant_unref(command.parameters.params);
        Tally(&Counts::discarded);
      }
      intake_.clear();
    }
    pendingDeliveries_.clear();
    if (lastReply_ != nullptr) g_variant_unref(std::exchange(lastReply_, nullptr));
  }
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
  GVariant** destination = parameters.result;
  if (destination == nullptr) {
    if (client->lastReply_ != nullptr) g_variant_unref(std::exchange(client->lastReply_, nullptr));
    destination = &client->lastReply_;
  }
  // The base class's synchronous call: the virtual slot would lead back here.
  return client->DBusClient::Call(parameters.method, parameters.params, destination, parameters.timeout);
}

bool DBusClientAsync::ProfileReadingCommand::operator()(const CommandData::Parameters& parameters) const {
  if (!ForwardingCommand{client}(parameters)) return false;
  if (parameters.result != nullptr) return true;

  DBusClientAsync& self = *client;
  self.profiles_ = common::VariantToProfiles(self.lastReply_);
  ZV_LOGI_THD("Read profiles size[%zu]", self.profiles_.size());
  // Queued, not dispatched: the handlers run once poolMutex_ is released.
  for (const common::SessionProfile& profile : self.profiles_) {
    GVariant* payload = common::SerializeIntoGVariant(profile.name, profile.id);
    if (payload == nullptr) {
      ZV_LOGE("Failed to allocate tuple");
      continue;
    }
    self.pendingDeliveries_.push_back(common::SinkVariant(payload));
  }
  return true;
}

bool DBusClientAsync::Call(const std::string& method, GVariant* params, GVariant** result, int timeout) {
  const auto entry = functions_.find(method);
  if (entry == functions_.end()) {
    ZV_LOGE("DBusClientAsync::Call cann't find method [%s]", method.c_str());
    if (params != nullptr) g_variant_unref(params);
    return false;
  }

  // The caller's `result` is never written: the command runs later, with the
  // reply going to lastReply_.
  (void)result;
  CommandData command{{method, params, nullptr, timeout}, entry->second};
  std::shared_ptr<CommandGate> gate = gate_;
  {
    std::lock_guard<std::mutex> lock(gate->mutex);
    ++gate->inFlight;
  }
  Tally(&Counts::accepted);
  try {
    // Each command gets a thread of its own, but a thread runs the oldest
    // command not yet taken rather than "its" command, so that commands enter
    // the layer in the order they were accepted, not in the order in which
    // their threads happen to get the pool lock.
    std::lock_guard<std::mutex> intakeLock(intakeMutex_);
    intake_.push_back(std::move(command));
    try {
      std::thread([this, gate] {
        ExecuteNext();
        // The last touch of this object's memory is through `gate`, which the
        // thread co-owns: the destructor may run as soon as the count drops.
        std::lock_guard<std::mutex> lock(gate->mutex);
        --gate->inFlight;
        gate->idle.notify_all();
      }).detach();
    } catch (...) {
      intake_.pop_back();
      throw;
    }
  } catch (...) {
    {
      std::lock_guard<std::mutex> lock(gate->mutex);
      --gate->inFlight;
      gate->idle.notify_all();
    }
    Tally(&Counts::accepted, -1);
    if (params != nullptr) g_variant_unref(params);
    throw;
  }
  return true;
}

int DBusClientAsync::ExecuteCommand(const CommandData& command) { return ExecuteCommand(&command); }

int DBusClientAsync::ExecuteNext() { return ExecuteCommand(nullptr); }

// Named like the public overload: its log lines carry the function name.
int DBusClientAsync::ExecuteCommand(const CommandData* given) {
  CommandData next;
  const CommandData* command = given;
  ParamsRef params(nullptr);
  bool accounted = false;  // whether the command already counts as ran, dropped, pooled or discarded
  try {
    std::unique_lock<std::mutex> lock(poolMutex_);
    if (command == nullptr) {  // taken under poolMutex_, so the intake order is the execution order
      std::lock_guard<std::mutex> intakeLock(intakeMutex_);
      next = std::move(intake_.front());
      intake_.pop_front();
      command = &next;
    }
    params.params = command->parameters.params;
    const std::string& method = command->parameters.method;
    if (closing_) {
      Tally(&Counts::discarded);
      accounted = true;
      return 0;
    }
    ZV_LOGI_THD("ExecuteCommand[%s] STARTED IsReady[%d] IsConnected[%d] cmdPool[%zu]", method.c_str(),
                ready_ ? 1 : 0, IsConnected() ? 1 : 0, commandPool_.size());

    if (ready_ && commandPool_.empty()) {
      if (activeCommand_ == method) {
        ZV_LOGI_MAIN("Duplicate command in active %s", method.c_str());
        Tally(&Counts::droppedDuplicate);
        accounted = true;
        return 0;
      }
      activeCommand_ = method;
      ZV_LOGI("Ipc is ready - make call");
      Tally(&Counts::ranAtOnce);
      accounted = true;
      if (!RunFunction(*command)) ZV_LOGI("Command wasnot derived. It can be ok if timeout");
      params.reset();
    } else {
      activeCommand_.clear();
      const bool held = std::any_of(commandPool_.begin(), commandPool_.end(),
                                    [&](const CommandData& pooled) { return pooled.parameters.method == method; });
      if (held) {
        ZV_LOGI_MAIN("Duplicate command in pool %s", method.c_str());
        Tally(&Counts::droppedDuplicate);
        accounted = true;
        return 0;
      }
      if (draining_) {  // teardown would discard it anyway
        Tally(&Counts::discarded);
        accounted = true;
        return 0;
      }
      if (!ready_ && !IsConnected()) {
        ZV_LOGI("Ipc isn't connected - make restore");
        RestoreConnection();
      }
      CommandData pooled = *command;
      pooled.parameters.result = nullptr;
      if (pooled.parameters.params != nullptr && g_variant_is_floating(pooled.parameters.params)) {
        g_variant_ref_sink(pooled.parameters.params);
      }
      commandPool_.push_back(std::move(pooled));
      params.release();  // the pool holds the reference now
      Tally(&Counts::pooled, 1, commandPool_.size());
      accounted = true;
      ZV_LOGI_THD("Ipc isn't ready, move command[%s] into pool[%zu], isConnectionLost[%d]", method.c_str(),
                  commandPool_.size(), ready_ ? 1 : 0);
    }

    std::uint64_t ticket = 0;
    Batch batch = TakeDeliveries(ticket);
    lock.unlock();
    Deliver(std::move(batch), ticket);
  } catch (const std::exception&) {
    if (!accounted) Tally(&Counts::failed);
    ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence");
    return -1;
  }
  ZV_LOGI_THD("ExecuteCommand[%s] FINISHED", command->parameters.method.c_str());
  return 0;
}

bool DBusClientAsync::RunFunction(const CommandData& command) {
  try {
    return command.function(command.parameters);
  } catch (...) {
    pendingDeliveries_.clear();  // a half-delivered reply is not delivered at all
    throw;
  }
}

DBusClientAsync::Batch DBusClientAsync::TakeDeliveries(std::uint64_t& ticket) {
  Batch batch;
  if (!pendingDeliveries_.empty()) {
    batch.swap(pendingDeliveries_);
    ticket = nextDeliveryTicket_++;
  }
  return batch;
}

void DBusClientAsync::Deliver(Batch batch, std::uint64_t ticket) {
  if (batch.empty()) return;
  std::unique_lock<std::mutex> lock(deliveryMutex_);
  // Batches leave in the order their replies were read under poolMutex_.
  deliveryTurn_.wait(lock, [&] { return servingDeliveryTicket_ == ticket; });
  lock.unlock();
  for (const common::GVariantPtr& payload : batch) {
    if (closing_) break;
    try {
      HandleSignal(kSignalOnFound, payload.get());
    } catch (...) {
      ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence");
    }
  }
  lock.lock();
  ++servingDeliveryTicket_;
  deliveryTurn_.notify_all();
}

void DBusClientAsync::IpcReadyHandler::operator()(bool isReady) const {
  DBusClientAsync& self = *client;
  std::unique_lock<std::mutex> lock(self.poolMutex_);
  ZV_LOGI_THD("IpcReady [%d] command pool size [%zu]", isReady ? 1 : 0, self.commandPool_.size());
  self.ResetTimer(true);
  self.ready_ = isReady;

  if (!isReady) {
    ZV_LOGI("Connection lost. Disconnect from the server and stop watcher");
    self.StopBusWatcher();
    self.DBusClient::Disconnect();
    if (self.commandPool_.empty()) return;
    ZV_LOGI("Connection is lost, but there are unhandled commands. RestoreConnection");
    self.RestoreConnection();
    return;
  }

  while (!self.commandPool_.empty() && !self.closing_) {
    const CommandData command = self.commandPool_.front();
    ZV_LOGI_THD("IpcReady command[%s] STARTED", command.parameters.method.c_str());
    self.Tally(&Counts::replayed, 1, self.commandPool_.size() - 1);
    try {
      self.RunFunction(command);
    } catch (const std::exception&) {
      ZV_LOGI_THD("Exception was raised from connectionManager. Please check sequence");
    }
    if (command.parameters.params != nullptr) g_variant_unref(command.parameters.params);
    self.commandPool_.pop_front();
    ZV_LOGI_THD("IpcReady command[%s] FINISHED", command.parameters.method.c_str());
  }

  std::uint64_t ticket = 0;
  Batch batch = self.TakeDeliveries(ticket);
  lock.unlock();
  self.Deliver(std::move(batch), ticket);
}

void DBusClientAsync::DiscardPool() {
  for (CommandData& command : commandPool_) {
    if (command.parameters.params != nullptr) g_variant_unref(command.parameters.params);
  }
  Tally(&Counts::discarded, static_cast<int>(commandPool_.size()), 0);
  commandPool_.clear();
}

bool DBusClientAsync::Connect() {
  ZV_LOGI("ConnectAsync");
  if (closing_) return true;
  guint id = 0;
  {
    std::lock_guard<std::mutex> lock(timerMutex_);
    if (connectTimerId_ != 0) return true;
    // The source is kept with a reference of our own, so removing it later is
    // safe even if it has just removed itself on the main-loop thread.
    GSource* source = g_timeout_source_new(kConnectRetryIntervalMs);
    g_source_set_callback(source, &DBusClientAsync::OnConnectTimer, NewCallbackHandle(),
                          &DBusClient::FreeCallbackHandle);
    id = g_source_attach(source, nullptr);
    connectTimerId_ = id;
    connectTimerSource_ = source;
  }
  ZV_LOGI("connect id[%d]", static_cast<int>(id));
  return true;
}

gboolean DBusClientAsync::OnConnectTimer(gpointer handle) {
  detail::CallbackScope scope(handle);
  auto* self = static_cast<DBusClientAsync*>(scope.client());
  if (self == nullptr) return G_SOURCE_REMOVE;
  ZV_LOGI_THD("Try to connect to DBus server");
  if (self->DBusClient::Connect()) {
    self->ResetTimer(false);
    return G_SOURCE_REMOVE;
  }
  return G_SOURCE_CONTINUE;
}

void DBusClientAsync::ResetTimer(bool remove) {
  ZV_LOGI("Reset timer (remove: %d)", remove ? 1 : 0);
  GSource* source = nullptr;
  {
    std::lock_guard<std::mutex> lock(timerMutex_);
    if (remove && connectTimerId_ == 0) return;
    connectTimerId_ = 0;
    source = std::exchange(connectTimerSource_, nullptr);
  }
  if (source == nullptr) return;
  if (remove) g_source_destroy(source);  // no-op if it already went
  g_source_unref(source);
}

void DBusClientAsync::RemoveTimerQuietly() {
  GSource* source = nullptr;
  {
    std::lock_guard<std::mutex> lock(timerMutex_);
    connectTimerId_ = 0;
    source = std::exchange(connectTimerSource_, nullptr);
  }
  if (source == nullptr) return;
  g_source_destroy(source);
  g_source_unref(source);
}

bool DBusClientAsync::Disconnect() {
  if (!ready_) {
    ZV_LOGI("Already disconnected");
    return true;
  }
  ZV_LOGI("Async Disconnect. Reset `ready` without the real disconnecting");
  std::lock_guard<std::mutex> lock(poolMutex_);
  DiscardPool();
  ready_ = false;
  return true;
}

void DBusClientAsync::Reconnect() {
  ZV_LOGI("Reconnect start");
  std::lock_guard<std::mutex> lock(poolMutex_);
  DBusClient::Disconnect();
  Connect();
  reconnectArmed_ = true;
  ZV_LOGI("Reconnect end");
}

void DBusClientAsync::RestoreConnection() {
  ZV_LOGI("RestoreConnection start");
  {
    std::lock_guard<std::mutex> lock(RestoreMutex());
    if (closing_) return;  // teardown has already waited for the last task
    if (reconnectFuture_.valid() &&
        reconnectFuture_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      ZV_LOGI("Reconnecting is still running. Return");
      // The running task may be past its Reconnect, and the retry timer it
      // armed may just have been removed by a lost-connection report; with
      // nothing left to retry, held commands would wait for a command of
      // another name. Arm it again, as the task did (a no-op if armed).
      if (reconnectArmed_) Connect();
      return;
    }
    reconnectArmed_ = false;
    reconnectFuture_ = std::async(std::launch::async, [this] {
      Reconnect();
      return true;
    });
  }
  ZV_LOGI("RestoreConnection end");
}

void DBusClientAsync::Tally(std::uint64_t Counts::*field, int delta, std::size_t held) {
  std::lock_guard<std::mutex> lock(countsMutex_);
  counts_.*field += static_cast<std::uint64_t>(static_cast<std::int64_t>(delta));
  if (held != kHeldUnchanged) counts_.held = held;
}

DBusClientAsync::Counts DBusClientAsync::GetCounts() {
  Counts counts;
  {
    std::lock_guard<std::mutex> lock(countsMutex_);
    counts = counts_;
  }
  std::lock_guard<std::mutex> lock(gate_->mutex);
  counts.inFlight = gate_->inFlight;
  return counts;
}

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
