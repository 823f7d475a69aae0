// SPDX-License-Identifier: MIT
//
// Makes signatures, good and bad, and changes them so that their signatures still verify: after a
// change, the certificates and the message are signed again with the keys that they name. The keys
// of the roots and of the intermediate are always the same, so that a message that was kept leads
// to the roots of any later run.

#pragma once

#include <cstddef>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/DerTree.h"
#include "tests/support/SigningLab.h"

namespace tarnvale::test {

class SignatureAuthor {
public:
    SignatureAuthor();

    /// PEM.
    const std::string& roots() const { return roots_; }

    /// A message of one of the chains, as likely of each.
    std::string message(std::mt19937& random) const;

    /// The message with some changes; a new one if it is no DER. At most `maxSize` bytes, or empty.
    std::string changed(std::string_view message, std::size_t maxSize, std::mt19937& random) const;

private:
    struct Signer {
        Identity leaf;
        std::string publicKey;  ///< the leaf's, DER
        const Identity* issuer;
    };

    void add(const CertificateRequest& leaf, const Identity& issuer);
    void change(DerNode& message, std::mt19937& random) const;
    void sign(DerNode& message, std::mt19937& random) const;
    EVP_PKEY* keyOfIssuer(const DerNode& certificate) const;
    EVP_PKEY* keyOfSubject(const DerNode& certificate) const;

    Identity root_;
    Identity secondRoot_;   ///< of another algorithm
    Identity foreignRoot_;  ///< not one of the roots
    Identity intermediate_;
    Identity developerID_;  ///< an intermediate with the marker
    std::vector<Signer> signers_;
    std::map<std::string, EVP_PKEY*> issuers_;  ///< by their names, DER
    std::string roots_;
};

}  // namespace tarnvale::test
