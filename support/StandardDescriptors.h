// SPDX-License-Identifier: MIT
//
// Descriptors 0 to 2, which whoever starts a program may have left closed.

#pragma once

namespace tarnvale::support {

/// Opens those that are closed on /dev/null; the next file or socket of ours would be taken for
/// one of them. The first thing that a program does. Children share them.
void openStandardDescriptors() noexcept;

}  // namespace tarnvale::support
