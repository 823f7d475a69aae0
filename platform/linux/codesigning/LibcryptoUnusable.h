// SPDX-License-Identifier: MIT
//
// Why this process will never check a signature, though the next one may.

#pragma once

#include <stdexcept>

namespace tarnvale::platform {

/// OpenSSL's library ran out of memory while it set itself up. It does so once and remembers that
/// it failed. Thrown only before any signature has been found good.
class LibcryptoUnusable : public std::runtime_error {
public:
    LibcryptoUnusable() : std::runtime_error("libcrypto.so.3 had no memory to set itself up.") {}
};

}  // namespace tarnvale::platform
