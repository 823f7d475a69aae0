// SPDX-License-Identifier: MIT
//
// Signatures that are made to cost whoever decodes them: certificates with any key, whatever that
// key says, put into a message that is otherwise good.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::test {

/// One DER element.
std::string derElement(char tag, std::string_view content);

/// A certificate with this public key, in DER, that nobody has signed. `keyInfo` and `algorithm`
/// are the contents of SubjectPublicKeyInfo and of the signature's AlgorithmIdentifier.
std::string unsignedCertificate(std::string_view keyInfo, std::string_view algorithm);

/// The content of the AlgorithmIdentifier of ECDSA over SHA-256.
std::string ecdsaWithSha256();

/// A key on a curve of its own, over a prime modulo which OpenSSL takes a tenth of a second for a
/// square root; and the point is compressed, so it takes one.
std::string costlyKey();

/// The message with these certificates, in DER, after its own.
std::string withFurtherCertificates(
    std::string_view message, const std::vector<std::string>& certificates);

/// The message with another type of content, an object identifier; its own is signed data.
std::string withContentType(std::string_view message, std::string_view type);

}  // namespace tarnvale::test
