#pragma once

// Marks the library's exported interface; everything else stays hidden.
#if defined(ZORVEL_STATIC)
#define ZORVEL_API
#else
#define ZORVEL_API __attribute__((visibility("default")))
#endif
