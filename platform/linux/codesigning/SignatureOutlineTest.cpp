// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/SignatureOutline.h"

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "platform/linux/codesigning/SignedData.h"
#include "tests/support/HostileSignatures.h"
#include "tests/support/SigningLab.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using test::Chain;
using test::clientIdentifier;
using test::derElement;
using test::Identity;
using testing::Eq;
using testing::Optional;
using Clock = std::chrono::steady_clock;

std::string derOf(const Identity& identity) {
    unsigned char* bytes = nullptr;
    const int size = i2d_X509(identity.certificate(), &bytes);
    EXPECT_GT(size, 0);
    std::string der(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return der;
}

/// A key of a named curve, with its curve and its point encoded in this way.
EVP_PKEY* encodedKey(const char* curve, const char* encoding, const char* point) {
    EVP_PKEY* const key = EVP_EC_gen(curve);
    EXPECT_EQ(EVP_PKEY_set_utf8_string_param(key, OSSL_PKEY_PARAM_EC_ENCODING, encoding), 1);
    EXPECT_EQ(
        EVP_PKEY_set_utf8_string_param(key, OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, point), 1);
    return key;
}

class SignatureOutlineTest : public testing::Test {
protected:
    std::string with(const std::vector<std::string>& certificates) const {
        return test::withFurtherCertificates(message, certificates);
    }

    /// Whether a message may carry a certificate with a key that is made in this way.
    bool takesKey(EVP_PKEY* (*makeKey)()) const {
        test::CertificateRequest request;
        request.makeKey = makeKey;
        return readOutline(with({derOf(Identity(request, &chain.root))})).has_value();
    }

    /// The same with an RSA key of these numbers.
    bool takesRsaKey(const std::string& modulus, const std::string& exponent) const {
        const std::string rsa =
            derElement(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01") + derElement(0x05, "");
        const std::string key =
            derElement(0x30, derElement(0x02, modulus) + derElement(0x02, exponent));
        return readOutline(with({test::unsignedCertificate(
                               derElement(0x30, rsa) + derElement(0x03, "\0"s + key),
                               test::ecdsaWithSha256())}))
            .has_value();
    }

    const Chain chain = Chain::development();
    const std::string message = test::signatureOf("", clientIdentifier, chain);
};

TEST_F(SignatureOutlineTest, FindsTheContentAndTheSigner) {
    const auto outline = readOutline(message);

    ASSERT_TRUE(outline);
    EXPECT_EQ(outline->content, test::signedContent("", clientIdentifier));
    EXPECT_THAT(organizationalUnitOf(outline->signerSubject), Optional("K7PD2QM4TZ"s));
}

TEST_F(SignatureOutlineTest, FindsASignerWhoIsNamedByItsKey) {
    const std::string named = test::cmsMessage(
        test::signedContent("", clientIdentifier),
        {.signers = {&chain.leaf},
         .certificates = {chain.intermediate.certificate()},
         .namesKey = true});

    EXPECT_TRUE(readClaims(named));
    EXPECT_TRUE(verify(named, chain.root.certificatePem()));
}

TEST_F(SignatureOutlineTest, KnowsTheSignersCertificateFromOneWithItsNumberAlone) {
    const Identity other({}, &chain.root);
    X509_set_serialNumber(other.certificate(), X509_get_serialNumber(chain.leaf.certificate()));
    ASSERT_GT(X509_sign(other.certificate(), chain.root.key(), EVP_sha256()), 0);

    EXPECT_TRUE(readOutline(with({derOf(other)})));
}

TEST_F(SignatureOutlineTest, HasOneCertificateThatTheSignerNames) {
    EXPECT_FALSE(readOutline(with({derOf(chain.leaf)})));
}

TEST_F(SignatureOutlineTest, TakesTheKindsOfKeyThatSignaturesHave) {
    EXPECT_TRUE(takesKey([] { return EVP_EC_gen("P-256"); }));
    EXPECT_TRUE(takesKey([] { return EVP_EC_gen("P-384"); }));
    EXPECT_TRUE(takesKey([] { return EVP_EC_gen("P-521"); }));
    EXPECT_TRUE(takesKey([] { return EVP_RSA_gen(2048); }));
    EXPECT_TRUE(takesKey([] { return EVP_RSA_gen(3072); }));
    EXPECT_TRUE(takesKey([] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"); }));
}

TEST_F(SignatureOutlineTest, TakesNoOtherKindOfKey) {
    EXPECT_FALSE(takesKey([] { return EVP_EC_gen("secp256k1"); }));
    EXPECT_FALSE(takesKey([] { return EVP_EC_gen("P-224"); }));
    EXPECT_FALSE(takesKey([] { return EVP_EC_gen("brainpoolP512r1"); }));
    EXPECT_FALSE(takesKey([] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"); }));
    EXPECT_FALSE(takesKey([] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"); }));
    EXPECT_FALSE(takesKey([] { return EVP_RSA_gen(1024); }));
}

TEST_F(SignatureOutlineTest, TakesNoCurveInOtherWordsAndNoCompressedPoint) {
    EXPECT_TRUE(takesKey([] { return encodedKey("P-256", "named_curve", "uncompressed"); }));

    EXPECT_FALSE(takesKey([] { return encodedKey("P-256", "explicit", "uncompressed"); }));
    EXPECT_FALSE(takesKey([] { return encodedKey("P-256", "named_curve", "compressed"); }));
    EXPECT_FALSE(takesKey([] { return encodedKey("P-521", "named_curve", "hybrid"); }));
}

TEST_F(SignatureOutlineTest, TakesAnRsaKeyWithinItsBounds) {
    const std::string usual = "\x01\x00\x01"s;
    const auto modulus = [](std::size_t bytes, unsigned int first, unsigned int last = 1) {
        std::string digits(bytes, '\x55');
        digits.front() = static_cast<char>(first);
        digits.back() = static_cast<char>(last);
        return first >= 0x80 ? '\0' + digits : digits;
    };

    EXPECT_TRUE(takesRsaKey(modulus(256, 0x80), usual));
    EXPECT_TRUE(takesRsaKey(modulus(1024, 0xFF), usual));
    EXPECT_TRUE(takesRsaKey(modulus(256, 0x80), "\x03"));
    EXPECT_TRUE(takesRsaKey(modulus(256, 0x80), "\0\xFF\xFF\xFF\xFF"s));

    EXPECT_FALSE(takesRsaKey(modulus(256, 0x7F), usual)) << "2,047 bits";
    EXPECT_FALSE(takesRsaKey(modulus(1025, 0x01), usual)) << "8,193 bits";
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80, 0), usual)) << "even";
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80).substr(1), usual)) << "negative";
    EXPECT_FALSE(takesRsaKey("", usual));
    EXPECT_FALSE(takesRsaKey("\0"s, usual));
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80), "\x01"));
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80), "\x02"));
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80), ""));
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80), "\x01\x00\x00\x00\x01"s));
    EXPECT_FALSE(takesRsaKey(modulus(256, 0x80), modulus(256, 0x40)));
}

TEST_F(SignatureOutlineTest, TakesNoOtherSignatureOfACertificate) {
    const std::string key =
        derElement(0x30, "\x06\x03\x2B\x65\x70") + derElement(0x03, "\0"s + std::string(32, 'k'));
    const auto takes = [&](const std::string& algorithm) {
        return readOutline(with({test::unsignedCertificate(key, algorithm)})).has_value();
    };
    const std::string pss = derElement(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0A");
    const std::string sha1WithRsa =
        derElement(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x05") + derElement(0x05, "");

    EXPECT_TRUE(takes(test::ecdsaWithSha256()));

    EXPECT_FALSE(takes(test::ecdsaWithSha256() + derElement(0x05, "")));
    EXPECT_FALSE(takes(pss));
    EXPECT_FALSE(takes(sha1WithRsa));
    EXPECT_FALSE(takes(""));
}

TEST_F(SignatureOutlineTest, IsThatOfSignedDataOnly) {
    EXPECT_TRUE(
        readOutline(test::withContentType(message, "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x02")));

    for (const char kind : {'\x01', '\x03', '\x05', '\x06'}) {
        const auto type = "\x2A\x86\x48\x86\xF7\x0D\x01\x07"s + kind;
        EXPECT_FALSE(readOutline(test::withContentType(message, type)));
    }
    EXPECT_FALSE(readOutline(message.substr(0, message.size() - 1)));
    EXPECT_FALSE(readOutline(message + '\0'));
}

TEST_F(SignatureOutlineTest, IsAQuestionOfMicrosecondsWhateverAKeySays) {
    const std::vector<std::string> costly(
        maxCertificates - 2, test::unsignedCertificate(test::costlyKey(), test::ecdsaWithSha256()));
    const std::string hostile = with(costly);
    ASSERT_TRUE(hasShapeOfSignature(hostile));
    ASSERT_TRUE(verify(message, chain.root.certificatePem())) << "which loads OpenSSL";
    const auto begin = Clock::now();

    EXPECT_FALSE(readClaims(hostile));
    EXPECT_FALSE(verify(hostile, chain.root.certificatePem()));

    EXPECT_LT(Clock::now() - begin, 100ms);
}

std::string attribute(const std::string& kind, char tag, const std::string& text) {
    return derElement(0x31, derElement(0x30, derElement(0x06, kind) + derElement(tag, text)));
}

TEST(OrganizationalUnitTest, IsTheOnlyOneOfTheName) {
    const std::string unit = "\x55\x04\x0B";
    const std::string common = attribute("\x55\x04\x03", 0x0C, "common");

    EXPECT_THAT(organizationalUnitOf(common + attribute(unit, 0x0C, "team")), Optional("team"s));
    EXPECT_THAT(organizationalUnitOf(attribute(unit, 0x13, "team") + common), Optional("team"s));

    EXPECT_THAT(organizationalUnitOf(""), Eq(std::nullopt));
    EXPECT_THAT(organizationalUnitOf(common), Eq(std::nullopt));
    EXPECT_THAT(
        organizationalUnitOf(attribute(unit, 0x0C, "team") + attribute(unit, 0x0C, "team")),
        Eq(std::nullopt));
    EXPECT_THAT(organizationalUnitOf(attribute(unit, 0x1E, "\0t"s)), Eq(std::nullopt));
    EXPECT_THAT(organizationalUnitOf(attribute(unit, 0x0C, "\xFF")), Eq(std::nullopt));
    EXPECT_THAT(organizationalUnitOf(attribute(unit, 0x0C, "team") + "?"), Eq(std::nullopt));
}

}  // namespace
}  // namespace tarnvale::platform
