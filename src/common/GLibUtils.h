#pragma once

/// \file
/// \brief Value conversions and payload formats of the link between the
/// library and the zorvel daemon. Every text inside a payload travels as
/// base64.
///
/// Ownership: a function returning GVariant* returns a new *floating*
/// reference owned by the caller; a function taking GVariant* borrows it and
/// releases everything it took out of it before returning.
///
/// Decoders never trust their input: a null value or a value of another type
/// yields 0, an empty text, an empty list or false, without a GLib critical.
///
/// Threads: every function here may be called from any thread; they share
/// no state (only ProfilesToVariant writes a log line).

#include <string>
#include <vector>

#include <glib.h>

#include <zorvel/platform/Export.h>

namespace zv_client {
/// \brief Payload formats, conversions and owning holders for GLib
/// references; no bus.
namespace common {

/// One stored session profile. `name` holds raw bytes (no encoding applied).
struct SessionProfile {
  std::string name;  ///< the profile's name, raw bytes
  int id = 0;        ///< the profile's id
};

/// \brief Integer payload "(i)".
/// \param value the number.
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* IntegerToVariant(int value);  // new floating
/// \brief Reads an integer payload "(i)".
/// \param value borrowed; may be null.
/// \return the number; 0 for null or a value of another type.
ZORVEL_API int VariantToInteger(GVariant* value);

/// \brief Text payload "(s)"; the string is the base64 text of every byte of
/// `text`.
/// \param text any bytes.
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* StringToVariant(const std::string& text);  // new floating
/// \brief Reads a text payload "(s)", decoding its base64.
/// \param value borrowed; may be null.
/// \return the bytes; empty for null or a value of another type.
ZORVEL_API std::string VariantToString(GVariant* value);

/// \brief The base64 text (standard alphabet, padded, no line breaks) of
/// `length` bytes at `data`.
/// \param data borrowed; may be null only when `length` is 0.
/// \param length the number of bytes.
/// \return the text; empty when `data` is null and `length` is not 0.
ZORVEL_API std::string base64_encode(const unsigned char* data, unsigned int length);
/// \brief Decodes base64. Reads `text` up to its first NUL; characters
/// outside the alphabet are skipped.
/// \param text the base64 text.
/// \return the bytes decoded.
ZORVEL_API std::string base64_decode(const std::string& text);

/// \brief Profile list payload: ((s)(s)...) wrapped in a one-element tuple;
/// element 0 counts the elements that follow, then id and name of each
/// profile.
/// \param profiles the profiles, in order.
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* ProfilesToVariant(const std::vector<SessionProfile>& profiles);  // new floating
/// \brief Reads a profile list payload (see ProfilesToVariant).
///
/// A value of another shape yields an empty list; a lone trailing element
/// without its partner is ignored.
/// \param value borrowed; may be null.
/// \return the profiles, in order.
/// \warning The one decoder that throws: std::invalid_argument /
///          std::out_of_range ("stoul", "stoi") when a count or id text does
///          not parse.
ZORVEL_API std::vector<SessionProfile> VariantToProfiles(GVariant* value);

/// \brief Profile-with-status payload "(ayqq)". Numbers travel as unsigned
/// 16 bits.
/// \param profile its name (as base64 bytes) and id.
/// \param status the status.
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* ProfileWithStatusToVariant(const SessionProfile& profile, int status);  // new floating
/// \brief Reads a profile-with-status payload "(ayqq)".
/// \param value borrowed; may be null.
/// \param[out] profile receives the name and the id (0 to 65535).
/// \param[out] status receives the status (0 to 65535).
/// \return true when `value` had that shape; false otherwise.
ZORVEL_API bool VariantToProfileWithStatus(GVariant* value, SessionProfile& profile, int& status);

/// \brief Data-and-number payload "(ayq)"; the number travels as unsigned
/// 16 bits.
/// \param data any bytes (sent as base64).
/// \param number the number.
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* SerializeIntoGVariant(const std::string& data, int number);  // new floating
/// \brief Data payload "(ay)".
/// \param data any bytes (sent as base64).
/// \return a new floating reference, owned by the caller.
ZORVEL_API GVariant* SerializeIntoGVariant(const std::string& data);  // new floating
/// \brief Reads a data-and-number payload "(ayq)".
/// \param value borrowed; may be null.
/// \param[out] data receives the bytes.
/// \param[out] number receives the number (0 to 65535).
/// \return true when `value` had that shape; false otherwise.
ZORVEL_API bool DeserializeDataFromGVariant(GVariant* value, std::string& data, int& number);
/// \brief Reads a data payload "(ay)".
/// \param value borrowed; may be null.
/// \param[out] data receives the bytes.
/// \return true when `value` had that shape; false otherwise.
ZORVEL_API bool DeserializeDataFromGVariant(GVariant* value, std::string& data);

}  // namespace common
}  // namespace zv_client

/// \brief Helpers for log lines.
namespace logt {
/// \brief The calling thread's pthread_self() as lowercase hexadecimal, for
/// log lines. Any thread.
ZORVEL_API std::string thread_id();
}  // namespace logt
