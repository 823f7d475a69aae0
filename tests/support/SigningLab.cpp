// SPDX-License-Identifier: MIT

#include "tests/support/SigningLab.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

namespace tarnvale::test {
namespace {

void require(bool success, const char* step) {
    if (!success) {
        throw std::runtime_error(std::string("signing lab: ") + step);
    }
}

struct FreeBio {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;

std::string contentOf(BIO* bio) {
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

void addName(X509* certificate, const CertificateRequest& request) {
    X509_NAME* const name = X509_get_subject_name(certificate);
    const auto add = [name](const char* field, const std::string& text) {
        require(
            X509_NAME_add_entry_by_txt(
                name,
                field,
                MBSTRING_UTF8,
                reinterpret_cast<const unsigned char*>(text.c_str()),
                -1,
                -1,
                0) == 1,
            field);
    };
    add("CN", request.commonName);
    for (const std::string& unit : request.units) {
        add("OU", unit);
    }
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
    require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value.c_str());
    X509_EXTENSION_free(extension);
}

/// An extension whose value is the ASN.1 NULL.
void addMarker(X509* certificate, const std::string& identifier) {
    constexpr std::array<unsigned char, 2> null = {5, 0};
    ASN1_OBJECT* const name = OBJ_txt2obj(identifier.c_str(), 1);
    ASN1_OCTET_STRING* const value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, null.data(), static_cast<int>(null.size()));
    X509_EXTENSION* const extension = X509_EXTENSION_create_by_OBJ(nullptr, name, 0, value);
    require(X509_add_ext(certificate, extension, -1) == 1, "add a marker");
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(name);
}

CertificateRequest authority(const std::string& name, std::vector<std::string> markers) {
    return {
        .commonName = name,
        .units = {},
        .isAuthority = true,
        .keyUsage = "keyCertSign",
        .extendedKeyUsage = std::nullopt,
        .markers = std::move(markers)};
}

Chain chainOf(const CertificateRequest& leaf, std::vector<std::string> intermediateMarkers) {
    Identity root(authority("Root", {}));
    Identity intermediate(authority("Intermediate", std::move(intermediateMarkers)), &root);
    Identity last(leaf, &intermediate);
    return {
        .root = std::move(root), .intermediate = std::move(intermediate), .leaf = std::move(last)};
}

}  // namespace

Identity::Identity(const CertificateRequest& request, const Identity* issuer)
    : key_(
          request.makeKey != nullptr ? request.makeKey()
          : request.weakKey          ? EVP_RSA_gen(1024)
                                     : EVP_EC_gen("P-256")),
      certificate_(X509_new()) {
    X509* const made = certificate_.get();
    std::uint32_t serial = 0;
    require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) == 1, "serial");
    X509_set_version(made, X509_VERSION_3);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(made), serial);
    X509_gmtime_adj(X509_getm_notBefore(made), request.validFrom);
    X509_gmtime_adj(X509_getm_notAfter(made), request.validUntil);
    X509_set_pubkey(made, key_.get());
    addName(made, request);

    X509* const issuing = issuer == nullptr ? made : issuer->certificate();
    X509_set_issuer_name(made, X509_get_subject_name(issuing));
    addExtension(made, issuing, NID_subject_key_identifier, "hash");
    addExtension(made, issuing, NID_authority_key_identifier, "keyid");
    addExtension(
        made,
        issuing,
        NID_basic_constraints,
        request.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (request.keyUsage) {
        addExtension(made, issuing, NID_key_usage, "critical," + *request.keyUsage);
    }
    if (request.extendedKeyUsage) {
        addExtension(made, issuing, NID_ext_key_usage, *request.extendedKeyUsage);
    }
    for (const std::string& marker : request.markers) {
        addMarker(made, marker);
    }
    EVP_PKEY* const signing = issuer == nullptr ? key() : issuer->key();
    require(X509_sign(made, signing, request.digest()) > 0, "sign a certificate");
}

std::string Identity::certificatePem() const {
    const Bio bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509(bio.get(), certificate()) == 1, "write a certificate");
    return contentOf(bio.get());
}

CertificateRequest codeSigningLeaf() {
    CertificateRequest leaf;
    leaf.keyUsage = "digitalSignature";
    leaf.extendedKeyUsage = "codeSigning";
    return leaf;
}

Chain Chain::development(const std::string& unit) {
    CertificateRequest leaf = codeSigningLeaf();
    leaf.units = {unit};
    return withLeaf(leaf);
}

Chain Chain::developerID(const std::string& unit) {
    CertificateRequest leaf = codeSigningLeaf();
    leaf.units = {unit};
    leaf.markers = {developerIDApplicationMarker};
    return chainOf(leaf, {developerIDAuthorityMarker});
}

Chain Chain::withLeaf(const CertificateRequest& leaf) {
    return chainOf(leaf, {});
}

std::string cmsMessage(std::string_view content, const MessageRequest& request) {
    const Bio input(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    unsigned int flags = CMS_BINARY | CMS_PARTIAL;
    if (!request.contentInside) {
        flags |= CMS_DETACHED;
    }
    CMS_ContentInfo* const message = CMS_sign(nullptr, nullptr, nullptr, input.get(), flags);
    require(message != nullptr, "begin a message");
    for (const Identity* signer : request.signers) {
        require(
            CMS_add1_signer(
                message,
                signer->certificate(),
                signer->key(),
                EVP_get_digestbyname(request.digest.c_str()),
                CMS_BINARY | (request.namesKey ? CMS_USE_KEYID : 0U)) != nullptr,
            "add a signer");
    }
    for (X509* certificate : request.certificates) {
        require(CMS_add1_cert(message, certificate) == 1, "add a certificate");
    }
    if (request.signers.empty()) {
        // OpenSSL doesn't finish a message that nobody signs.
        ASN1_OCTET_STRING** const inside = CMS_get0_content(message);
        if (*inside == nullptr) {
            *inside = ASN1_OCTET_STRING_new();
        }
        ASN1_OCTET_STRING_set(
            *inside,
            reinterpret_cast<const unsigned char*>(content.data()),
            static_cast<int>(content.size()));
    } else {
        require(CMS_final(message, input.get(), nullptr, flags) == 1, "sign a message");
    }

    unsigned char* bytes = nullptr;
    const int size = i2d_CMS_ContentInfo(message, &bytes);
    require(size > 0, "encode a message");
    std::string der(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    CMS_ContentInfo_free(message);
    return der;
}

std::string signedContent(std::string_view program, std::string_view identifier) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    require(
        EVP_Digest(program.data(), program.size(), digest.data(), &length, EVP_sha256(), nullptr) ==
            1,
        "digest");
    std::string text =
        "tarnvale-code-signature 1\nidentifier " + std::string(identifier) + "\nsha256 ";
    for (unsigned int index = 0; index < length; ++index) {
        constexpr std::string_view digits = "0123456789abcdef";
        text += digits[digest[index] >> 4U];
        text += digits[digest[index] & 0xFU];
    }
    return text + "\n";
}

std::string signatureOf(std::string_view program, std::string_view identifier, const Chain& chain) {
    return cmsMessage(
        signedContent(program, identifier),
        {.signers = {&chain.leaf}, .certificates = {chain.intermediate.certificate()}});
}

std::string withTrailer(
    std::string_view program, std::string_view message, std::optional<std::uint32_t> length) {
    const std::uint32_t claimed = length.value_or(static_cast<std::uint32_t>(message.size()));
    std::string file(program);
    file += message;
    for (const unsigned int shift : {24U, 16U, 8U, 0U}) {
        file += static_cast<char>(claimed >> shift & 0xFFU);
    }
    return file + "~Tarnvale code signature~\n";
}

std::string signedProgram(
    std::string_view program, std::string_view identifier, const Chain& chain) {
    return withTrailer(program, signatureOf(program, identifier, chain));
}

}  // namespace tarnvale::test
