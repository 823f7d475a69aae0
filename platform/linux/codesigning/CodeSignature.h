// SPDX-License-Identifier: MIT
//
// The form of a signed executable: the program's bytes, a CMS message, its length in 4 bytes, and
// the magic. What the message says is read in SignedData.h; here are the trailer, the message's
// outline, and the three lines that are signed.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::platform {

inline constexpr std::string_view signatureMagic = "~Tarnvale code signature~\n";

/// The longest message that is looked at.
inline constexpr std::size_t maxMessageSize = std::size_t{1} << 20;

/// The largest program that is looked at, so that no peer keeps root hashing for minutes.
inline constexpr off_t maxProgramSize = off_t{256} << 20;

/// What lies behind the program.
struct SignatureTrailer {
    off_t programSize = 0;
    std::string message;  ///< CMS, as it stands
};

/// The trailer of an open file of that size; nothing when there is none, or none that could be.
std::optional<SignatureTrailer> readTrailer(int file, off_t size);

/// The most certificates that a message may carry.
inline constexpr std::size_t maxCertificates = 16;

/// The most elements of DER in a message: several times what that many certificates have. A name or
/// a certificate could have a hundred thousand of them otherwise.
inline constexpr std::size_t maxElements = 8192;

/// The longest octet string in a message: the content and the signature are some, and the value of
/// each extension of a certificate, which is DER again.
inline constexpr std::size_t maxOctetStringSize = 4096;

/// Whether the message could be a signature by its outermost elements: DER, signed data with one
/// signer and no more certificates and elements than it may carry. Found out at no cost, where
/// decoding all that a megabyte can hold takes OpenSSL most of a second.
bool hasShapeOfSignature(std::string_view message);

/// The three signed lines.
struct SignedContent {
    std::string identifier;
    std::string sha256;  ///< of the program's bytes, 64 digits in lower case

    bool operator==(const SignedContent&) const = default;
};

/// Nothing unless the text is exactly those lines.
std::optional<SignedContent> parseSignedContent(std::string_view text);

}  // namespace tarnvale::platform
