// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/SignedData.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/SigningLab.h"

namespace tarnvale::platform {
namespace {

using test::Chain;
using test::clientIdentifier;
using test::cmsMessage;
using test::Identity;
using testing::AllOf;
using testing::Contains;
using testing::Eq;
using testing::Ge;
using testing::Le;
using testing::Not;
using testing::Optional;
using testing::SizeIs;

/// Valid for the empty program.
std::string content() {
    return test::signedContent("", clientIdentifier);
}

SignedContent parsedContent() {
    return parseSignedContent(content()).value();
}

class SignedDataTest : public testing::Test {
protected:
    std::string messageBy(const Identity& leaf) const {
        return cmsMessage(
            content(), {.signers = {&leaf}, .certificates = {chain.intermediate.certificate()}});
    }

    const Chain chain = Chain::development();
    const std::string roots = chain.root.certificatePem();
    const std::string message = test::signatureOf("", clientIdentifier, chain);
};

TEST_F(SignedDataTest, SaysWhoSignedWhat) {
    EXPECT_THAT(
        readClaims(message),
        Optional(Claims{.content = parsedContent(), .teamIdentifier = "K7PD2QM4TZ"}));
}

TEST_F(SignedDataTest, ReadsTheClaimsOfSomebodyWhomNobodyTrusts) {
    const Chain stranger = Chain::development("OTHERTEAM1");
    const std::string foreign = test::signatureOf("", "com.example", stranger);

    const auto claims = readClaims(foreign);

    ASSERT_TRUE(claims);
    EXPECT_EQ(claims->teamIdentifier, "OTHERTEAM1");
    EXPECT_EQ(claims->content.identifier, "com.example");
    EXPECT_FALSE(verify(foreign, roots));
}

TEST_F(SignedDataTest, FindsNoTeamWhereThereIsNotExactlyOne) {
    auto leaf = test::codeSigningLeaf();
    leaf.units = {};
    const Identity none(leaf, &chain.intermediate);
    leaf.units = {"K7PD2QM4TZ", "OTHERTEAM1"};
    const Identity two(leaf, &chain.intermediate);

    for (const Identity* identity : {&none, &two}) {
        const auto claims = readClaims(messageBy(*identity));
        ASSERT_TRUE(claims);
        EXPECT_THAT(claims->teamIdentifier, Eq(std::nullopt));
        const auto trusted = verify(messageBy(*identity), roots);
        ASSERT_TRUE(trusted);
        EXPECT_THAT(trusted->chain[0].subjectOU, Eq(std::nullopt));
    }
}

TEST_F(SignedDataTest, TrustsAChainUpToARoot) {
    const auto trusted = verify(message, roots);

    ASSERT_TRUE(trusted);
    EXPECT_EQ(trusted->content, parsedContent());
    ASSERT_THAT(trusted->chain, SizeIs(3));
    EXPECT_EQ(trusted->chain[0].subjectOU, "K7PD2QM4TZ");
    EXPECT_THAT(trusted->chain[1].subjectOU, Eq(std::nullopt));
    EXPECT_THAT(trusted->chain[0].extensions, Contains("2.5.29.37"));
    EXPECT_THAT(trusted->chain[0].extensions, Not(Contains("1.2.840.113635.100.6.1.13")));
    EXPECT_THAT(
        trusted->validUntil, AllOf(Ge(std::time(nullptr) + 3500), Le(std::time(nullptr) + 3600)));
}

TEST_F(SignedDataTest, SeesTheMarkersOfDeveloperID) {
    const Chain developerID = Chain::developerID();

    const auto trusted = verify(
        test::signatureOf("", clientIdentifier, developerID), developerID.root.certificatePem());

    ASSERT_TRUE(trusted);
    EXPECT_THAT(trusted->chain[0].extensions, Contains("1.2.840.113635.100.6.1.13"));
    EXPECT_THAT(trusted->chain[1].extensions, Contains("1.2.840.113635.100.6.2.6"));
}

TEST_F(SignedDataTest, IsValidUntilTheFirstCertificateExpires) {
    auto leaf = test::codeSigningLeaf();
    leaf.validUntil = 100;
    const Chain shorter = Chain::withLeaf(leaf);

    const auto trusted =
        verify(test::signatureOf("", clientIdentifier, shorter), shorter.root.certificatePem());

    ASSERT_TRUE(trusted);
    EXPECT_THAT(
        trusted->validUntil, AllOf(Ge(std::time(nullptr) + 90), Le(std::time(nullptr) + 100)));
}

TEST_F(SignedDataTest, TrustsNobodyWithoutRoots) {
    EXPECT_FALSE(verify(message, ""));
    EXPECT_FALSE(verify(message, "no certificate\n"));
}

TEST_F(SignedDataTest, TrustsOneOfSeveralRoots) {
    const Chain other = Chain::development();

    EXPECT_TRUE(verify(message, "Comment\n" + other.root.certificatePem() + "\n" + roots));
    EXPECT_FALSE(verify(message, other.root.certificatePem()));
}

TEST_F(SignedDataTest, GoesByTheRootsOfEachCheckAlone) {
    const std::string others = Chain::development().root.certificatePem();
    prepareToVerify(others);

    EXPECT_TRUE(verify(message, roots));
    EXPECT_FALSE(verify(message, others));
    EXPECT_FALSE(verify(message, ""));
    EXPECT_TRUE(verify(message, roots));
}

TEST_F(SignedDataTest, TrustsNobodyWhenTheRootsAreDamaged) {
    std::string damaged = roots;
    damaged[damaged.size() / 2] = '!';

    EXPECT_FALSE(verify(message, damaged));
    EXPECT_FALSE(verify(message, roots + damaged));
    EXPECT_FALSE(verify(message, roots + "-----BEGIN CERTIFICATE-----\n"));
}

TEST_F(SignedDataTest, TakesNoIntermediateForARoot) {
    EXPECT_FALSE(verify(message, chain.intermediate.certificatePem()));
    EXPECT_FALSE(verify(message, chain.leaf.certificatePem()));
}

TEST_F(SignedDataTest, NeedsTheIntermediate) {
    const std::string alone = cmsMessage(content(), {.signers = {&chain.leaf}, .certificates = {}});

    EXPECT_TRUE(readClaims(alone));
    EXPECT_FALSE(verify(alone, roots));
}

TEST_F(SignedDataTest, TrustsALeafWithRootAndIntermediateInAnyOrder) {
    EXPECT_TRUE(verify(
        cmsMessage(
            content(),
            {.signers = {&chain.leaf},
             .certificates =
                 {chain.root.certificate(),
                  Chain::development().intermediate.certificate(),
                  chain.intermediate.certificate()}}),
        roots));
}

TEST_F(SignedDataTest, TrustsOnlyLeavesThatMaySignCode) {
    const auto isTrusted = [&](const test::CertificateRequest& leaf) {
        return verify(messageBy(Identity(leaf, &chain.intermediate)), roots).has_value();
    };
    auto leaf = test::codeSigningLeaf();
    EXPECT_TRUE(isTrusted(leaf));
    leaf.extendedKeyUsage = "serverAuth,codeSigning";
    EXPECT_TRUE(isTrusted(leaf));
    leaf.extendedKeyUsage = "serverAuth,emailProtection";
    EXPECT_FALSE(isTrusted(leaf));
    leaf.extendedKeyUsage = "anyExtendedKeyUsage";
    EXPECT_FALSE(isTrusted(leaf));
    leaf.extendedKeyUsage = std::nullopt;
    EXPECT_FALSE(isTrusted(leaf));

    leaf = test::codeSigningLeaf();
    leaf.keyUsage = std::nullopt;
    EXPECT_TRUE(isTrusted(leaf));
    leaf.keyUsage = "keyEncipherment";
    EXPECT_FALSE(isTrusted(leaf));
}

TEST_F(SignedDataTest, TrustsNoCertificateBeforeOrAfterItsTime) {
    auto leaf = test::codeSigningLeaf();
    leaf.validFrom = -7200;
    leaf.validUntil = -10;
    EXPECT_FALSE(verify(messageBy(Identity(leaf, &chain.intermediate)), roots));
    leaf.validFrom = 600;
    leaf.validUntil = 7200;
    EXPECT_FALSE(verify(messageBy(Identity(leaf, &chain.intermediate)), roots));
}

TEST_F(SignedDataTest, TrustsNoExpiredIntermediate) {
    test::CertificateRequest authority;
    authority.commonName = "Expired intermediate";
    authority.isAuthority = true;
    authority.keyUsage = "keyCertSign";
    authority.validFrom = -7200;
    authority.validUntil = -10;
    const Identity expired(authority, &chain.root);
    const Identity leaf(test::codeSigningLeaf(), &expired);

    EXPECT_FALSE(verify(
        cmsMessage(content(), {.signers = {&leaf}, .certificates = {expired.certificate()}}),
        roots));
}

TEST_F(SignedDataTest, SaysWhyItTrustsNoChain) {
    EXPECT_EQ(chainProblem(message, roots), std::nullopt);
    EXPECT_EQ(chainProblem("no message", roots), std::nullopt);
    EXPECT_EQ(
        chainProblem(message, Chain::development().root.certificatePem()),
        "unable to get local issuer certificate");

    auto leaf = test::codeSigningLeaf();
    leaf.validFrom = -7200;
    leaf.validUntil = -10;
    EXPECT_EQ(
        chainProblem(messageBy(Identity(leaf, &chain.intermediate)), roots),
        "certificate has expired");
    leaf = test::codeSigningLeaf();
    leaf.extendedKeyUsage = std::nullopt;
    EXPECT_EQ(
        chainProblem(messageBy(Identity(leaf, &chain.intermediate)), roots),
        "certificate isn't for code signing");
}

TEST_F(SignedDataTest, TrustsNoCertificateIssuedByALeaf) {
    const Identity below(test::codeSigningLeaf(), &chain.leaf);

    EXPECT_FALSE(verify(
        cmsMessage(
            content(),
            {.signers = {&below},
             .certificates = {chain.leaf.certificate(), chain.intermediate.certificate()}}),
        roots));
}

TEST_F(SignedDataTest, TrustsNoIssuerThatOnlyBearsTheNameOfOne) {
    const Chain impostor = Chain::development();

    EXPECT_FALSE(verify(test::signatureOf("", clientIdentifier, impostor), roots));
    EXPECT_FALSE(verify(
        cmsMessage(
            content(),
            {.signers = {&impostor.leaf},
             .certificates =
                 {impostor.intermediate.certificate(), chain.intermediate.certificate()}}),
        roots));
}

TEST_F(SignedDataTest, TrustsNoWeakKeyAndNoWeakDigest) {
    auto leaf = test::codeSigningLeaf();
    leaf.weakKey = true;
    EXPECT_FALSE(verify(messageBy(Identity(leaf, &chain.intermediate)), roots));

    for (const auto& [digest, isStrong] : std::vector<std::pair<std::string, bool>>{
             {"SHA1", false},
             {"SHA224", false},
             {"SHA256", true},
             {"SHA384", true},
             {"SHA512", true}}) {
        EXPECT_EQ(
            verify(
                cmsMessage(
                    content(),
                    {.signers = {&chain.leaf},
                     .certificates = {chain.intermediate.certificate()},
                     .digest = digest}),
                roots)
                .has_value(),
            isStrong)
            << digest;
    }
}

TEST_F(SignedDataTest, TrustsNoRootWithAWeakKey) {
    for (const bool isWeak : {false, true}) {
        test::CertificateRequest authority;
        authority.isAuthority = true;
        authority.keyUsage = "keyCertSign";
        authority.commonName = "Root";
        authority.weakKey = isWeak;
        const Identity root(authority);
        authority.commonName = "Intermediate";
        authority.weakKey = false;
        const Identity intermediate(authority, &root);
        const Identity leaf(test::codeSigningLeaf(), &intermediate);
        const std::string ownMessage = cmsMessage(
            content(), {.signers = {&leaf}, .certificates = {intermediate.certificate()}});

        EXPECT_EQ(verify(ownMessage, root.certificatePem()).has_value(), !isWeak);
    }
}

TEST_F(SignedDataTest, RefusesASignatureOfOtherContent) {
    const std::string other = test::signatureOf("", "com.brackwen.tarnvalf", chain);
    std::string forged = other;
    forged.replace(forged.find("com.brackwen.tarnvalf"), 21, clientIdentifier);

    EXPECT_TRUE(verify(other, roots));
    EXPECT_EQ(readClaims(forged)->content.identifier, clientIdentifier);
    EXPECT_FALSE(verify(forged, roots));
}

TEST_F(SignedDataTest, TrustsNoOtherContentWhereverABitIsChanged) {
    for (std::size_t place = 0; place < message.size(); place += 3) {
        std::string changed = message;
        changed[place] = static_cast<char>(changed[place] ^ (1 << place % 8));

        const auto trusted = verify(changed, roots);

        // Other bytes may say the same and stay valid; what they say must not change.
        if (trusted) {
            EXPECT_EQ(trusted->content, parsedContent()) << place;
            EXPECT_EQ(trusted->chain[0].subjectOU, "K7PD2QM4TZ") << place;
            // What our own reader makes of it is what OpenSSL makes of it.
            EXPECT_EQ(readClaims(changed)->content, trusted->content) << place;
            EXPECT_EQ(readClaims(changed)->teamIdentifier, trusted->chain[0].subjectOU) << place;
        }
    }
}

TEST_F(SignedDataTest, RefusesAMessageCutAnywhere) {
    for (std::size_t size = 0; size < message.size(); ++size) {
        EXPECT_FALSE(readClaims(message.substr(0, size))) << size;
    }
    EXPECT_FALSE(readClaims(message + '\0')) << "and one with something behind it";
    EXPECT_FALSE(verify(message + '\0', roots));
}

TEST_F(SignedDataTest, RefusesWhatIsNoSignedData) {
    EXPECT_FALSE(readClaims(""));
    EXPECT_FALSE(readClaims("no ASN.1"));
    EXPECT_FALSE(readClaims(std::string(1 << 20, '\x30')));
    EXPECT_FALSE(readClaims(chain.leaf.certificatePem()));
}

TEST_F(SignedDataTest, RefusesAMessageOfNoneOrTwoSigners) {
    const Identity second(test::codeSigningLeaf(), &chain.intermediate);

    for (const std::vector<const Identity*>& signers :
         {std::vector<const Identity*>{}, {&chain.leaf, &second}}) {
        const std::string wrong = cmsMessage(
            content(),
            {.signers = signers,
             .certificates = {chain.intermediate.certificate(), chain.root.certificate()}});
        EXPECT_FALSE(readClaims(wrong));
        EXPECT_FALSE(verify(wrong, roots));
    }
}

TEST_F(SignedDataTest, RefusesMoreThanSixteenCertificates) {
    std::vector<Identity> others;
    std::vector<X509*> certificates = {chain.intermediate.certificate()};
    for (int count = 0; count < 999; ++count) {
        others.emplace_back(test::CertificateRequest{});
        certificates.push_back(others.back().certificate());
    }
    const auto messageWith = [&](std::ptrdiff_t count) {
        return cmsMessage(
            content(),
            {.signers = {&chain.leaf},
             .certificates = {certificates.begin(), certificates.begin() + count}});
    };

    EXPECT_TRUE(verify(messageWith(15), roots)) << "the signer's makes 16";
    EXPECT_FALSE(readClaims(messageWith(16)));
    EXPECT_FALSE(verify(messageWith(16), roots));
    EXPECT_FALSE(readClaims(messageWith(1000)));
}

TEST_F(SignedDataTest, RefusesAMessageWithoutItsContent) {
    const std::string detached = cmsMessage(
        content(),
        {.signers = {&chain.leaf},
         .certificates = {chain.intermediate.certificate()},
         .contentInside = false});

    EXPECT_FALSE(readClaims(detached));
    EXPECT_FALSE(verify(detached, roots));
}

TEST_F(SignedDataTest, RefusesContentThatIsNotTheThreeLines) {
    for (const std::string& wrong :
         {std::string(), std::string("hello\n"), content() + "more\n", content() + content()}) {
        const std::string signedWrong = cmsMessage(
            wrong, {.signers = {&chain.leaf}, .certificates = {chain.intermediate.certificate()}});
        EXPECT_FALSE(readClaims(signedWrong)) << wrong;
        EXPECT_FALSE(verify(signedWrong, roots)) << wrong;
    }
}

TEST_F(SignedDataTest, LeavesNoErrorsBehind) {
    readClaims("no ASN.1");
    verify(message, "no roots");

    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(SignedDataTest, IsSafeFromAnyThread) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int count = 0; count < 8; ++count) {
        threads.emplace_back([this] {
            for (int round = 0; round < 10; ++round) {
                EXPECT_TRUE(readClaims(message));
                EXPECT_TRUE(verify(message, roots));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Each test has a process of its own, so OpenSSL starts afresh here.
TEST(LibcryptoTest, HeedsNoConfigurationOfTheEnvironment) {
    std::ofstream("/tmp/openssl.cnf") << "openssl_conf = all\n[all]\nalg_section = evp\n"
                                         "[evp]\ndefault_properties = provider=none\n";
    ::setenv("OPENSSL_CONF", "/tmp/openssl.cnf", 1);
    const support::UniqueFd file(::memfd_create("program", MFD_CLOEXEC));

    EXPECT_THAT(sha256(file.get(), 0), Optional(SizeIs(64)));
}

void write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Kind {
    const char* name;
    EVP_PKEY* (*makeKey)();
    const char* digestName;
    const EVP_MD* (*digest)();
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {"P-256", [] { return EVP_EC_gen("P-256"); }, "SHA256", EVP_sha256},
        {"P-384", [] { return EVP_EC_gen("P-384"); }, "SHA384", EVP_sha384},
        {"P-521", [] { return EVP_EC_gen("P-521"); }, "SHA512", EVP_sha512},
        {"RSA", [] { return EVP_RSA_gen(2048); }, "SHA256", EVP_sha256}};
    return all;
}

std::string messagePath(const Kind& kind) {
    return std::string("/tmp/message ") + kind.name;
}

std::string rootPath(const Kind& kind) {
    return std::string("/tmp/root ") + kind.name;
}

void makeMessage(const Kind& kind) {
    const auto identity = [&kind](const char* name, const Identity* issuer) {
        auto request = test::codeSigningLeaf();
        request.commonName = name;
        request.isAuthority = request.commonName != "leaf";
        request.keyUsage = request.isAuthority ? "keyCertSign" : "digitalSignature";
        request.makeKey = kind.makeKey;
        request.digest = kind.digest;
        return Identity(request, issuer);
    };
    const auto root = identity("root", nullptr);
    const auto intermediate = identity("intermediate", &root);
    const auto leaf = identity("leaf", &intermediate);
    write(rootPath(kind), root.certificatePem());
    write(
        messagePath(kind),
        cmsMessage(
            content(),
            {.signers = {&leaf},
             .certificates = {intermediate.certificate()},
             .digest = kind.digestName}));
}

/// Another process makes the messages, so that OpenSSL has only what we let it load here.
TEST(LibcryptoTest, LoadsWhatEveryKindOfSignatureTakes) {
    const pid_t maker = ::fork();
    if (maker == 0) {
        std::for_each(kinds().begin(), kinds().end(), makeMessage);
        ::_exit(EXIT_SUCCESS);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(maker, &status, 0), maker);
    ASSERT_EQ(status, 0);

    for (const Kind& kind : kinds()) {
        EXPECT_TRUE(verify(read(messagePath(kind)), read(rootPath(kind)))) << kind.name;
    }
}

TEST(Sha256Test, DigestsTheFirstBytesOfAFile) {
    const support::UniqueFd file(::memfd_create("program", MFD_CLOEXEC));
    const std::string bytes = "abc" + std::string(200'000, 'x');
    ASSERT_EQ(
        ::pwrite(file.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));

    EXPECT_EQ(
        sha256(file.get(), 0), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(
        sha256(file.get(), 3), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(
        sha256(file.get(), 200'003), parseSignedContent(test::signedContent(bytes, "x"))->sha256);
    EXPECT_THAT(sha256(file.get(), 200'004), Eq(std::nullopt)) << "more than there is";
    EXPECT_THAT(sha256(-1, 3), Eq(std::nullopt));
}

}  // namespace
}  // namespace tarnvale::platform
