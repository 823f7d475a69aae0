// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/CodeSignature.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/SigningLab.h"

namespace tarnvale::platform {
namespace {

using testing::Eq;
using testing::Optional;

constexpr std::string_view digest =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::optional<SignatureTrailer> trailerOf(const std::string& bytes) {
    const support::UniqueFd file(::memfd_create("executable", MFD_CLOEXEC));
    EXPECT_EQ(
        ::pwrite(file.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return readTrailer(file.get(), static_cast<off_t>(bytes.size()));
}

std::string contentText(
    const std::string& identifier = "com.brackwen.tarnvale",
    const std::string& sha256 = std::string(digest)) {
    return "tarnvale-code-signature 1\nidentifier " + identifier + "\nsha256 " + sha256 + "\n";
}

TEST(CodeSignatureTest, TellsTheProgramFromItsTrailer) {
    const auto trailer = trailerOf(test::withTrailer("program", "message"));

    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->programSize, 7);
    EXPECT_EQ(trailer->message, "message");
}

TEST(CodeSignatureTest, ReadsATrailerBehindNoProgram) {
    const auto trailer = trailerOf(test::withTrailer("", "message"));

    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->programSize, 0);
}

TEST(CodeSignatureTest, ReadsTheLastOfTwoTrailers) {
    const std::string once = test::withTrailer("program", "first");

    const auto trailer = trailerOf(test::withTrailer(once, "second"));

    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->programSize, static_cast<off_t>(once.size()));
    EXPECT_EQ(trailer->message, "second");
}

TEST(CodeSignatureTest, FindsNoTrailerWhereTheMagicIsNotTheEnd) {
    const std::string whole = test::withTrailer("program", "message");

    EXPECT_FALSE(trailerOf(""));
    EXPECT_FALSE(trailerOf("program"));
    EXPECT_FALSE(trailerOf("~Tarnvale code signature~\n"));
    EXPECT_FALSE(trailerOf(whole + "\n"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(trailerOf(whole.substr(0, size))) << size;
    }
}

TEST(CodeSignatureTest, RefusesALengthThatCannotBe) {
    EXPECT_FALSE(trailerOf(test::withTrailer("program", "message", 0)));
    EXPECT_FALSE(trailerOf(test::withTrailer("program", "message", 15)));
    EXPECT_FALSE(trailerOf(test::withTrailer("program", "message", 0x7FFFFFFF)));
    EXPECT_FALSE(trailerOf(test::withTrailer("program", "message", 0x80000000)));
    EXPECT_FALSE(trailerOf(test::withTrailer("program", "message", 0xFFFFFFFF)));
    EXPECT_TRUE(trailerOf(test::withTrailer("program", "message", 14)))
        << "the whole of what stands before it";
}

TEST(CodeSignatureTest, ReadsAMessageOfOneMebibyteAndNoLongerOne) {
    const std::string longest(std::size_t{1} << 20, 'm');

    EXPECT_TRUE(trailerOf(test::withTrailer("program", longest)));
    EXPECT_FALSE(trailerOf(test::withTrailer("program", longest + "m")));
}

TEST(CodeSignatureTest, LooksAtNoLargerProgramThanItsBound) {
    const support::UniqueFd file(::memfd_create("executable", MFD_CLOEXEC));
    const std::string trailer = test::withTrailer("", "message");
    const auto sizeOfTrailer = static_cast<off_t>(trailer.size());
    ASSERT_EQ(::pwrite(file.get(), trailer.data(), trailer.size(), maxProgramSize), sizeOfTrailer);
    EXPECT_TRUE(readTrailer(file.get(), maxProgramSize + sizeOfTrailer));

    ASSERT_EQ(
        ::pwrite(file.get(), trailer.data(), trailer.size(), maxProgramSize + 1), sizeOfTrailer);
    EXPECT_FALSE(readTrailer(file.get(), maxProgramSize + 1 + sizeOfTrailer));
}

TEST(CodeSignatureTest, RefusesAFileThatHasShrunk) {
    const support::UniqueFd file(::memfd_create("executable", MFD_CLOEXEC));
    const std::string whole = test::withTrailer("program", "message");
    ASSERT_GT(::pwrite(file.get(), whole.data(), whole.size() - 1, 0), 0);

    EXPECT_THROW(readTrailer(file.get(), static_cast<off_t>(whole.size())), FileUnreadable);
}

TEST(CodeSignatureTest, TakesNoFileThatCannotBeReadForUnsigned) {
    EXPECT_THROW(readTrailer(-1, 1000), FileUnreadable);
}

/// DER elements, by hand.
std::string element(char tag, const std::string& content) {
    std::string length;
    if (content.size() < 0x80) {
        length += static_cast<char>(content.size());
    } else {
        length += '\x82';
        length += static_cast<char>(content.size() >> 8U);
        length += static_cast<char>(content.size() & 0xFFU);
    }
    return tag + length + content;
}

std::string sequences(int count, const std::string& content = element(0x04, "content")) {
    std::string all;
    for (int index = 0; index < count; ++index) {
        all += element(0x30, content);
    }
    return all;
}

std::string message(
    int certificates,
    int signers,
    const std::string& between = {},
    const std::string& certificate = element(0x04, "content")) {
    const std::string data = element(0x02, "\x01") + element(0x31, "") + element(0x30, "") +
                             element('\xA0', sequences(certificates, certificate)) + between +
                             element(0x31, sequences(signers));
    return element(0x30, element(0x06, "type") + element('\xA0', element(0x30, data)));
}

TEST(MessageShapeTest, IsThatOfOneSignerWithUpToSixteenCertificates) {
    EXPECT_TRUE(hasShapeOfSignature(message(1, 1)));
    EXPECT_TRUE(hasShapeOfSignature(message(16, 1)));

    EXPECT_FALSE(hasShapeOfSignature(message(0, 1)));
    EXPECT_FALSE(hasShapeOfSignature(message(17, 1)));
    EXPECT_FALSE(hasShapeOfSignature(message(1000, 1)));
    EXPECT_FALSE(hasShapeOfSignature(message(1, 0)));
    EXPECT_FALSE(hasShapeOfSignature(message(1, 2)));
}

TEST(MessageShapeTest, IsThatOfTheWholeMessage) {
    const std::string good = message(3, 1);

    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(hasShapeOfSignature(good.substr(0, size))) << size;
    }
    EXPECT_FALSE(hasShapeOfSignature(good + '\0'));
    EXPECT_FALSE(hasShapeOfSignature(good + std::string("\x05\0", 2))) << "followed by a null";
    EXPECT_FALSE(hasShapeOfSignature(message(1, 1, element('\xA1', element(0x04, "revocations")))));
}

TEST(MessageShapeTest, HasNoMoreElementsThanCanBeDecodedInNoTime) {
    const auto withNulls = [](int count) {
        std::string nulls;
        for (int index = 0; index < count; ++index) {
            nulls += element(0x05, "");
        }
        return message(2, 1, {}, element(0x31, element('\xA3', nulls)));
    };
    const auto withOctets = [](std::size_t count) {
        return message(2, 1, {}, element(0x31, element(0x04, std::string(count, 'x'))));
    };

    // Two certificates with so many each, and 17 elements around them.
    constexpr int nullsAtMost = (static_cast<int>(maxElements) - 17) / 2;
    EXPECT_TRUE(hasShapeOfSignature(withNulls(nullsAtMost)));
    EXPECT_FALSE(hasShapeOfSignature(withNulls(nullsAtMost + 1)));
    EXPECT_FALSE(hasShapeOfSignature(withNulls(4100)));
    EXPECT_TRUE(hasShapeOfSignature(withOctets(4096)));
    EXPECT_FALSE(hasShapeOfSignature(withOctets(4097)));
    EXPECT_FALSE(hasShapeOfSignature(message(1, 1, {}, "no DER")));
}

TEST(MessageShapeTest, HasNoIndefiniteLength) {
    std::string indefinite = message(1, 1);
    indefinite[1] = '\x80';
    EXPECT_FALSE(hasShapeOfSignature(indefinite + std::string(2, '\0')));
    indefinite[1] = '\x84';
    EXPECT_FALSE(hasShapeOfSignature(indefinite));
    indefinite[1] = '\xFF';
    EXPECT_FALSE(hasShapeOfSignature(indefinite));
}

TEST(MessageShapeTest, HasNoTagOfSeveralBytes) {
    const auto withTag = [](char tag) {
        return message(2, 1, {}, element(0x31, element(tag, "\x01")));
    };

    EXPECT_TRUE(hasShapeOfSignature(withTag('\x9E')));
    EXPECT_FALSE(hasShapeOfSignature(withTag('\x1F')));
    EXPECT_FALSE(hasShapeOfSignature(withTag('\x9F')));
}

TEST(SignedContentTest, IsExactlyTheThreeLines) {
    EXPECT_THAT(
        parseSignedContent(contentText()),
        Optional(
            SignedContent{.identifier = "com.brackwen.tarnvale", .sha256 = std::string(digest)}));
}

TEST(SignedContentTest, HasAnyIdentifierThatIsText) {
    EXPECT_THAT(
        parseSignedContent(contentText("a b\xC3\xA4")),
        Optional(SignedContent{.identifier = "a b\xC3\xA4", .sha256 = std::string(digest)}));
}

TEST(SignedContentTest, IsNothingElse) {
    const std::string good = contentText();
    const std::string hex(digest);
    const std::vector<std::string> cases = {
        "",
        "\n",
        good + "\n",
        good + "more\n",
        "\n" + good,
        good + good,
        "\xEF\xBB\xBF" + good,
        "tarnvale-code-signature 2\nidentifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1 \nidentifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature  1\nidentifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\r\nidentifier x\r\nsha256 " + hex + "\r\n",
        "tarnvale-code-signature 1\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\nidentifier x\n",
        "identifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\nsha256 " + hex + "\nidentifier x\n",
        "tarnvale-code-signature 1\nidentifier x\nidentifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\nidentifier x\nsha1 " + hex + "\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\nidentifier x\nsha1 da39a3ee5e6b4b0d3255bfef95601890afd80709\n",
        "tarnvale-code-signature 1\nidentifier x\nsha512 " + hex + hex + "\n",
        "tarnvale-code-signature 1\nIdentifier x\nsha256 " + hex + "\n",
        "tarnvale-code-signature 1\nidentifier\nsha256 " + hex + "\n",
        contentText(""),
        contentText("x\xFF"),
        contentText("x", ""),
        contentText("x", hex.substr(1)),
        contentText("x", hex + "0"),
        contentText("x", hex + hex),
        contentText("x", "BA" + hex.substr(2)),
        contentText("x", "g" + hex.substr(1)),
        contentText("x", " " + hex.substr(1)),
        contentText("x", std::string(64, '\0')),
    };
    for (const std::string& wrong : cases) {
        EXPECT_THAT(parseSignedContent(wrong), Eq(std::nullopt)) << wrong;
    }
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_THAT(parseSignedContent(good.substr(0, size)), Eq(std::nullopt)) << size;
    }
}

}  // namespace
}  // namespace tarnvale::platform
