// SPDX-License-Identifier: MIT
//
// `--version`: the version of this program, which may not be that of the helper that runs.

#pragma once

#include "helperctl/Session.h"

namespace tarnvale::helperctl {

int toolVersion(const Session& session);

}  // namespace tarnvale::helperctl
