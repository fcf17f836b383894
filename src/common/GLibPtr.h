#pragma once

/// \file
/// \brief Owning holders for GLib references. A raw GVariant* elsewhere in
/// the library is borrowed unless its name or a comment says "owned".
///
/// Each holder releases the one reference it owns when it goes; like
/// std::unique_ptr, one holder is used by one thread at a time.

#include <memory>

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
/// Deleter: frees a GError (g_error_free).
struct GErrorFree {
  /// Frees `error`.
  void operator()(GError* error) const noexcept { g_error_free(error); }
};

/// Owns one full (not floating) GVariant reference; see SinkVariant.
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;
/// Owns one reference to a GObject of type `T` (GDBusConnection, ...).
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
/// Owns a string allocated by GLib.
using GCharPtr = std::unique_ptr<gchar, GFree>;
/// Owns a GError.
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

/// \brief Takes a full reference to `value`, sinking it if it is floating.
/// \param value a floating reference (taken over) or a full one (a new
///        reference is added; the caller keeps its own); may be null.
/// \return the holder of the full reference; empty for null.
inline GVariantPtr SinkVariant(GVariant* value) {
  return GVariantPtr(value != nullptr ? g_variant_ref_sink(value) : nullptr);
}

}  // namespace common
}  // namespace zv_client
