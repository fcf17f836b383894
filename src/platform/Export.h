#pragma once

// Marks the library's exported interface; everything else stays hidden.
// Defined here, in the lowest layer, so that every layer can use it without
// the platform layer depending on another one.
#if defined(ZORVEL_STATIC)
#define ZORVEL_API
#else
#define ZORVEL_API __attribute__((visibility("default")))
#endif
