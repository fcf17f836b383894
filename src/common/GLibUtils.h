#pragma once

// Value conversions and payload formats of the link between the library and
// the zorvel daemon. Every text inside a payload travels as base64.
//
// Ownership: a function returning GVariant* returns a new *floating*
// reference owned by the caller; a function taking GVariant* borrows it and
// releases everything it took out of it before returning.
//
// Decoders never trust their input: a null value or a value of another type
// yields 0, an empty text, an empty list or false, without a GLib critical.

#include <string>
#include <vector>

#include <glib.h>

#include <zorvel/platform/Export.h>

namespace zv_client {
namespace common {

// One stored session profile. `name` holds raw bytes (no encoding applied).
struct SessionProfile {
  std::string name;
  int id = 0;
};

// Integer payload "(i)".
ZORVEL_API GVariant* IntegerToVariant(int value);  // new floating
ZORVEL_API int VariantToInteger(GVariant* value);

// Text payload "(s)"; the string is the base64 text of every byte of `text`.
ZORVEL_API GVariant* StringToVariant(const std::string& text);  // new floating
ZORVEL_API std::string VariantToString(GVariant* value);

ZORVEL_API std::string base64_encode(const unsigned char* data, unsigned int length);
// Reads `text` up to its first NUL; characters outside the alphabet are skipped.
ZORVEL_API std::string base64_decode(const std::string& text);

// Profile list payload: ((s)(s)...) wrapped in a one-element tuple; element 0
// counts the elements that follow, then id and name of each profile.
ZORVEL_API GVariant* ProfilesToVariant(const std::vector<SessionProfile>& profiles);  // new floating
// Throws std::invalid_argument / std::out_of_range ("stoul", "stoi") when a
// count or id text does not parse. A value of another shape yields an empty
// list; a lone trailing element without its partner is ignored.
ZORVEL_API std::vector<SessionProfile> VariantToProfiles(GVariant* value);

// Profile-with-status payload "(ayqq)". Numbers travel as unsigned 16 bits.
ZORVEL_API GVariant* ProfileWithStatusToVariant(const SessionProfile& profile, int status);  // new floating
ZORVEL_API bool VariantToProfileWithStatus(GVariant* value, SessionProfile& profile, int& status);

// Data-and-number payload "(ayq)" and data payload "(ay)".
ZORVEL_API GVariant* SerializeIntoGVariant(const std::string& data, int number);  // new floating
ZORVEL_API GVariant* SerializeIntoGVariant(const std::string& data);              // new floating
ZORVEL_API bool DeserializeDataFromGVariant(GVariant* value, std::string& data, int& number);
ZORVEL_API bool DeserializeDataFromGVariant(GVariant* value, std::string& data);

}  // namespace common
}  // namespace zv_client

namespace logt {
// The calling thread's pthread_self() as lowercase hexadecimal, for log lines.
ZORVEL_API std::string thread_id();
}  // namespace logt
