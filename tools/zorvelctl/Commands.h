#pragma once

// The commands of zorvelctl, one function each, and what each needs from
// the session.

#include "Options.h"
#include "Session.h"

namespace zorvelctl {

Plan PlanFor(const Options& options);

}  // namespace zorvelctl
