// SPDX-License-Identifier: MIT
//
// Why this process will never check a signature, though the next one may.

#pragma once

#include <exception>

namespace tarnvale::platform {

/// OpenSSL's library could not set itself up, or may not have, as a rule for want of memory. It
/// does so once and remembers that it failed. Thrown only before any signature has been found good.
/// Takes no memory, so that nothing else is thrown in its place.
class LibcryptoUnusable : public std::exception {
public:
    const char* what() const noexcept override { return "libcrypto.so.3 could not be set up."; }
};

}  // namespace tarnvale::platform
