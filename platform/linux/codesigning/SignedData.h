// SPDX-License-Identifier: MIT
//
// The CMS message of a signature: what it says about the code, whether it and its certificates can
// be trusted, and the digest to compare it with. OpenSSL decodes a message once, for the question
// whether it can be trusted, and only one whose outline is good. OpenSSL's memory stays in these
// functions, but for the roots decoded last. Safe from any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/Requirement.h"

namespace tarnvale::platform {

/// Decodes the roots and does with the first what `verify` does with a message, so that the library
/// sets itself up for that. Throws as `verify` does.
void prepareToVerify(const std::string& rootsPem);

/// What a well-formed message says; nobody vouches for it yet.
struct Claims {
    SignedContent content;
    std::optional<std::string> teamIdentifier;  ///< the one subject OU of the signer's certificate

    bool operator==(const Claims&) const = default;
};

/// Nothing when the message isn't a signature: one with a good outline and the three lines inside.
/// Takes no library.
std::optional<Claims> readClaims(std::string_view message);

/// What a message says that a trusted signer has signed.
struct Trusted {
    SignedContent content;
    std::vector<CertificateFacts> chain;  ///< from the leaf to the root
    std::int64_t validUntil = 0;          ///< Unix time at which the first of them expires
};

/// Nothing unless the chain from the signer's certificate to one of the roots verifies, all of its
/// certificates are valid now, the signer's is for code signing, and its key made the signature.
/// Throws `SharedLibraryError` without libcrypto; `std::bad_alloc` or `LibcryptoUnusable` if it had
/// too little memory to tell.
std::optional<Trusted> verify(std::string_view message, const std::string& rootsPem);

/// Why the chain isn't one that `verify` takes, in OpenSSL's words, such as "certificate has
/// expired". Nothing if it is, or if there is no chain. Throws as `verify` does.
std::optional<std::string> chainProblem(std::string_view message, const std::string& rootsPem);

/// Does a small piece of work, when its turn has come.
using Pace = std::function<void(const std::function<void()>& work)>;

/// SHA-256 of the file's first `size` bytes, in lower-case hex; nothing when they cannot be read.
/// Reads at any time, which can take as long as the file system likes, and computes at this pace.
/// Throws as `verify` does, and what `pace` throws.
std::optional<std::string> sha256(
    int file, off_t size, const Pace& pace = [](const auto& work) { work(); });

}  // namespace tarnvale::platform
