// SPDX-License-Identifier: MIT
//
// The format of a signed executable: the program's bytes, a CMS message, the message's length in
// 4 bytes, and the magic. This file reads the trailer, the message's outline and the three signed
// lines; SignedData.h reads the message itself.

#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::platform {

inline constexpr std::string_view signatureMagic = "~Tarnvale code signature~\n";

/// Longer messages are not looked at.
inline constexpr std::size_t maxMessageSize = std::size_t{1} << 20;

/// Larger programs are not looked at: for one of this size, the digest takes a tenth of a second.
inline constexpr off_t maxProgramSize = off_t{64} << 20;

/// What follows the program.
struct SignatureTrailer {
    off_t programSize = 0;
    std::string message;  ///< CMS, not yet checked
};

/// The file did not give its bytes. That says nothing about whether it is signed.
class FileUnreadable : public std::runtime_error {
public:
    FileUnreadable() : std::runtime_error("The executable could not be read.") {}
};

/// The trailer of an open file of that size; nothing when it has none or a malformed one. Throws
/// `FileUnreadable` when the file can't be read or is shorter.
std::optional<SignatureTrailer> readTrailer(int file, off_t size);

/// How many certificates a message may carry.
inline constexpr std::size_t maxCertificates = 16;

/// How many DER elements a message may have: several times what that many certificates need. A
/// single name could otherwise have a hundred thousand.
inline constexpr std::size_t maxElements = 8192;

/// How long an octet string in a message may be. The content and the signature are octet strings,
/// and so is the value of each extension of a certificate, which is DER again.
inline constexpr std::size_t maxOctetStringSize = 4096;

/// Whether the message looks like a signature from outside: DER, signed data with one signer, and
/// no more certificates and elements than allowed. That costs next to nothing, whereas decoding all
/// that a megabyte can hold takes OpenSSL most of a second.
bool hasShapeOfSignature(std::string_view message);

/// The three signed lines.
struct SignedContent {
    std::string identifier;
    std::string sha256;  ///< of the program's bytes, 64 digits in lower case

    bool operator==(const SignedContent&) const = default;
};

/// Nothing unless the text consists of exactly those lines.
std::optional<SignedContent> parseSignedContent(std::string_view text);

}  // namespace tarnvale::platform
