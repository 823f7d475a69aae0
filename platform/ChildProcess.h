// SPDX-License-Identifier: MIT
//
// What systems do each in their own way to keep descriptors from child processes.

#pragma once

#include <optional>

#include "support/UniqueFd.h"

namespace tarnvale::platform {

struct Pipe {
    support::UniqueFd reader;
    support::UniqueFd writer;
};

/// A pipe that no child gets that is not given it by a spawn file action. Nothing, and errno, when
/// the system has none to give.
std::optional<Pipe> makePipe();

/// The posix_spawn attribute flags with which a child gets no descriptor but those that its file
/// actions name; none where each descriptor is marked for that when it is made.
short closingSpawnFlags();

}  // namespace tarnvale::platform
