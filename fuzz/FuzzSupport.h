#pragma once

// Shared plumbing of the libFuzzer targets: process setup and the input
// format, which is also what fuzz/make_seeds.cpp writes.
//
// Input layout
//   byte 0        control bits (kForceType, kNormalForm, then per target)
//   with kForceType: the rest is the serialized data of the target's own
//                    wire type, so mutations go straight at the decoder;
//   otherwise:       a GVariant type string, a NUL, then the serialized data.
// The data is always loaded untrusted, exactly as GDBus hands a received
// message body to the library.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include <glib.h>

#include <common/GLibPtr.h>
#include <platform/SystemLog.h>

namespace zv_fuzz {

constexpr std::uint8_t kForceType = 0x01;
constexpr std::uint8_t kNormalForm = 0x02;
// Bits 2 and up belong to the target (element count, signal member, ...).
constexpr unsigned kTargetShift = 2;

[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "zorvel fuzz check failed: %s\n", what);
  std::abort();
}

inline void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// A GLib warning or critical means the library handed GLib something it must
// not (a wrong format, a wrong type); make it a crash so libFuzzer keeps the
// input. Everything quieter is dropped.
inline GLogWriterOutput FatalGLibWriter(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
  if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) == 0) {
    return G_LOG_WRITER_HANDLED;
  }
  const char* domain = "";
  const char* message = "";
  for (gsize i = 0; i < count; ++i) {
    if (fields[i].length >= 0) continue;  // not a NUL-terminated string field
    if (std::strcmp(fields[i].key, "GLIB_DOMAIN") == 0) domain = static_cast<const char*>(fields[i].value);
    if (std::strcmp(fields[i].key, "MESSAGE") == 0) message = static_cast<const char*>(fields[i].value);
  }
  std::fprintf(stderr, "GLib %s: %s\n", domain, message);
  std::abort();
}

// GLib 2.74 still serves GVariant nodes from its slice magazines, where
// LeakSanitizer cannot see a lost reference. The allocator is chosen by
// G_SLICE while GLib's own constructor runs, before any of our code, so the
// process restarts itself once with the variable set.
inline void UseMallocForSlices(char** argv) {
  const char* slice = std::getenv("G_SLICE");
  if (slice != nullptr && std::strstr(slice, "always-malloc") != nullptr) return;
  setenv("G_SLICE", "always-malloc", 1);
  execv("/proc/self/exe", argv);
  std::perror("re-exec with G_SLICE=always-malloc failed; leaks of GVariant nodes go unseen");
}

// Once per process, from LLVMFuzzerInitialize.
inline void Setup(char** argv) {
  UseMallocForSlices(argv);
  // The library logs every step; formatting still runs, writing does not.
  zv_client::platform::SetLogSink([](zv_client::platform::LogBuffer, zv_client::platform::LogPriority, const char*,
                                     const char*) {});
  g_log_set_writer_func(&FatalGLibWriter, nullptr, nullptr);
}

struct Input {
  std::uint8_t control = 0;
  zv_client::common::GVariantPtr value;  // owned; null when the input is unusable
};

// Splits and loads one input. `forcedType` is the type used under kForceType
// (null: the target has none and always reads a type string).
inline Input Load(const std::uint8_t* data, std::size_t size, const char* forcedType) {
  Input input;
  if (size == 0) return input;
  input.control = data[0];
  const auto* rest = reinterpret_cast<const char*>(data + 1);
  std::size_t restSize = size - 1;

  std::string typeString;
  const bool forced = (input.control & kForceType) != 0 && forcedType != nullptr;
  if (forced) {
    typeString = forcedType;
  } else {
    const void* nul = std::memchr(rest, '\0', restSize);
    if (nul == nullptr) return input;
    typeString.assign(rest, static_cast<const char*>(nul));
    restSize -= typeString.size() + 1;
    rest += typeString.size() + 1;
    if (!g_variant_type_string_is_valid(typeString.c_str())) return input;
    if (!g_variant_type_is_definite(G_VARIANT_TYPE(typeString.c_str()))) return input;
  }

  // No copy: the value reads the fuzzer's buffer in place (GLib copies only
  // when the alignment needs it), and it is released before the input ends.
  zv_client::common::GVariantPtr loaded(g_variant_ref_sink(
      g_variant_new_from_data(G_VARIANT_TYPE(typeString.c_str()), rest, restSize, FALSE, nullptr, nullptr)));
  const bool normal = g_variant_is_normal_form(loaded.get());
  // GLib 2.74 aborts on an assertion when it takes a child out of some
  // non-normal values of mixed tuple shapes, e.g. "((ia{sv}s))" over the five
  // bytes "MgA=\0" (fuzz/regressions/fuzz_profile_list/); g_variant_get_normal_form
  // trips over the same. GDBus only ever hands out values in normal form, so
  // non-normal data is kept for the target's own wire type, where it is fair
  // game, and other types come in normal form only.
  const bool ownType = forcedType != nullptr && typeString == forcedType;
  if (!normal && !ownType) return input;
  if ((input.control & kNormalForm) != 0) {
    // The decoders then see a trusted, re-serialized value.
    input.value.reset(g_variant_get_normal_form(loaded.get()));
  } else {
    // The raw untrusted value, which GLib reads defensively.
    input.value = std::move(loaded);
  }
  return input;
}

}  // namespace zv_fuzz
