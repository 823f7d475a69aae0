// SPDX-License-Identifier: MIT
//
// Makes sure that descriptors 0 to 2 are open: whoever starts a program may have left them closed.

#pragma once

namespace tarnvale::support {

/// Opens the closed ones on /dev/null; otherwise the next file or socket we open would become
/// standard input, output or error. A program calls this first. Children inherit them.
void openStandardDescriptors() noexcept;

}  // namespace tarnvale::support
