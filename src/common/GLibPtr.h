#pragma once

/// \file
/// \brief Owning holders for GLib references. A raw GVariant* elsewhere in
/// the library is borrowed unless its name or a comment says "owned".
///
/// Each holder releases the one reference it owns when it goes; like
/// std::unique_ptr, one holder is used by one thread at a time.

#include <memory>
#include <utility>

#include <gio/gio.h>

namespace zv_client {
namespace common {

/// Deleter: releases one GVariant reference (g_variant_unref).
struct GVariantUnref {
  /// Releases `value`'s reference.
  void operator()(GVariant* value) const noexcept { g_variant_unref(value); }
};
/// Deleter: releases one GObject reference (g_object_unref).
struct GObjectUnref {
  /// Releases `object`'s reference.
  void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
/// Deleter: frees GLib-allocated memory (g_free).
struct GFree {
  /// Frees `memory`.
  void operator()(gpointer memory) const noexcept { g_free(memory); }
};
/// Deleter: releases one GSource reference (g_source_unref); the source
/// stays attached to its context if it was.
struct GSourceUnref {
  /// Releases `source`'s reference.
  void operator()(GSource* source) const noexcept { g_source_unref(source); }
};
/// Deleter: frees a GError (g_error_free).
struct GErrorFree {
  /// Frees `error`.
  void operator()(GError* error) const noexcept { g_error_free(error); }
};
/// Deleter: releases one GMainLoop reference (g_main_loop_unref).
struct GMainLoopUnref {
  /// Releases `loop`'s reference.
  void operator()(GMainLoop* loop) const noexcept { g_main_loop_unref(loop); }
};
/// Deleter: releases one GDBusNodeInfo reference (g_dbus_node_info_unref).
struct GDBusNodeInfoUnref {
  /// Releases `node`'s reference.
  void operator()(GDBusNodeInfo* node) const noexcept { g_dbus_node_info_unref(node); }
};
/// Deleter: frees a null-terminated string array and its strings (g_strfreev).
struct GStrvFree {
  /// Frees `strings`.
  void operator()(gchar** strings) const noexcept { g_strfreev(strings); }
};

/// Owns one GVariant reference: normally a full one (see SinkVariant); a
/// floating one handed over to the holder is released the same way.
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;
/// Owns one reference to a GObject of type `T` (GDBusConnection, ...).
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
/// Owns one GSource reference (timers and idle sources of the main loop).
using GSourcePtr = std::unique_ptr<GSource, GSourceUnref>;
/// Owns a string allocated by GLib.
using GCharPtr = std::unique_ptr<gchar, GFree>;
/// Owns a GError.
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;
/// Owns one GMainLoop reference.
using GMainLoopPtr = std::unique_ptr<GMainLoop, GMainLoopUnref>;
/// Owns one reference to parsed D-Bus introspection data.
using GDBusNodeInfoPtr = std::unique_ptr<GDBusNodeInfo, GDBusNodeInfoUnref>;
/// Owns a null-terminated array of GLib-allocated strings (a GStrv).
using GStrvPtr = std::unique_ptr<gchar*, GStrvFree>;

/// Copier: a new GVariant reference to the same immutable value (g_variant_ref).
struct GVariantAddRef {
  /// Another full reference to `value`.
  GVariant* operator()(GVariant* value) const noexcept { return g_variant_ref(value); }
};
/// Copier: an independent copy of a GError (g_error_copy).
struct GErrorDuplicate {
  /// A copy of `error`, freed on its own.
  GError* operator()(const GError* error) const noexcept { return g_error_copy(error); }
};

/// \brief Like the unique_ptr holders above, but copyable: a copy owns
/// what `Copier` returns for the held object (a reference of its own, or a
/// duplicate), so every copy releases exactly what it owns.
/// For values handed to callers that may keep them (CommandEnd).
template <typename T, typename Deleter, typename Copier>
class CopyablePtr {
 public:
  CopyablePtr() = default;
  /// Takes over what `owned` holds.
  explicit CopyablePtr(std::unique_ptr<T, Deleter> owned) noexcept : owned_(std::move(owned)) {}
  /// Owns a copy of what `other` holds (nothing when it is empty).
  CopyablePtr(const CopyablePtr& other) : owned_(Copy(other.owned_.get())) {}
  /// Takes over what `other` held; `other` is left empty.
  CopyablePtr(CopyablePtr&&) noexcept = default;
  /// Releases what this held and owns a copy of what `other` holds.
  CopyablePtr& operator=(const CopyablePtr& other) {
    if (this != &other) owned_.reset(Copy(other.owned_.get()));
    return *this;
  }
  /// Releases what this held and takes over what `other` held.
  CopyablePtr& operator=(CopyablePtr&&) noexcept = default;

  /// The held object, still owned by this holder; null when empty.
  T* get() const noexcept { return owned_.get(); }
  /// The held object's fields.
  T* operator->() const noexcept { return owned_.get(); }
  /// True when an object is held.
  explicit operator bool() const noexcept { return owned_ != nullptr; }

 private:
  static T* Copy(T* held) { return held != nullptr ? Copier{}(held) : nullptr; }
  std::unique_ptr<T, Deleter> owned_;
};

/// A GVariant reference whose copies share the (immutable) value.
using SharedVariantPtr = CopyablePtr<GVariant, GVariantUnref, GVariantAddRef>;
/// A GError whose copies are duplicates, each freed on its own.
using CopyableErrorPtr = CopyablePtr<GError, GErrorFree, GErrorDuplicate>;

/// \brief Takes a full reference to `value`, sinking it if it is floating.
/// \param value a floating reference (taken over) or a full one (a new
///        reference is added; the caller keeps its own); may be null.
/// \return the holder of the full reference; empty for null.
inline GVariantPtr SinkVariant(GVariant* value) {
  return GVariantPtr(value != nullptr ? g_variant_ref_sink(value) : nullptr);
}

}  // namespace common
}  // namespace zv_client
