// SPDX-License-Identifier: MIT
//
// What serving asks of the process as a whole.

#pragma once

namespace tarnvale::platform {

/// Sets up signals and memory for a process that serves until it exits. Called once, before there
/// is a second thread. Defined once in platform/macos and once in platform/linux.
void prepareServiceProcess();

/// Tells whoever started this process, if that is asked for, that the stored policies are in force
/// and clients can connect. Called once. Defined once in platform/macos and once in platform/linux.
void reportServing();

}  // namespace tarnvale::platform
