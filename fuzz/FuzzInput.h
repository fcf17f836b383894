#pragma once

// The input layout of zorvel_fuzz, shared with the seed maker.
//
//   byte 0   bit 0 kForceType, bit 1 kNormalForm, bits 2-7 the case
//            (taken modulo kCaseCount, so every byte value means something)
//   then     with kForceType: the serialized data of the case's wire type;
//            otherwise a GVariant type string, a NUL, the serialized data.
//            An empty type string stands for a null value.

#include <cstdint>
#include <string>

namespace zv_fuzz {

constexpr std::uint8_t kForceType = 0x01;
constexpr std::uint8_t kNormalForm = 0x02;
constexpr unsigned kCaseShift = 2;

// The decoders, then the signal members: those of the Launcher's handlers,
// the two it leaves to the dispatch, and two names that must reach no handler.
// clang-format off
enum Case : unsigned {
  kInteger, kText, kData, kDataAndNumber, kProfileWithStatus,
  kOnFound, kOnCancel, kOnDbusClosing, kOnConnectionAvailable, kOnVoiceGuideSay, kOnServiceShutdown,
  kOnFoundLowerCase, kUnknownMember,
  kProfileList,  // its wire type holds 1 inner element, the next case 2, ... up to 8
  kCaseCount = kProfileList + 8
};

// Name (of seed files) and wire type of each case before the profile lists.
struct Shape {
  const char* name;
  const char* wireType;
};
constexpr Shape kShapes[kProfileList] = {
    {"integer", "(i)"}, {"text", "(s)"}, {"data", "(ay)"}, {"number", "(ayq)"}, {"status", "(ayqq)"},
    {"onFound", "(ayq)"}, {"onCancel", "(ayqq)"}, {"onDbusClosing", "(i)"}, {"onConnectionAvailable", "(qq)"},
    {"onVoiceGuideSay", "(ay)"}, {"onServiceShutdown", "(i)"}, {"onfound", "(ayq)"}, {"unknown", "(i)"}};
// clang-format on

inline std::string WireType(unsigned which) {
  if (which < kProfileList) return kShapes[which].wireType;
  std::string type = "((";
  for (unsigned i = kProfileList; i <= which; ++i) type += "(s)";
  return type + "))";
}

inline std::string CaseName(unsigned which) {
  return which < kProfileList ? kShapes[which].name : "list" + std::to_string(which - kProfileList + 1);
}

constexpr std::uint8_t Selector(unsigned which, std::uint8_t mode = 0) {
  return static_cast<std::uint8_t>(which << kCaseShift | mode);
}

}  // namespace zv_fuzz
