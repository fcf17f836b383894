#pragma once

// Marks the library's exported interface (ZORVEL_API); kept for code that
// includes it from here.
#include <platform/Export.h>
