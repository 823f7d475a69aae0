// SPDX-License-Identifier: MIT
//
// The commands of pfctl, from the arguments to what is printed.

#pragma once

#include "pfctl/language/Arguments.h"

namespace tarnvale::pfctl {

/// Runs the command and returns the exit status. Throws `PfctlError`.
int run(const Arguments& arguments);

}  // namespace tarnvale::pfctl
