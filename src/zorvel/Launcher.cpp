#include <zorvel/Launcher.h>

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include <common/GLibPtr.h>
#include <dbus/client/ClientInternals.h>
#include <dbus/client/DBusClientAsync.h>
#include <dbus/client/ServiceContract.h>
#include <platform/Log.h>
#include <zorvel/LauncherTesting.h>
#include <zorvel/SharedClient.h>

namespace zv_client {
namespace zorvel {
namespace {

using dbus::client::DBusClient;
using dbus::client::DBusClientAsync;
using detail::ClientLease;

constexpr char kLogTag[] = "zorvel.zorvel";

// Guards the callback members of every Launcher. A handler copies the
// pointer to a callback under it and calls the callback without it: the
// callable the application installed is the one that runs (a functor keeps
// its state), and a setter may replace a callback that is running, even from
// inside that callback; the replaced one is destroyed when its last run ends.
std::mutex callbackMutex;

template <typename Signature>
using SharedCallback = std::shared_ptr<const std::function<Signature>>;

template <typename Signature>
SharedCallback<Signature> Current(const SharedCallback<Signature>& member) {
  std::lock_guard<std::mutex> lock(callbackMutex);
  return member;
}

template <typename Signature>
void Replace(SharedCallback<Signature>& member, std::function<Signature> callback) {
  SharedCallback<Signature> replacement;
  if (callback) replacement = std::make_shared<const std::function<Signature>>(std::move(callback));
  std::lock_guard<std::mutex> lock(callbackMutex);
  member.swap(replacement);
}

}  // namespace

Launcher::Launcher() noexcept = default;

Launcher::~Launcher() noexcept {
  ZV_LOGI("~Launcher");
  detail::InstallClient(nullptr);
}

int Launcher::Init() noexcept {
  if (inited_) {
    ZV_LOGI("Launcher is already inited. Ignore it from now on");
    return 0;
  }
  try {
    detail::InstallClient(std::make_unique<DBusClientAsync>());
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

int Launcher::Connect(int id) noexcept {
  ZV_LOGI("Connect STARTED");
  if (instanceConnected_) return -1;
  const ClientLease client = detail::LeaseClient();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return -1;
  }
  try {
    GVariant* reply = nullptr;
    if (!client->Call(dbus::client::kMethodConnect, common::IntegerToVariant(id), &reply, -1)) {
      ZV_LOGI("Connect failed with code [%d]", 0);
      return -1;
    }
    if (reply == nullptr) {
      instanceConnected_ = true;
      ZV_LOGI("Connect FINISHED");
      return 0;
    }
    common::GVariantPtr owned(reply);
    const int result = common::VariantToInteger(reply);
    ZV_LOGI("##### Extracted int: [%d] #########", result);
    instanceConnected_ = result != -1;
    ZV_LOGI("Connect FINISHED");
    return result;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

int Launcher::StartBroadcast(bool isOnlineCheck) noexcept {
  ZV_LOGI("StartBroadcast STARTED isOnlineCheck[%d]", isOnlineCheck ? 1 : 0);
  instanceConnected_ = false;
  const ClientLease client = detail::LeaseClient();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return -1;
  }
  int result = 0;
  try {
    GVariant* reply = nullptr;
    if (!client->Call(dbus::client::kMethodStartBroadcast, common::IntegerToVariant(isOnlineCheck ? 1 : 0), &reply,
                      -1)) {
      ZV_LOGI("StartBroadcast failed with code [%d]", 0);
    } else if (reply != nullptr) {
      common::GVariantPtr owned(reply);
      result = common::VariantToInteger(reply);
      ZV_LOGI("##### Extracted int: [%d] #########", result);
    }
  } catch (const std::exception&) {
    ZV_LOGI("Exception was raised from connectionManager. Please check sequence");
  }
  ZV_LOGI("StartBroadcast FINISHED");
  return result;
}

int Launcher::StopBroadcast() noexcept {
  ZV_LOGI("StopBroadcast STARTED");
  instanceConnected_ = false;
  const ClientLease client = detail::LeaseClient();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return -1;
  }
  int result = -1;
  try {
    GVariant* reply = nullptr;
    // The base class's own call: not queued, waits up to 500 ms.
    if (!client->DBusClient::Call(dbus::client::kMethodStopBroadcast, nullptr, &reply, 500)) {
      ZV_LOGI("StopBroadcast failed with code [%d]", -1);
    } else if (reply != nullptr) {
      common::GVariantPtr owned(reply);
      result = common::VariantToInteger(reply);
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

int Launcher::Stop() noexcept {
  ZV_LOGI("Stop STARTED");
  const ClientLease client = inited_ ? detail::LeaseClient() : ClientLease();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return -1;
  }
  try {
    GVariant* reply = nullptr;
    if (!client->DBusClient::Call(dbus::client::kMethodDeinit, nullptr, &reply, -1)) {
      ZV_LOGI("Deinit failed with code [%d]", 0);
      return -1;
    }
    if (reply != nullptr) {
      common::GVariantPtr owned(reply);
      ZV_LOGI("##### Extracted int: [%d] #########", common::VariantToInteger(reply));
    }
    ZV_LOGI("Stop FINISHED");
    return 0;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

std::vector<common::SessionProfile> Launcher::ReadProfiles() noexcept {
  ZV_LOGI("ReadProfiles STARTED");
  const ClientLease client = inited_ ? detail::LeaseClient() : ClientLease();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return {};
  }
  try {
    GVariant* reply = nullptr;
    if (!client->Call(dbus::client::kMethodReadProfiles, nullptr, &reply, -1)) {
      ZV_LOGI("Read profiles failed");
      return {};
    }
    if (reply == nullptr) {
      ZV_LOGI("ReadProfiles FINISHED");
      return {};
    }
    common::GVariantPtr owned(reply);
    std::vector<common::SessionProfile> profiles = common::VariantToProfiles(reply);
    ZV_LOGI("Read profiles size[%zu]", profiles.size());
    ZV_LOGI("ReadProfiles FINISHED");
    return profiles;
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return {};
  }
}

int Launcher::DeleteStoredProfile(int id) noexcept {
  const ClientLease client = inited_ ? detail::LeaseClient() : ClientLease();
  if (!client) {
    ZV_LOGI("Launcher is not inited. Please check your call sequence");
    return -1;
  }
  try {
    GVariant* reply = nullptr;
    if (!client->Call(dbus::client::kMethodDeleteStoredProfile, common::IntegerToVariant(id), &reply, -1)) {
      return 0;
    }
    if (reply == nullptr) return 0;
    common::GVariantPtr owned(reply);
    return common::VariantToInteger(reply);
  } catch (const std::exception& exception) {
    ZV_LOGI("Exception is caught: %s", exception.what());
    return -1;
  }
}

void Launcher::SetOnInstanceFoundCallback(std::function<void(int, const std::string&)> callback) noexcept {
  Replace(onInstanceFoundCallback_, std::move(callback));
}

void Launcher::SetOnCancelConnectionCallback(std::function<void(int)> callback) noexcept {
  Replace(onCancelConnectionCallback_, std::move(callback));
}

void Launcher::SetOnConnectionAvailable(std::function<void(int, bool)> callback) noexcept {
  Replace(onConnectionAvailableCallback_, std::move(callback));
}

void Launcher::SetSignalCallbacks() {
  ZV_LOGI("Setting signal callbacks ... ");
  const ClientLease client = detail::LeaseClient();
  if (!client) return;

  client->SetSignalCallback(dbus::client::kSignalOnFound, [this](GVariant* payload) {
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
    const auto callback = Current(onInstanceFoundCallback_);
    if (!callback) return;
    ZV_LOGI_THD("Execute Instance Found callback: id[%d], name[%s]", id, name.c_str());
    (*callback)(id, name);
  });

  client->SetSignalCallback(dbus::client::kSignalOnCancel, [this](GVariant* payload) {
    common::SessionProfile profile;
    int status = -1;
    if (common::VariantToProfileWithStatus(payload, profile, status)) {
      ZV_LOGI("onCancelConnection emitted: profile[%s][%d], status[%d]", profile.name.c_str(), profile.id, status);
      if (const auto callback = Current(onCancelConnectionCallback_)) (*callback)(status);
    }
    ZV_LOGI("onCancelConnection handled");
  });

  client->SetSignalCallback(dbus::client::kSignalOnDbusClosing, [](GVariant* payload) {
    const int value = common::VariantToInteger(payload);
    ZV_LOGI("onDbusClosing emitted [%d]", value);
    if (const ClientLease current = detail::LeaseClient()) current->Disconnect();
    ZV_LOGI("onDbusClosing handled");
  });

  client->SetSignalCallback(dbus::client::kSignalOnConnectionAvailable, [this](GVariant* payload) {
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
    const auto callback = Current(onConnectionAvailableCallback_);
    if (!callback) return;
    ZV_LOGI("Execute Instance ConnectionAvailable callback: id[%d] state[%d]", id, state);
    (*callback)(static_cast<int>(id), state != 0);
  });
}

}  // namespace zorvel
}  // namespace zv_client

namespace zv_client {
namespace zorvel {
namespace testing {

dbus::client::DBusClient* CurrentClient() { return detail::LeaseClient().get(); }

std::string CurrentClientBusName() {
  const detail::ClientLease client = detail::LeaseClient();
  return client ? dbus::client::detail::ClientInternals::UniqueName(*client.get()) : std::string();
}

}  // namespace testing
}  // namespace zorvel
}  // namespace zv_client
