#pragma once

#include <atomic>
#include <memory>

#include <gio/gio.h>

#include <zorvel/dbus/client/CallbackAnchor.h>

namespace zv_client {
namespace testing {

// A new floating "(i)" variant whose last reference going is observable: its
// data is a GBytes that only the variant holds. "Alive, unref, freed" is the
// check for "exactly one reference left", GLib having no public count.
class VariantProbe {
 public:
  explicit VariantProbe(gint32 value) : freed_(std::make_shared<std::atomic<bool>>(false)) {
    auto* payload = new Payload{value, freed_};
    dbus::client::detail::PublishHandle(payload);  // the last reference may go on a GDBus worker thread
    GBytes* bytes = g_bytes_new_with_free_func(&payload->value, sizeof payload->value, &Release, payload);
    variant_ = g_variant_new_from_bytes(G_VARIANT_TYPE("(i)"), bytes, TRUE);
    g_bytes_unref(bytes);
  }

  GVariant* variant() const { return variant_; }  // not owned by the probe
  bool Freed() const { return *freed_; }

 private:
  struct Payload {
    gint32 value;
    std::shared_ptr<std::atomic<bool>> freed;
  };
  static void Release(gpointer data) {
    dbus::client::detail::ReceiveHandle(data);
    auto* payload = static_cast<Payload*>(data);
    *payload->freed = true;
    delete payload;
  }

  std::shared_ptr<std::atomic<bool>> freed_;
  GVariant* variant_ = nullptr;
};

}  // namespace testing
}  // namespace zv_client
