// SPDX-License-Identifier: MIT
//
// The CMS message of a signature, read by OpenSSL: what it says of the code, whether it and its
// certificates can be trusted, and the digest that it is held against. Nothing that OpenSSL
// allocates leaves these functions, and no two messages are decoded at the same time: what
// hostile peers can make the service spend on them is bounded by one message. Safe from any
// thread. Without libcrypto each function throws `SharedLibraryError`.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/Requirement.h"

namespace tarnvale::platform {

/// What a well-formed message says; nobody vouches for it yet.
struct Claims {
    SignedContent content;
    std::optional<std::string> teamIdentifier;  ///< the one subject OU of the signer's certificate

    bool operator==(const Claims&) const = default;
};

/// Nothing for a message that is no signature: it must be signed data with the three lines inside,
/// one signer, and certificates with the signer's among them.
std::optional<Claims> readClaims(std::string_view message);

/// What a message says that somebody trusted has signed.
struct Trusted {
    SignedContent content;
    std::vector<CertificateFacts> chain;  ///< from the leaf to the root
    std::int64_t validUntil = 0;          ///< Unix time at which the first of them expires
};

/// Nothing unless the chain from the signer's certificate verifies up to one of the roots, all
/// are valid now, the signer's is for code signing, and the signature is that of its key.
std::optional<Trusted> verify(std::string_view message, const std::string& rootsPem);

/// SHA-256 of the file's first `size` bytes, in lower-case hex; nothing when they cannot be read.
std::optional<std::string> sha256(int file, off_t size);

}  // namespace tarnvale::platform
