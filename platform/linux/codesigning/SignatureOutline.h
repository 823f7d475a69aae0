// SPDX-License-Identifier: MIT
//
// What a signature's CMS message is made of, read before a library sees a byte of it. Decoding a
// certificate makes OpenSSL decode its key, and a key may say how much work that is: one on a curve
// of its own costs a tenth of a second. So a message counts only if its certificates' keys and all
// of its algorithms are, byte for byte, of the few kinds that signatures of ours have.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnvale::platform {

/// Parts of a message, which must outlive them.
struct SignatureOutline {
    std::string_view content;        ///< what is signed
    std::string_view signerSubject;  ///< the name in the signer's certificate
};

/// Nothing unless the message is DER, signed data with its content inside and one signer, who names
/// exactly one of the certificates. Their keys are RSA of 2,048 to 8,192 bits, points of P-256,
/// P-384 or P-521, or Ed25519; they and the content are signed with such keys over SHA-2.
std::optional<SignatureOutline> readOutline(std::string_view message);

/// The organizational unit in a certificate's name; nothing unless there is exactly one.
std::optional<std::string> organizationalUnitOf(std::string_view name);

}  // namespace tarnvale::platform
