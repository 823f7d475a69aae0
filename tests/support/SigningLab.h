// SPDX-License-Identifier: MIT
//
// Certificates and code signatures of every kind, good and bad, made in memory by OpenSSL.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace tarnvale::test {

/// The marker extensions of Developer ID: an authority's and an application's.
inline constexpr const char* developerIDAuthorityMarker = "1.2.840.113635.100.6.2.6";
inline constexpr const char* developerIDApplicationMarker = "1.2.840.113635.100.6.1.13";

/// What a certificate is to say.
struct CertificateRequest {
    std::string commonName = "Tarnvale test";
    std::vector<std::string> units = {"K7PD2QM4TZ"};
    bool isAuthority = false;
    std::optional<std::string> keyUsage;          ///< such as "digitalSignature"
    std::optional<std::string> extendedKeyUsage;  ///< such as "codeSigning"
    std::vector<std::string> markers;             ///< object identifiers of extensions
    long validFrom = -3600;                       ///< in seconds from now
    long validUntil = 3600;
    bool weakKey = false;              ///< RSA of 1024 bits
    EVP_PKEY* (*makeKey)() = nullptr;  ///< where it is neither that nor of P-256
    const EVP_MD* (*digest)() = EVP_sha256;
};

/// A certificate and its key.
class Identity {
public:
    /// Signed by the issuer, or by itself.
    explicit Identity(const CertificateRequest& request, const Identity* issuer = nullptr);

    X509* certificate() const { return certificate_.get(); }
    EVP_PKEY* key() const { return key_.get(); }

    std::string certificatePem() const;

private:
    struct Free {
        void operator()(X509* certificate) const { X509_free(certificate); }
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    };

    std::unique_ptr<EVP_PKEY, Free> key_;
    std::unique_ptr<X509, Free> certificate_;
};

/// A root, an intermediate and a leaf that may sign code.
struct Chain {
    Identity root;
    Identity intermediate;
    Identity leaf;

    static Chain development(const std::string& unit = "K7PD2QM4TZ");
    static Chain developerID(const std::string& unit = "K7PD2QM4TZ");

    /// With a leaf of another kind.
    static Chain withLeaf(const CertificateRequest& leaf);
};

/// What a leaf that may sign code says.
CertificateRequest codeSigningLeaf();

/// How a message is made.
struct MessageRequest {
    std::vector<const Identity*> signers;
    std::vector<X509*> certificates;  ///< besides the signers'
    std::string digest = "SHA256";
    bool contentInside = true;
    bool namesKey = false;  ///< names the signers' keys, not their certificates' issuers
};

/// A CMS message, DER.
std::string cmsMessage(std::string_view content, const MessageRequest& request);

/// The three lines for a program.
std::string signedContent(std::string_view program, std::string_view identifier);

/// What signed programs of tests are called, unless a test is about it.
inline constexpr const char* clientIdentifier = "com.brackwen.tarnvale";

/// The message of a well-signed program.
std::string signatureOf(std::string_view program, std::string_view identifier, const Chain& chain);

/// The program with the message behind it; `length` is what the trailer claims, if not the truth.
std::string withTrailer(
    std::string_view program,
    std::string_view message,
    std::optional<std::uint32_t> length = std::nullopt);

/// A well-signed program.
std::string signedProgram(
    std::string_view program, std::string_view identifier, const Chain& chain);

}  // namespace tarnvale::test
