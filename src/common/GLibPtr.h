#pragma once

// Owning holders for GLib references. A raw GVariant* elsewhere in the library
// is borrowed unless its name or a comment says "owned".

#include <memory>

#include <gio/gio.h>

namespace zv_client {
namespace common {

struct GVariantUnref {
  void operator()(GVariant* value) const noexcept { g_variant_unref(value); }
};
struct GObjectUnref {
  void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
struct GFree {
  void operator()(gpointer memory) const noexcept { g_free(memory); }
};
struct GErrorFree {
  void operator()(GError* error) const noexcept { g_error_free(error); }
};

using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFree>;
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

// Takes a full reference to `value`, sinking it if it is floating.
inline GVariantPtr SinkVariant(GVariant* value) {
  return GVariantPtr(value != nullptr ? g_variant_ref_sink(value) : nullptr);
}

}  // namespace common
}  // namespace zv_client
