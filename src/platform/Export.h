#pragma once

/// \file
/// \brief The export macro, ZORVEL_API.
///
/// Defined here, in the lowest layer, so that every layer can use it without
/// the platform layer depending on another one.

/// \def ZORVEL_API
/// \brief Marks the library's exported interface; everything else stays
/// hidden. Empty when ZORVEL_STATIC is defined, default visibility
/// otherwise. Applications have no use for it.
#if defined(ZORVEL_STATIC)
#define ZORVEL_API
#else
#define ZORVEL_API __attribute__((visibility("default")))
#endif
