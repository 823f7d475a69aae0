// SPDX-License-Identifier: MIT
//
// The CMS message of a signature, read by OpenSSL: what it says about the code, whether it and its
// certificates can be trusted, and the digest to compare it with. Nothing that OpenSSL allocates
// leaves these functions. One message is decoded at a time: hostile peers cannot make the service
// spend more than one message costs. Safe from any thread. Without libcrypto each function throws
// `SharedLibraryError`.

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

/// Nothing when the message isn't a signature: signed data with the three lines inside, one signer,
/// and certificates, the signer's among them.
std::optional<Claims> readClaims(std::string_view message);

/// What a message says that a trusted signer has signed.
struct Trusted {
    SignedContent content;
    std::vector<CertificateFacts> chain;  ///< from the leaf to the root
    std::int64_t validUntil = 0;          ///< Unix time at which the first of them expires
};

/// Nothing unless the chain from the signer's certificate to one of the roots verifies, all of its
/// certificates are valid now, the signer's is for code signing, and its key made the signature.
std::optional<Trusted> verify(std::string_view message, const std::string& rootsPem);

/// SHA-256 of the file's first `size` bytes, in lower-case hex; nothing when they cannot be read.
std::optional<std::string> sha256(int file, off_t size);

}  // namespace tarnvale::platform
