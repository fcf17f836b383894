#include <zorvel/Launcher.h>

#include <atomic>
#include <exception>
#include <memory>
#include <utility>

#include <zorvel/LauncherTesting.h>
#include <zorvel/SharedClient.h>
#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/ClientInternals.h>
#include <zorvel/dbus/client/DBusClientAsync.h>
#include <zorvel/dbus/client/OrderedDeliveries.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/platform/Log.h>

namespace zv_client {
namespace zorvel {

using dbus::client::DBusClient;
using dbus::client::DBusClientAsync;
using dbus::client::detail::ClientInternals;
using detail::ClientLease;
using CommandEnd = DBusClientAsync::CommandEnd;

namespace {

constexpr char kLogTag[] = "zorvel.zorvel";
constexpr char kNotInitedMessage[] = "Launcher is not inited. Please check your call sequence";

template <typename Signature>
using SharedCallback = std::shared_ptr<const std::function<Signature>>;

}  // namespace

// Guards the callable slots (the callback members) of every Launcher. A
// handler copies the pointer in a slot under it and calls the callable
// without it: the callable the application installed is the one that runs (a
// functor keeps its state), and a setter may replace a callable that is
// running, even from inside that callable; the replaced one is destroyed when
// its last run ends. Constant initialised, so usable at any time.
common::Mutex detail::callableSlotsMutex;

namespace {

// What a setter puts in a slot: the callable itself, shared, or none. The
// setter swaps it in under callableSlotsMutex and lets go of the callable
// it replaced only after the lock.
template <typename Signature>
SharedCallback<Signature> Share(std::function<Signature> callback) {
  if (!callback) return nullptr;
  return std::make_shared<const std::function<Signature>>(std::move(callback));
}

}  // namespace

// The outcome callback of one Launcher, shared with the commands it issued
// that are still in flight. The destructor detaches it, so that an outcome
// reported late (by a client deleted on another thread) reaches nobody.
struct detail::OutcomeRoute {
  SharedCallback<void(const CommandOutcome&)> callback ZV_GUARDED_BY(callableSlotsMutex);
  // Kept here rather than in the Launcher, whose size is part of the ABI.
  SharedCallback<void(const LinkStatus&)> linkCallback ZV_GUARDED_BY(callableSlotsMutex);

  void DeliverLink(const LinkStatus& status) ZV_EXCLUDES(callableSlotsMutex) {
    RunExclusive(&OutcomeRoute::linkCallback, status);
  }
  void Deliver(const CommandOutcome& outcome) ZV_EXCLUDES(callableSlotsMutex) {
    RunExclusive(&OutcomeRoute::callback, outcome);
  }
  void Detach() ZV_EXCLUDES(callableSlotsMutex) {
    dbus::client::detail::CallbackExclusion exclusive(ClientInternals::ApplicationCallbackMutex());
    SharedCallback<void(const CommandOutcome&)> replacedOutcome;
    SharedCallback<void(const LinkStatus&)> replacedLink;
    {
      common::MutexLock lock(callableSlotsMutex);
      callback.swap(replacedOutcome);
      linkCallback.swap(replacedLink);
    }
  }

 private:
  // Runs the callable in `slot` (one of the members above) under the lock
  // that keeps callbacks from overlapping; it is copied out under the slots'
  // lock, so a setter may replace it meanwhile.
  template <typename Argument>
  void RunExclusive(SharedCallback<void(const Argument&)> OutcomeRoute::*slot, const Argument& argument)
      ZV_EXCLUDES(callableSlotsMutex) {
    dbus::client::detail::CallbackExclusion exclusive(ClientInternals::ApplicationCallbackMutex());
    SharedCallback<void(const Argument&)> current;
    {
      common::MutexLock lock(callableSlotsMutex);
      current = this->*slot;
    }
    if (current) (*current)(argument);
  }
};

namespace {

std::atomic<CommandId> nextCommandId{1};

// Fills the error fields of `outcome` from a failed call's error; none means
// that the client was not ready and nothing was sent.
void DescribeFailure(const GError* error, CommandOutcome& outcome) {
  if (error == nullptr) {
    outcome.status = CommandStatus::kNotStarted;
    outcome.errorName = kErrorNotReady;
    outcome.errorMessage = "the daemon is not ready";
    return;
  }
  outcome.status = CommandStatus::kFailed;
  outcome.errorMessage = error->message;
  if (g_dbus_error_is_remote_error(error)) {
    outcome.errorName = common::GCharPtr(g_dbus_error_get_remote_error(error)).get();
    const common::GErrorPtr stripped(g_error_copy(error));
    g_dbus_error_strip_remote_error(stripped.get());
    outcome.errorMessage = stripped->message;
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    outcome.status = CommandStatus::kTimedOut;
    outcome.errorName = "org.freedesktop.DBus.Error.NoReply";
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    outcome.errorName = kErrorCancelled;
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    outcome.errorName = "org.freedesktop.DBus.Error.Disconnected";
  } else {
    outcome.errorName = common::GCharPtr(g_dbus_error_encode_gerror(error)).get();
  }
}

// The daemon's integer answer of `reply`, or kFailed when it is no "(i)".
void DescribeAnswer(GVariant* reply, CommandOutcome& outcome) {
  if (!g_variant_is_of_type(reply, G_VARIANT_TYPE("(i)"))) {
    outcome.status = CommandStatus::kFailed;
    outcome.errorName = kErrorInvalidReply;
    outcome.errorMessage = std::string("the daemon answered ") + g_variant_get_type_string(reply) + ", not (i)";
    return;
  }
  outcome.status = CommandStatus::kAnswered;
  outcome.answer = common::VariantToInteger(reply);
}

// One command of a Launcher, from the moment it is issued: it gets its id at
// once and ends exactly once with an outcome, reported here or, once the
// command layer took it, by that layer.
class CommandRun {
 public:
  CommandRun(std::shared_ptr<detail::OutcomeRoute> route, const std::string& method, std::optional<int> argument,
             CommandId* issued)
      : route_(std::move(route)) {
    outcome_.id = nextCommandId.fetch_add(1, std::memory_order_relaxed);
    outcome_.method = method;
    outcome_.argument = argument;
    if (issued != nullptr) *issued = outcome_.id;
  }
  CommandRun(const CommandRun&) = delete;
  CommandRun& operator=(const CommandRun&) = delete;
  // A command left without an outcome (an exception got in the way) is
  // reported as not started.
  ~CommandRun() {
    if (!ended_) NotStarted(kErrorInternal, "the command could not be issued");
  }

  // The shared client for this command, or none: then the operation (whose
  // function and line its log line carries) reports it as not started. Stop,
  // ReadProfiles and DeleteStoredProfile also need their own Launcher inited.
  ClientLease Lease(const char* operation, int line, bool needsInit, bool inited) {
    ClientLease client = needsInit && !inited ? ClientLease() : detail::LeaseClient();
    if (!client) {
      ZV_LOG_SITE_(operation, line, kSystem, kInfo, "%s", kNotInitedMessage);
      if (needsInit && !inited) {
        NotStarted(kErrorNotInited, "Init was not called on this Launcher");
      } else {
        NotStarted(kErrorNoClient, "no client: Init was not called, or a Launcher was destroyed");
      }
    }
    return client;
  }

  void NotStarted(const char* name, const std::string& message) {
    outcome_.status = CommandStatus::kNotStarted;
    outcome_.errorName = name;
    outcome_.errorMessage = message;
    Report();
  }

  // Hands the command to the command layer, which reports its outcome; true
  // when the layer took it. Takes over `params` (floating or owned).
  bool Queue(DBusClientAsync& client, GVariant* params) {
    auto observer = [route = route_, outcome = outcome_](const CommandEnd& end) {
      CommandOutcome told = outcome;
      Describe(end, told);
      route->Deliver(told);
    };
    const bool taken = client.Submit(outcome_.method, params, -1, std::move(observer));
    ended_ = taken;  // a refused method, or a throw, is reported by the destructor
    return taken;
  }

  // The base class's own synchronous call, reported here; the reply, when
  // one came, is the caller's.
  bool CallDirect(DBusClient& client, int timeout, common::GVariantPtr& reply) {
    common::GErrorPtr error;
    GVariant* raw = nullptr;
    const bool called = ClientInternals::Call(client, outcome_.method, nullptr, &raw, timeout, error);
    reply.reset(raw);
    if (called && reply) {
      DescribeAnswer(reply.get(), outcome_);
    } else {
      DescribeFailure(error.get(), outcome_);
    }
    Report();
    return called;
  }

 private:
  static void Describe(const CommandEnd& end, CommandOutcome& outcome) {
    outcome.wasHeld = end.wasHeld;
    switch (end.kind) {
      case CommandEnd::Kind::kHeld:
        outcome.status = CommandStatus::kHeld;
        outcome.final = false;
        return;
      case CommandEnd::Kind::kDroppedAsRepeat:
        outcome.status = CommandStatus::kDroppedAsRepeat;
        return;
      case CommandEnd::Kind::kDiscarded:
        outcome.status = CommandStatus::kDiscarded;
        return;
      case CommandEnd::Kind::kFailedToRun:
        outcome.status = CommandStatus::kNotStarted;
        outcome.errorName = kErrorInternal;
        outcome.errorMessage = end.failure;
        return;
      case CommandEnd::Kind::kRan:
        break;
    }
    if (!end.failure.empty()) {  // the reply did not decode
      outcome.status = CommandStatus::kFailed;
      outcome.errorName = kErrorInvalidReply;
      outcome.errorMessage = end.failure;
    } else if (!end.reply) {
      DescribeFailure(end.error.get(), outcome);
    } else if (outcome.method == dbus::client::kMethodReadProfiles) {
      // The decoder reads a reply of another shape as an empty list.
      if (!g_variant_is_of_type(end.reply.get(), G_VARIANT_TYPE("(r)"))) {
        outcome.status = CommandStatus::kFailed;
        outcome.errorName = kErrorInvalidReply;
        outcome.errorMessage =
            std::string("the daemon answered ") + g_variant_get_type_string(end.reply.get()) + ", not a profile list";
        return;
      }
      outcome.status = CommandStatus::kAnswered;
      outcome.profiles = end.profiles;
    } else {
      DescribeAnswer(end.reply.get(), outcome);
    }
  }

  void Report() {
    ended_ = true;
    route_->Deliver(outcome_);
  }

  std::shared_ptr<detail::OutcomeRoute> route_;
  CommandOutcome outcome_;
  bool ended_ = false;
};

}  // namespace

Launcher::Launcher() noexcept : outcomes_(std::make_shared<detail::OutcomeRoute>()) {}

Launcher::~Launcher() noexcept {
  ZV_LOGI("~Launcher");
  detail::InstallClient(nullptr);
  outcomes_->Detach();
}

int Launcher::Init() noexcept {
  if (inited_) {
    ZV_LOGI("Launcher is already inited. Ignore it from now on");
    return 0;
  }
  try {
    auto created = std::make_unique<DBusClientAsync>();
    created->SetLinkStateObserver([route = outcomes_](const LinkStatus& status) { route->DeliverLink(status); });
    detail::InstallClient(std::move(created));
    const ClientLease client = detail::LeaseClient();
    if (!client || !client->Connect()) {
      ZV_LOGI("Unable to connect to DBus server");
      return -1;
    }
    SetSignalCallbacks();
    ZV_LOGI("Initialize FINISHED");
    inited_ = true;
    return 0;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

void Launcher::Deinit() noexcept { ZV_LOGI("Deinit. we're lazy here, so we do nothing"); }

// The four commands that go through the command layer return before the
// daemon has seen them, so their return value never carries its answer:
// that comes with the command's outcome.

int Launcher::Connect(int id) noexcept { return Connect(id, nullptr); }

int Launcher::Connect(int id, CommandId* issued) noexcept {
  ZV_LOGI("Connect STARTED");
  CommandRun run(outcomes_, dbus::client::kMethodConnect, id, issued);
  if (instanceConnected_) {
    run.NotStarted(kErrorConnectPending, "a connection was requested already");
    return -1;
  }
  const ClientLease client = run.Lease(__func__, __LINE__, false, inited_);
  if (!client) return -1;
  try {
    if (!run.Queue(*client.get(), common::IntegerToVariant(id))) {
      ZV_LOGI("Connect failed with code [%d]", 0);
      return -1;
    }
    instanceConnected_ = true;
    ZV_LOGI("Connect FINISHED");
    return 0;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

int Launcher::StartBroadcast(bool isOnlineCheck) noexcept { return StartBroadcast(isOnlineCheck, nullptr); }

int Launcher::StartBroadcast(bool isOnlineCheck, CommandId* issued) noexcept {
  ZV_LOGI("StartBroadcast STARTED isOnlineCheck[%d]", isOnlineCheck ? 1 : 0);
  instanceConnected_ = false;
  CommandRun run(outcomes_, dbus::client::kMethodStartBroadcast, isOnlineCheck ? 1 : 0, issued);
  const ClientLease client = run.Lease(__func__, __LINE__, false, inited_);
  if (!client) return -1;
  try {
    if (!run.Queue(*client.get(), common::IntegerToVariant(isOnlineCheck ? 1 : 0))) {
      ZV_LOGI("StartBroadcast failed with code [%d]", 0);
    }
  } catch (const std::exception&) {
    ZV_LOGI("Exception was raised from connectionManager. Please check sequence");
  }
  ZV_LOGI("StartBroadcast FINISHED");
  return 0;
}

int Launcher::StopBroadcast() noexcept { return StopBroadcast(nullptr); }

int Launcher::StopBroadcast(CommandId* issued) noexcept {
  ZV_LOGI("StopBroadcast STARTED");
  instanceConnected_ = false;
  CommandRun run(outcomes_, dbus::client::kMethodStopBroadcast, std::nullopt, issued);
  const ClientLease client = run.Lease(__func__, __LINE__, false, inited_);
  if (!client) return -1;
  int result = -1;
  try {
    // The base class's own call: not queued, waits up to 500 ms.
    common::GVariantPtr reply;
    if (!run.CallDirect(*client.get(), 500, reply)) {
      ZV_LOGI("StopBroadcast failed with code [%d]", -1);
    } else if (reply) {
      result = common::VariantToInteger(reply.get());
      ZV_LOGI("##### Extracted int: [%d] #########", result);
    }
  } catch (const std::exception&) {
    ZV_LOGI("Exception was raised from connectionManager. Please check sequence");
  }
  try {
    client->Disconnect();
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
  }
  ZV_LOGI("StopBroadcast FINISHED");
  return result;
}

int Launcher::Stop() noexcept { return Stop(nullptr); }

int Launcher::Stop(CommandId* issued) noexcept {
  ZV_LOGI("Stop STARTED");
  CommandRun run(outcomes_, dbus::client::kMethodDeinit, std::nullopt, issued);
  const ClientLease client = run.Lease(__func__, __LINE__, true, inited_);
  if (!client) return -1;
  try {
    common::GVariantPtr reply;
    if (!run.CallDirect(*client.get(), -1, reply)) {
      ZV_LOGI("Deinit failed with code [%d]", 0);
      return -1;
    }
    if (reply) ZV_LOGI("##### Extracted int: [%d] #########", common::VariantToInteger(reply.get()));
    ZV_LOGI("Stop FINISHED");
    return 0;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

std::vector<common::SessionProfile> Launcher::ReadProfiles() noexcept { return ReadProfiles(nullptr); }

std::vector<common::SessionProfile> Launcher::ReadProfiles(CommandId* issued) noexcept {
  ZV_LOGI("ReadProfiles STARTED");
  CommandRun run(outcomes_, dbus::client::kMethodReadProfiles, std::nullopt, issued);
  const ClientLease client = run.Lease(__func__, __LINE__, true, inited_);
  if (!client) return {};
  try {
    if (!run.Queue(*client.get(), nullptr)) {
      ZV_LOGI("Read profiles failed");
      return {};
    }
    ZV_LOGI("ReadProfiles FINISHED");
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
  }
  return {};
}

int Launcher::DeleteStoredProfile(int id) noexcept { return DeleteStoredProfile(id, nullptr); }

int Launcher::DeleteStoredProfile(int id, CommandId* issued) noexcept {
  CommandRun run(outcomes_, dbus::client::kMethodDeleteStoredProfile, id, issued);
  const ClientLease client = run.Lease(__func__, __LINE__, true, inited_);
  if (!client) return -1;
  try {
    run.Queue(*client.get(), common::IntegerToVariant(id));
    return 0;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

void Launcher::SetOnInstanceFoundCallback(std::function<void(int, const std::string&)> callback) noexcept {
  auto replacement = Share(std::move(callback));
  common::MutexLock lock(detail::callableSlotsMutex);
  onInstanceFoundCallback_.swap(replacement);
}

void Launcher::SetOnCancelConnectionCallback(std::function<void(int)> callback) noexcept {
  auto replacement = Share(std::move(callback));
  common::MutexLock lock(detail::callableSlotsMutex);
  onCancelConnectionCallback_.swap(replacement);
}

void Launcher::SetOnConnectionAvailable(std::function<void(int, bool)> callback) noexcept {
  auto replacement = Share(std::move(callback));
  common::MutexLock lock(detail::callableSlotsMutex);
  onConnectionAvailableCallback_.swap(replacement);
}

void Launcher::SetOnCommandOutcome(std::function<void(const CommandOutcome&)> callback) noexcept {
  auto replacement = Share(std::move(callback));
  common::MutexLock lock(detail::callableSlotsMutex);
  outcomes_->callback.swap(replacement);
}

void Launcher::SetOnLinkState(std::function<void(const LinkStatus&)> callback) noexcept {
  auto replacement = Share(std::move(callback));
  common::MutexLock lock(detail::callableSlotsMutex);
  outcomes_->linkCallback.swap(replacement);
}

// The handlers of the daemon's signals that SetSignalCallbacks registers with
// the client, each a functor that runs the Launcher's callable for it (copied
// from its slot under callableSlotsMutex, called without it). The client runs
// them under the application callback mutex.
struct detail::LauncherSignals {
  // The callable in one of the Launcher's slots, copied under the slots' lock.
  template <typename Signature>
  static SharedCallback<Signature> Slot(const Launcher* launcher, SharedCallback<Signature> Launcher::*slot)
      ZV_EXCLUDES(callableSlotsMutex) {
    common::MutexLock lock(callableSlotsMutex);
    return launcher->*slot;
  }

  struct InstanceFound {
    Launcher* launcher;
    void operator()(GVariant* payload) const {
      ZV_LOGI("OnFoundCallback emitted");
      if (payload == nullptr) {
        ZV_LOGE("Null pointer received");
        return;
      }
      std::string name;
      int id = 0;
      if (!common::DeserializeDataFromGVariant(payload, name, id)) {
        ZV_LOGE("Failed to deserialize data");
        return;
      }
      const auto callback = Slot(launcher, &Launcher::onInstanceFoundCallback_);
      if (!callback) return;
      ZV_LOGI_THD("Execute Instance Found callback: id[%d], name[%s]", id, name.c_str());
      (*callback)(id, name);
    }
  };

  struct CancelConnection {
    Launcher* launcher;
    void operator()(GVariant* payload) const {
      common::SessionProfile profile;
      int status = -1;
      if (common::VariantToProfileWithStatus(payload, profile, status)) {
        ZV_LOGI("onCancelConnection emitted: profile[%s][%d], status[%d]", profile.name.c_str(), profile.id, status);
        const auto callback = Slot(launcher, &Launcher::onCancelConnectionCallback_);
        if (callback) (*callback)(status);
      }
      ZV_LOGI("onCancelConnection handled");
    }
  };

  // Needs no Launcher: it acts on the shared client, whichever Launcher installed it.
  struct DbusClosing {
    void operator()(GVariant* payload) const {
      const int value = common::VariantToInteger(payload);
      ZV_LOGI("onDbusClosing emitted [%d]", value);
      if (const ClientLease current = LeaseClient()) current->Disconnect();
      ZV_LOGI("onDbusClosing handled");
    }
  };

  struct ConnectionAvailable {
    Launcher* launcher;
    void operator()(GVariant* payload) const {
      ZV_LOGI("onConnectionAvailable emitted");
      if (payload == nullptr) {
        ZV_LOGE("Null pointer received");
        return;
      }
      guint16 id = 0;
      guint16 state = 0;
      // A payload of another type leaves both numbers at 0.
      if (g_variant_is_of_type(payload, G_VARIANT_TYPE("(qq)"))) {
        common::GVariantPtr first(g_variant_get_child_value(payload, 0));
        common::GVariantPtr second(g_variant_get_child_value(payload, 1));
        id = g_variant_get_uint16(first.get());
        state = g_variant_get_uint16(second.get());
      }
      const auto callback = Slot(launcher, &Launcher::onConnectionAvailableCallback_);
      if (!callback) return;
      ZV_LOGI("Execute Instance ConnectionAvailable callback: id[%d] state[%d]", id, state);
      (*callback)(static_cast<int>(id), state != 0);
    }
  };
};

void Launcher::SetSignalCallbacks() {
  ZV_LOGI("Setting signal callbacks ... ");
  const ClientLease client = detail::LeaseClient();
  if (!client) return;

  client->SetSignalCallback(dbus::client::kSignalOnFound, detail::LauncherSignals::InstanceFound{this});
  client->SetSignalCallback(dbus::client::kSignalOnCancel, detail::LauncherSignals::CancelConnection{this});
  client->SetSignalCallback(dbus::client::kSignalOnDbusClosing, detail::LauncherSignals::DbusClosing{});
  client->SetSignalCallback(dbus::client::kSignalOnConnectionAvailable,
                            detail::LauncherSignals::ConnectionAvailable{this});
}

namespace testing {

dbus::client::DBusClient* CurrentClient() { return detail::LeaseClient().get(); }

std::string CurrentClientBusName() {
  const detail::ClientLease client = detail::LeaseClient();
  return client ? ClientInternals::UniqueName(*client.get()) : std::string();
}

}  // namespace testing
}  // namespace zorvel
}  // namespace zv_client
