// SPDX-License-Identifier: MIT
//
// What the first check of a signature would do once for the process, done ahead: loading libcrypto,
// and having it set itself up. Together that takes most of a first check.

#pragma once

#include <functional>

namespace tarnvale::platform {

/// Prepares this process for checking signatures, as far as it can. Calls `loaded` once the library
/// is loaded, or can't be: until then no other thread could load one.
void prepareToCheckSignatures(const std::function<void()>& loaded) noexcept;

}  // namespace tarnvale::platform
