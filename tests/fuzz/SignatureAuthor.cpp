// SPDX-License-Identifier: MIT

#include "tests/fuzz/SignatureAuthor.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "tests/support/HostileSignatures.h"

/// Of libFuzzer. Changes the first `size` of `maxSize` bytes and returns how many there are then.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace tarnvale::test {
namespace {

using namespace std::string_view_literals;

constexpr auto messageDigest = "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x04"sv;
constexpr auto sha384 = "\x60\x86\x48\x01\x65\x03\x04\x02\x02"sv;
constexpr auto sha512 = "\x60\x86\x48\x01\x65\x03\x04\x02\x03"sv;
constexpr long twentyYears = 20L * 365 * 24 * 3600;

/// The key on the curve, an object identifier, whose secret is this byte over and over.
EVP_PKEY* keyOn(std::string_view curve, std::size_t size, char secret) {
    std::string number(size, secret);
    number.front() = '\0';  // less than any curve's order
    const std::string der = derElement(
        0x30,
        derElement(0x02, "\1") + derElement(0x04, number) +
            derElement('\xA0', derElement(0x06, curve)));
    const auto* position = reinterpret_cast<const unsigned char*>(der.data());
    EVP_PKEY* const key =
        d2i_PrivateKey(EVP_PKEY_EC, nullptr, &position, static_cast<long>(der.size()));
    if (key == nullptr) {
        std::abort();
    }
    return key;
}

template <char secret>
EVP_PKEY* p256() {
    return keyOn("\x2A\x86\x48\xCE\x3D\x03\x01\x07"sv, 32, secret);
}
EVP_PKEY* p384() {
    return keyOn("\x2B\x81\x04\x00\x22"sv, 48, 'A');
}
EVP_PKEY* p521() {
    return keyOn("\x2B\x81\x04\x00\x23"sv, 66, 'B');
}
EVP_PKEY* ed25519() {
    constexpr std::array<unsigned char, 32> secret{'C'};
    return EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, secret.data(), secret.size());
}
EVP_PKEY* rsa() {
    return EVP_RSA_gen(2048);
}
const EVP_MD* noDigest() {
    return nullptr;
}

CertificateRequest authority(const std::string& name, EVP_PKEY* (*makeKey)()) {
    CertificateRequest request;
    request.commonName = name;
    request.units = {};
    request.isAuthority = true;
    request.keyUsage = "keyCertSign";
    request.validUntil = twentyYears;
    request.makeKey = makeKey;
    return request;
}

CertificateRequest leaf(EVP_PKEY* (*makeKey)() = p256<'L'>) {
    CertificateRequest request = codeSigningLeaf();
    request.validUntil = twentyYears;
    request.makeKey = makeKey;
    return request;
}

CertificateRequest edAuthority() {
    auto request = authority("Second root", ed25519);
    request.digest = noDigest;
    return request;
}

CertificateRequest developerIDAuthority() {
    auto request = authority("Developer ID", p256<'D'>);
    request.markers = {developerIDAuthorityMarker};
    return request;
}

/// What OpenSSL has allocated for an encoding.
std::string taken(unsigned char* bytes, int size) {
    std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return text;
}

std::string nameOf(const Identity& identity) {
    unsigned char* bytes = nullptr;
    const int size = i2d_X509_NAME(X509_get_subject_name(identity.certificate()), &bytes);
    return taken(bytes, size);
}

std::string publicKeyOf(const Identity& identity) {
    unsigned char* bytes = nullptr;
    const int size = i2d_PUBKEY(identity.key(), &bytes);
    return taken(bytes, size);
}

DerNode certificateNode(const Identity& identity) {
    unsigned char* bytes = nullptr;
    const int size = i2d_X509(identity.certificate(), &bytes);
    return parseDer(taken(bytes, size)).value().front();
}

std::size_t below(std::size_t bound, std::mt19937& random) {
    return bound > 0 ? random() % bound : 0;
}

/// The node at that place of the tree; null if there is none.
DerNode* at(DerNode* node, std::initializer_list<std::size_t> path) {
    for (const std::size_t index : path) {
        if (node == nullptr || index >= node->parts.size()) {
            return nullptr;
        }
        node = &node->parts[index];
    }
    return node;
}

const DerNode* fieldOf(const DerNode& certificate, std::size_t field) {
    if (certificate.parts.empty() || certificate.parts.front().parts.empty()) {
        return nullptr;
    }
    const auto& fields = certificate.parts.front().parts;
    const std::size_t index = field + (fields.front().tag == '\xA0' ? 1 : 0);
    return index < fields.size() ? &fields[index] : nullptr;
}
constexpr std::size_t issuerField = 2;
constexpr std::size_t keyField = 5;

std::string digestOf(std::string_view bytes, const EVP_MD* kind) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, kind, nullptr);
    return {reinterpret_cast<const char*>(digest.data()), size};
}

std::string signatureOver(std::string_view bytes, EVP_PKEY* key, const EVP_MD* digest) {
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    std::array<unsigned char, 1024> signature{};
    std::size_t size = signature.size();
    const bool isEd25519 = EVP_PKEY_get_base_id(key) == EVP_PKEY_ED25519;
    if (EVP_DigestSignInit(context, nullptr, isEd25519 ? nullptr : digest, nullptr, key) != 1 ||
        EVP_DigestSign(
            context,
            signature.data(),
            &size,
            reinterpret_cast<const unsigned char*>(bytes.data()),
            bytes.size()) != 1) {
        std::abort();
    }
    EVP_MD_CTX_free(context);
    return {reinterpret_cast<const char*>(signature.data()), size};
}

const EVP_MD* digestNamed(const DerNode* algorithm) {
    const std::string_view name = algorithm != nullptr && !algorithm->parts.empty()
                                      ? std::string_view(algorithm->parts.front().content)
                                      : ""sv;
    return name == sha384 ? EVP_sha384() : name == sha512 ? EVP_sha512() : EVP_sha256();
}

/// The element with this tag; null if there is none.
DerNode* withTag(DerNode* node, char tag) {
    if (node != nullptr) {
        for (DerNode& part : node->parts) {
            if (part.tag == tag) {
                return &part;
            }
        }
    }
    return nullptr;
}

void changeContent(std::string& content, std::mt19937& random) {
    constexpr std::size_t room = 64;
    const std::size_t size = content.size();
    content.resize(size + below(room, random) + 1);
    content.resize(
        LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(content.data()), size, content.size()));
}

}  // namespace

SignatureAuthor::SignatureAuthor()
    : root_(authority("Root", p256<'R'>)),
      secondRoot_(edAuthority()),
      foreignRoot_(authority("Foreign root", p256<'F'>)),
      intermediate_(authority("Intermediate", p256<'I'>), &root_),
      developerID_(developerIDAuthority(), &root_),
      roots_(root_.certificatePem() + secondRoot_.certificatePem()) {
    for (const Identity* const issuer :
         {&root_, &secondRoot_, &foreignRoot_, &intermediate_, &developerID_}) {
        issuers_.emplace(nameOf(*issuer), issuer->key());
    }
    add(leaf(), intermediate_);
    add(leaf(rsa), intermediate_);
    add(leaf(p384), intermediate_);
    add(leaf(p521), intermediate_);
    add(leaf(), root_);
    auto ofSecondRoot = leaf();
    ofSecondRoot.digest = noDigest;
    add(ofSecondRoot, secondRoot_);
    add(leaf(), foreignRoot_);
    auto marked = leaf();
    marked.markers = {developerIDApplicationMarker};
    add(marked, developerID_);
    auto expired = leaf();
    expired.validUntil = -1;
    add(expired, intermediate_);
    auto otherUse = leaf();
    otherUse.extendedKeyUsage = "clientAuth";
    add(otherUse, intermediate_);
    auto noUse = leaf();
    noUse.keyUsage = std::nullopt;
    add(noUse, intermediate_);
    auto twoUnits = leaf();
    twoUnits.units = {"K7PD2QM4TZ", "ABCDEFGHIJ"};
    add(twoUnits, intermediate_);
}

void SignatureAuthor::add(const CertificateRequest& leaf, const Identity& issuer) {
    Identity identity(leaf, &issuer);
    auto publicKey = publicKeyOf(identity);
    signers_.push_back(
        {.leaf = std::move(identity), .publicKey = std::move(publicKey), .issuer = &issuer});
}

std::string SignatureAuthor::message(std::mt19937& random) const {
    const Signer& signer = signers_[below(signers_.size(), random)];
    MessageRequest request{.signers = {&signer.leaf}, .certificates = {}};
    if (signer.issuer == &intermediate_ || signer.issuer == &developerID_) {
        request.certificates.push_back(signer.issuer->certificate());
    }
    constexpr std::array digests = {"SHA256", "SHA384", "SHA512", "SHA1"};
    request.digest = digests.at(below(digests.size(), random));
    request.namesKey = below(4, random) == 0;
    return cmsMessage(signedContent("program", clientIdentifier), request);
}

std::string SignatureAuthor::changed(
    std::string_view message, std::size_t maxSize, std::mt19937& random) const {
    auto nodes = parseDer(message);
    std::string result;
    if (!nodes || nodes->size() != 1 || below(32, random) == 0) {
        result = this->message(random);
    } else {
        DerNode& node = nodes->front();
        for (std::size_t changes = 1 + below(3, random); changes > 0; --changes) {
            change(node, random);
        }
        sign(node, random);
        result = encoded(node);
    }
    return result.size() <= maxSize ? result : std::string();
}

void SignatureAuthor::change(DerNode& message, std::mt19937& random) const {
    const auto nodes = everyNode(message);
    DerNode& node = *nodes[below(nodes.size(), random)];
    if (!node.isConstructed()) {
        // Most elements are these: numbers, names, object identifiers.
        if (below(8, random) > 0) {
            changeContent(node.content, random);
        } else {
            changeContent(nodes[below(nodes.size(), random)]->content, random);
        }
        return;
    }
    auto& parts = node.parts;
    const std::size_t place = below(parts.size(), random);
    const auto offset = static_cast<std::ptrdiff_t>(place);
    switch (below(6, random)) {
        case 0:
            if (!parts.empty()) {
                parts.erase(parts.begin() + offset);
            }
            break;
        case 1:
            if (!parts.empty()) {
                parts.insert(parts.begin() + offset, DerNode(parts[place]));
            }
            break;
        case 2:
            if (!parts.empty()) {
                std::swap(parts[place], parts[below(parts.size(), random)]);
            }
            break;
        case 3: {
            const DerNode other = *nodes[below(nodes.size(), random)];
            parts.insert(parts.begin() + offset, other);
            break;
        }
        case 4: {
            const Signer& signer = signers_[below(signers_.size(), random)];
            const bool isLeaf = below(2, random) == 0;
            if (DerNode* const certificates = withTag(at(&message, {1, 0}), '\xA0')) {
                certificates->parts.push_back(
                    certificateNode(isLeaf ? signer.leaf : *signer.issuer));
            }
            break;
        }
        default:
            if (below(4, random) == 0) {
                node.tag = static_cast<char>(random());
            } else if (DerNode* const content = at(&message, {1, 0, 2, 1, 0})) {
                changeContent(content->content, random);
            }
    }
}

EVP_PKEY* SignatureAuthor::keyOfIssuer(const DerNode& certificate) const {
    const DerNode* const issuer = fieldOf(certificate, issuerField);
    const auto known = issuers_.find(issuer != nullptr ? encoded(*issuer) : std::string());
    return known != issuers_.end() ? known->second : intermediate_.key();
}

EVP_PKEY* SignatureAuthor::keyOfSubject(const DerNode& certificate) const {
    const DerNode* const key = fieldOf(certificate, keyField);
    const std::string bytes = key != nullptr ? encoded(*key) : std::string();
    for (const Signer& signer : signers_) {
        if (signer.publicKey == bytes) {
            return signer.leaf.key();
        }
    }
    return nullptr;
}

void SignatureAuthor::sign(DerNode& message, std::mt19937& random) const {
    const auto isLeftOut = [&] { return below(32, random) == 0; };
    DerNode* const data = at(&message, {1, 0});
    EVP_PKEY* key = nullptr;
    if (DerNode* const certificates = withTag(data, '\xA0')) {
        for (DerNode& certificate : certificates->parts) {
            if (certificate.parts.size() == 3 && !isLeftOut()) {
                certificate.parts[2].content =
                    '\0' +
                    signatureOver(
                        encoded(certificate.parts[0]), keyOfIssuer(certificate), EVP_sha256());
            }
            if (key == nullptr) {
                key = keyOfSubject(certificate);
            }
        }
    }

    DerNode* const signer =
        data != nullptr && !data->parts.empty() ? at(&data->parts.back(), {0}) : nullptr;
    DerNode* const signature = withTag(signer, 0x04);
    if (key == nullptr || signature == nullptr || isLeftOut()) {
        return;
    }
    const DerNode* const contentNode = at(data, {2, 1, 0});
    const std::string content = contentNode != nullptr ? contentNode->content : std::string();
    const EVP_MD* const digest = digestNamed(at(signer, {2}));
    DerNode* const attributes = withTag(signer, '\xA0');
    if (attributes == nullptr) {
        signature->content = signatureOver(content, key, digest);
        return;
    }
    for (DerNode& attribute : attributes->parts) {
        DerNode* const value = at(&attribute, {1, 0});
        if (value != nullptr && attribute.parts.front().content == messageDigest && !isLeftOut()) {
            value->content = digestOf(content, digest);
        }
    }
    DerNode signedAttributes = *attributes;
    signedAttributes.tag = 0x31;
    signature->content = signatureOver(encoded(signedAttributes), key, digest);
}

}  // namespace tarnvale::test
