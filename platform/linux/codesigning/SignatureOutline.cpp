// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/SignatureOutline.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/Der.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

using namespace std::string_view_literals;
using Bytes = std::string_view;

// Object identifiers.
constexpr auto signedData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x02"sv;
constexpr auto plainData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01"sv;
constexpr auto organizationalUnit = "\x55\x04\x0B"sv;
constexpr auto subjectKeyIdentifier = "\x55\x1D\x0E"sv;

// The contents of algorithms' sequences, each an identifier and its parameters.
constexpr auto rsa = "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01\x05\x00"sv;
constexpr auto ed25519 = "\x06\x03\x2B\x65\x70"sv;

struct Curve {
    Bytes algorithm;
    std::size_t pointSize;  ///< of an uncompressed point
};
constexpr std::array curves = {
    Curve{"\x06\x07\x2A\x86\x48\xCE\x3D\x02\x01\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07"sv, 65},
    Curve{"\x06\x07\x2A\x86\x48\xCE\x3D\x02\x01\x06\x05\x2B\x81\x04\x00\x22"sv, 97},
    Curve{"\x06\x07\x2A\x86\x48\xCE\x3D\x02\x01\x06\x05\x2B\x81\x04\x00\x23"sv, 133}};

/// ECDSA, then RSA, over SHA-256, SHA-384 and SHA-512; Ed25519.
constexpr std::array signatureAlgorithms = {
    "\x06\x08\x2A\x86\x48\xCE\x3D\x04\x03\x02"sv,
    "\x06\x08\x2A\x86\x48\xCE\x3D\x04\x03\x03"sv,
    "\x06\x08\x2A\x86\x48\xCE\x3D\x04\x03\x04"sv,
    "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0B\x05\x00"sv,
    "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0C\x05\x00"sv,
    "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0D\x05\x00"sv,
    ed25519};

/// SHA-256, SHA-384 and SHA-512, whose parameters may be absent or the ASN.1 NULL.
constexpr std::array digestAlgorithms = {
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01"sv,
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x02"sv,
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x03"sv,
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x05\x00"sv,
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x02\x05\x00"sv,
    "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x03\x05\x00"sv};

constexpr std::size_t ed25519KeySize = 32;
constexpr std::size_t minModulusBits = 2048;
constexpr std::size_t maxModulusBits = 8192;
constexpr std::size_t maxExponentSize = 4;  // bytes; the work grows with it, and 65537 takes three

template <typename List>
bool isOneOf(Bytes bytes, const List& list) {
    return std::find(list.begin(), list.end(), bytes) != list.end();
}

template <typename List>
bool takeAlgorithm(Bytes& bytes, const List& list) {
    const auto algorithm = der::take(bytes, der::sequence);
    return algorithm && isOneOf(*algorithm, list);
}

/// Takes an integer off the bytes and returns its digits without leading zeros; nothing if it isn't
/// positive and odd, as the numbers of an RSA key are.
std::optional<Bytes> takeOddNumber(Bytes& bytes) {
    auto digits = der::take(bytes, der::integer);
    const auto negative = [](char first) { return (first & 0x80) != 0; };
    if (!digits || digits->empty() || negative(digits->front()) || (digits->back() & 1) == 0) {
        return std::nullopt;
    }
    digits->remove_prefix(std::min(digits->find_first_not_of('\0'), digits->size()));
    return digits;
}

bool isGoodRsaKey(Bytes key) {
    auto numbers = der::takeOnly(key, der::sequence);
    if (!numbers) {
        return false;
    }
    const auto modulus = takeOddNumber(*numbers);
    const auto exponent = takeOddNumber(*numbers);
    if (!modulus || !exponent || !numbers->empty()) {
        return false;
    }
    const auto bits =
        8 * modulus->size() -
        static_cast<std::size_t>(std::countl_zero(static_cast<std::uint8_t>(modulus->front())));
    return bits >= minModulusBits && bits <= maxModulusBits &&
           exponent->size() <= maxExponentSize && *exponent != "\x01"sv;
}

bool isGoodKey(Bytes keyInfo) {
    const auto algorithm = der::take(keyInfo, der::sequence);
    auto key = der::takeOnly(keyInfo, der::bitString);
    if (!algorithm || !key || key->empty() || key->front() != '\0') {
        return false;
    }
    key->remove_prefix(1);  // the number of unused bits, none
    if (*algorithm == rsa) {
        return isGoodRsaKey(*key);
    }
    if (*algorithm == ed25519) {
        return key->size() == ed25519KeySize;
    }
    constexpr char isUncompressed = 0x04;
    const auto* const curve = std::find_if(curves.begin(), curves.end(), [&](const Curve& known) {
        return known.algorithm == *algorithm;
    });
    return curve != curves.end() && key->size() == curve->pointSize &&
           key->front() == isUncompressed;
}

/// What a signer is compared with.
struct CertificateFields {
    Bytes issuer;
    Bytes serial;
    Bytes subject;
    Bytes extensions;
};

std::optional<CertificateFields> readCertificate(Bytes certificate) {
    auto body = der::take(certificate, der::sequence);
    if (!body || !takeAlgorithm(certificate, signatureAlgorithms) ||
        !der::takeOnly(certificate, der::bitString)) {
        return std::nullopt;
    }
    der::take(*body, der::constructed(0));  // the version; the first has none
    const auto serial = der::take(*body, der::integer);
    const bool isSignedWell = takeAlgorithm(*body, signatureAlgorithms);
    const auto issuer = der::take(*body, der::sequence);
    const auto validity = der::take(*body, der::sequence);
    const auto subject = der::take(*body, der::sequence);
    const auto key = der::take(*body, der::sequence);
    if (!serial || !isSignedWell || !issuer || !validity || !subject || !key || !isGoodKey(*key)) {
        return std::nullopt;
    }
    const auto extensions = der::takeOnly(*body, der::constructed(3));
    if (!extensions && !body->empty()) {
        return std::nullopt;
    }
    return CertificateFields{
        .issuer = *issuer,
        .serial = *serial,
        .subject = *subject,
        .extensions = extensions.value_or(Bytes())};
}

/// Whether the certificate has an extension that gives its key this identifier.
bool hasKeyIdentifier(const CertificateFields& certificate, Bytes identifier) {
    auto extensions = der::takeOnly(certificate.extensions, der::sequence);
    while (extensions && !extensions->empty()) {
        auto extension = der::take(*extensions, der::sequence);
        if (!extension) {
            return false;
        }
        const auto kind = der::take(*extension, der::objectIdentifier);
        der::take(*extension, der::boolean);
        const auto value = der::takeOnly(*extension, der::octetString);
        if (kind == subjectKeyIdentifier && value) {
            return der::takeOnly(*value, der::octetString) == identifier;
        }
    }
    return false;
}

/// How the signer names its certificate: by issuer and serial number, or by its key.
class SignerName {
public:
    static std::optional<SignerName> take(Bytes& signer) {
        SignerName name;
        name.key_ = der::take(signer, der::primitive(0));
        if (!name.key_) {
            auto names = der::take(signer, der::sequence);
            name.issuer_ = names ? der::take(*names, der::sequence) : std::nullopt;
            name.serial_ = names ? der::takeOnly(*names, der::integer) : std::nullopt;
        }
        return name.key_ || (name.issuer_ && name.serial_) ? std::optional(name) : std::nullopt;
    }

    bool isOf(const CertificateFields& certificate) const {
        return key_ ? hasKeyIdentifier(certificate, *key_)
                    : certificate.issuer == issuer_ && certificate.serial == serial_;
    }

private:
    std::optional<Bytes> key_;
    std::optional<Bytes> issuer_;
    std::optional<Bytes> serial_;
};

/// The name that the signer gives its certificate, if its algorithms are good.
std::optional<SignerName> readSigner(Bytes signer) {
    const auto version = der::take(signer, der::integer);
    auto name = SignerName::take(signer);
    const bool isDigestedWell = takeAlgorithm(signer, digestAlgorithms);
    der::take(signer, der::constructed(0));  // signed attributes
    auto algorithm = der::take(signer, der::sequence);
    const auto signature = der::take(signer, der::octetString);
    der::take(signer, der::constructed(1));  // unsigned attributes
    const bool isSignedWell =
        algorithm && (*algorithm == rsa || isOneOf(*algorithm, signatureAlgorithms));
    if (!version || !isDigestedWell || !isSignedWell || !signature || !signer.empty()) {
        return std::nullopt;
    }
    return name;
}

/// The subject of the one certificate that the signer names. Nothing unless each is good.
std::optional<Bytes> subjectOfSigner(Bytes certificates, const SignerName& signer) {
    std::optional<Bytes> subject;
    while (!certificates.empty()) {
        const auto content = der::take(certificates, der::sequence);
        const auto certificate = content ? readCertificate(*content) : std::nullopt;
        if (!certificate) {
            return std::nullopt;
        }
        if (signer.isOf(*certificate)) {
            if (subject) {
                return std::nullopt;
            }
            subject = certificate->subject;
        }
    }
    return subject;
}

/// What is signed, from "the content and its type".
std::optional<Bytes> contentOf(Bytes encapsulated) {
    const auto kind = der::take(encapsulated, der::objectIdentifier);
    const auto content = der::takeOnly(encapsulated, der::constructed(0));
    return kind == plainData && content ? der::takeOnly(*content, der::octetString) : std::nullopt;
}

}  // namespace

std::optional<SignatureOutline> readOutline(std::string_view message) {
    if (!hasShapeOfSignature(message)) {
        return std::nullopt;
    }
    // It has the shape, so each of these is there.
    auto contentInfo = der::takeOnly(message, der::sequence).value_or(Bytes());
    if (der::take(contentInfo, der::objectIdentifier) != signedData) {
        return std::nullopt;
    }
    const auto content = der::take(contentInfo, der::constructed(0)).value_or(Bytes());
    auto parts = der::takeOnly(content, der::sequence).value_or(Bytes());
    der::take(parts, der::integer);
    auto digests = der::take(parts, der::set).value_or(Bytes());
    while (!digests.empty()) {
        if (!takeAlgorithm(digests, digestAlgorithms)) {
            return std::nullopt;
        }
    }
    const auto signedContent = contentOf(der::take(parts, der::sequence).value_or(Bytes()));
    const auto certificates = der::take(parts, der::constructed(0)).value_or(Bytes());
    const auto signers = der::take(parts, der::set).value_or(Bytes());

    const auto signer = readSigner(der::takeOnly(signers, der::sequence).value_or(Bytes()));
    const auto subject = signer ? subjectOfSigner(certificates, *signer) : std::nullopt;
    if (!signedContent || !subject) {
        return std::nullopt;
    }
    return SignatureOutline{.content = *signedContent, .signerSubject = *subject};
}

std::optional<std::string> organizationalUnitOf(std::string_view name) {
    std::optional<std::string> unit;
    while (!name.empty()) {
        auto attributes = der::take(name, der::set);
        if (!attributes || attributes->empty()) {
            return std::nullopt;
        }
        while (!attributes->empty()) {
            auto attribute = der::take(*attributes, der::sequence);
            const auto kind =
                attribute ? der::take(*attribute, der::objectIdentifier) : std::nullopt;
            if (!kind) {
                return std::nullopt;
            }
            if (*kind != organizationalUnit) {
                continue;
            }
            auto text = der::takeOnly(*attribute, der::utf8String);
            if (!text) {
                text = der::takeOnly(*attribute, der::printableString);
            }
            if (unit || !text || !support::isValidUtf8(*text)) {
                return std::nullopt;
            }
            unit = std::string(*text);
        }
    }
    return unit;
}

}  // namespace tarnvale::platform
