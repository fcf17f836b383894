#include <zorvel/common/GLibUtils.h>

#include <cstring>
#include <initializer_list>
#include <stdexcept>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/platform/Log.h>

namespace {
constexpr char kLogTag[] = "zorvel.common";

// GLib's own g_variant_get on a value of the wrong type reports a critical and
// extracts nothing; checking first gives the same result without the noise
// (and without aborting an application that runs with fatal criticals).
bool IsOfType(GVariant* value, const char* type) {
  return value != nullptr && g_variant_is_of_type(value, G_VARIANT_TYPE(type));
}

GVariant* ByteArrayOf(const std::string& text) {
  return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), sizeof(guchar));
}

// Payloads are built from their children rather than through a format string:
// g_variant_new/g_variant_get parse the format on every call, which costs more
// than the rest of the encoding (a reply of stored profiles builds one payload
// per profile). The tuple takes over the floating children.
GVariant* TupleOf(std::initializer_list<GVariant*> children) {
  return g_variant_new_tuple(children.begin(), children.size());
}

GVariant* Base64ByteArrayOf(const std::string& data) {
  return ByteArrayOf(zv_client::common::base64_encode(reinterpret_cast<const unsigned char*>(data.data()),
                                                      static_cast<unsigned int>(data.size())));
}

guint16 Uint16Child(GVariant* tuple, std::size_t index) {
  zv_client::common::GVariantPtr child(g_variant_get_child_value(tuple, index));
  return g_variant_get_uint16(child.get());
}

// Base64 text up to its first NUL, as g_base64_decode reads a C string.
std::string DecodeBase64(const char* text, std::size_t length) {
  length = strnlen(text, length);
  std::string result((length / 4) * 3 + 3, '\0');
  gint state = 0;
  guint save = 0;
  result.resize(g_base64_decode_step(text, length, reinterpret_cast<guchar*>(&result[0]), &state, &save));
  return result;
}

// Decodes the base64 bytes of an "ay" child; false when it holds no bytes.
bool DecodeByteArray(GVariant* array, std::string& decoded) {
  gsize length = 0;
  const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array, &length, sizeof(guchar)));
  if (bytes == nullptr || length == 0) return false;
  decoded = DecodeBase64(bytes, length);
  return true;
}

// The carried bytes of a "(s)" text payload; empty for anything else.
std::string TextOf(GVariant* value) {
  if (!IsOfType(value, "(s)")) return {};
  zv_client::common::GVariantPtr text(g_variant_get_child_value(value, 0));
  gsize length = 0;
  const gchar* encoded = g_variant_get_string(text.get(), &length);
  return DecodeBase64(encoded, length);
}
}  // namespace

namespace zv_client {
namespace common {

GVariant* IntegerToVariant(int value) { return TupleOf({g_variant_new_int32(value)}); }

int VariantToInteger(GVariant* value) {
  if (!IsOfType(value, "(i)")) return 0;
  GVariantPtr child(g_variant_get_child_value(value, 0));
  return g_variant_get_int32(child.get());
}

GVariant* StringToVariant(const std::string& text) {
  const std::string encoded =
      base64_encode(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
  return TupleOf({g_variant_new_string(encoded.c_str())});
}

std::string VariantToString(GVariant* value) { return TextOf(value); }

// Both directions write straight into the std::string with GLib's step
// functions, as g_base64_encode/g_base64_decode do into a buffer of their own,
// saving that buffer and the copy out of it.
std::string base64_encode(const unsigned char* data, unsigned int length) {
  std::string result;
  if (data == nullptr && length != 0) return result;  // GLib would refuse it with a critical
  result.resize((length / 3 + 1) * 4);
  gint state = 0;
  gint save = 0;
  auto* out = &result[0];
  gsize written = g_base64_encode_step(data, length, FALSE, out, &state, &save);
  written += g_base64_encode_close(FALSE, out + written, &state, &save);
  result.resize(written);
  return result;
}

std::string base64_decode(const std::string& text) { return DecodeBase64(text.data(), text.size()); }

GVariant* ProfilesToVariant(const std::vector<SessionProfile>& profiles) {
  // On the stack: g_variant_builder_end leaves nothing to release.
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  const std::string count = std::to_string(2U * static_cast<unsigned int>(profiles.size()));
  ZV_LOGI("profilesSize[%s]", count.c_str());
  g_variant_builder_add_value(&builder, StringToVariant(count));
  for (const SessionProfile& profile : profiles) {
    ZV_LOGI("profile [%d] [%s]", profile.id, profile.name.c_str());
    g_variant_builder_add_value(&builder, StringToVariant(std::to_string(profile.id)));
    g_variant_builder_add_value(&builder, StringToVariant(profile.name));
  }
  GVariant* inner = g_variant_builder_end(&builder);
  return g_variant_new_tuple(&inner, 1);
}

std::vector<SessionProfile> VariantToProfiles(GVariant* value) {
  std::vector<SessionProfile> profiles;
  if (value == nullptr || !IsOfType(value, "(r)")) return profiles;

  GVariantPtr inner(g_variant_get_child_value(value, 0));
  const std::size_t n = g_variant_n_children(inner.get());
  ZV_LOGI("numValues[%zu]", n);
  if (n == 0) return profiles;  // not even a count element

  GVariantPtr countElement(g_variant_get_child_value(inner.get(), 0));
  const unsigned long count = std::stoul(TextOf(countElement.get()), nullptr, 10);
  ZV_LOGI("profilesSize[%zu]", static_cast<std::size_t>(count));
  if (n - 1 != count) ZV_LOGE("VariantToProfiles error: has wrong size \n");
  if (n <= 1) return profiles;

  profiles.reserve((n - 1) / 2);
  for (std::size_t i = 1; i + 1 < n; i += 2) {
    GVariantPtr idElement(g_variant_get_child_value(inner.get(), i));
    GVariantPtr nameElement(g_variant_get_child_value(inner.get(), i + 1));
    const std::string idText = TextOf(idElement.get());
    std::string name = TextOf(nameElement.get());
    ZV_LOGI("profile [%s] [%s]", idText.c_str(), name.c_str());
    const int id = std::stoi(idText, nullptr, 10);
    profiles.push_back(SessionProfile{std::move(name), id});
  }
  return profiles;
}

GVariant* ProfileWithStatusToVariant(const SessionProfile& profile, int status) {
  return TupleOf({Base64ByteArrayOf(profile.name), g_variant_new_uint16(static_cast<guint16>(profile.id)),
                  g_variant_new_uint16(static_cast<guint16>(status))});
}

bool VariantToProfileWithStatus(GVariant* value, SessionProfile& profile, int& status) {
  if (!IsOfType(value, "(ayqq)")) return false;
  GVariantPtr array(g_variant_get_child_value(value, 0));
  std::string name;
  if (!DecodeByteArray(array.get(), name)) return false;
  profile.name = std::move(name);
  profile.id = Uint16Child(value, 1);
  status = Uint16Child(value, 2);
  return true;
}

GVariant* SerializeIntoGVariant(const std::string& data, int number) {
  return TupleOf({Base64ByteArrayOf(data), g_variant_new_uint16(static_cast<guint16>(number))});
}

GVariant* SerializeIntoGVariant(const std::string& data) { return TupleOf({Base64ByteArrayOf(data)}); }

bool DeserializeDataFromGVariant(GVariant* value, std::string& data, int& number) {
  if (!IsOfType(value, "(ayq)")) return false;
  GVariantPtr array(g_variant_get_child_value(value, 0));
  std::string decoded;
  if (!DecodeByteArray(array.get(), decoded)) return false;
  data = std::move(decoded);
  number = Uint16Child(value, 1);
  return true;
}

bool DeserializeDataFromGVariant(GVariant* value, std::string& data) {
  if (!IsOfType(value, "(ay)")) return false;
  GVariantPtr owned(g_variant_get_child_value(value, 0));
  std::string decoded;
  if (!DecodeByteArray(owned.get(), decoded)) return false;
  data = std::move(decoded);
  return true;
}

}  // namespace common
}  // namespace zv_client

namespace logt {

// The log formats the id for its own lines; the text here must be the same.
std::string thread_id() { return zv_client::platform::detail::ThreadIdText(); }

}  // namespace logt
