// SPDX-License-Identifier: MIT

#include "netlink/Messages.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <malloc.h>

namespace tarnvale::netlink {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Property;
using testing::SizeIs;
using testing::Throws;

std::vector<std::uint8_t> bytesOf(const MessageWriter& messages) {
    std::vector<std::uint8_t> bytes;
    for (const iovec& piece : messages.pieces()) {
        const auto* first = static_cast<const std::uint8_t*>(piece.iov_base);
        bytes.insert(bytes.end(), first, first + piece.iov_len);
    }
    return bytes;
}

/// The attributes of the only message.
std::vector<std::uint8_t> attributesOf(const MessageWriter& messages) {
    auto bytes = bytesOf(messages);
    bytes.erase(bytes.begin(), bytes.begin() + 20);
    return bytes;
}

TEST(MessageWriterTest, WritesHeadersAndPadsAttributes) {
    MessageWriter messages;
    messages.begin(0x0A0B, NLM_F_ACK, std::array<std::uint8_t, 4>{2, 0, 1, 2});
    messages.put(3, std::array<std::uint8_t, 1>{0xFF});
    messages.putText(4, "abc");
    messages.putBigEndian(5, 0x01020304);

    // clang-format off
    EXPECT_THAT(
        bytesOf(messages),
        ElementsAreArray<int>({
            44, 0, 0, 0,  0x0B, 0x0A, NLM_F_ACK | NLM_F_REQUEST, 0,  0, 0, 0, 0,  0, 0, 0, 0,
            2, 0, 1, 2,
            5, 0, 3, 0,  0xFF, 0, 0, 0,
            8, 0, 4, 0,  'a', 'b', 'c', 0,
            8, 0, 5, 0,  1, 2, 3, 4}));
    // clang-format on
}

TEST(MessageWriterTest, PadsWithZerosWhateverTheMemoryHeld) {
    ::mallopt(M_PERTURB, 0x55);
    MessageWriter messages;
    messages.begin(0, 0, std::uint32_t{0});
    messages.put(1, std::array<std::uint8_t, 1>{0xFF});
    ::mallopt(M_PERTURB, 0);

    EXPECT_THAT(attributesOf(messages), ElementsAre(5, 0, 1, 0, 0xFF, 0, 0, 0));
}

TEST(MessageWriterTest, NestsAttributes) {
    MessageWriter messages;
    messages.begin(0, 0, std::uint32_t{0});
    messages.nest(1, [&] { messages.nest(2, [&] { messages.putBigEndian(3, 7); }); });

    EXPECT_THAT(
        attributesOf(messages),
        ElementsAre(16, 0, 1, 0x80, 12, 0, 2, 0x80, 8, 0, 3, 0, 0, 0, 0, 7));
}

TEST(MessageWriterTest, GivesEveryMessageItsLengthAcrossPieces) {
    constexpr std::size_t count = 5000;
    const std::vector<std::uint8_t> value(1000, 7);
    MessageWriter messages;
    for (std::size_t message = 0; message < count; ++message) {
        messages.begin(0, 0, std::uint32_t{0});
        messages.put(1, value);
    }

    const auto bytes = bytesOf(messages);
    EXPECT_EQ(bytes.size(), messages.size());
    EXPECT_EQ(bytes.size(), count * 1024);
    EXPECT_GT(messages.pieces().size(), 1U);
    for (std::size_t at = 0; at < bytes.size(); at += 1024) {
        std::uint32_t length = 0;
        std::memcpy(&length, &bytes[at], sizeof length);
        ASSERT_EQ(length, 1024U);
    }
}

TEST(MessageWriterTest, RefusesAMessageThatNoAttributeCouldHold) {
    const std::vector<std::uint8_t> value(1000);
    MessageWriter messages;
    messages.begin(0, 0, std::uint32_t{0});

    EXPECT_THROW(
        for (int attribute = 0; attribute < 66; ++attribute) { messages.put(1, value); },
        std::length_error);
}

TEST(AttributeReaderTest, WalksOverAttributes) {
    MessageWriter messages;
    messages.begin(0, 0, std::uint32_t{0});
    messages.putText(1, "ab");
    messages.nest(2, [&] { messages.putBigEndian(3, 7); });
    const auto attributes = attributesOf(messages);
    AttributeReader reader(attributes);

    ASSERT_TRUE(reader.next());
    EXPECT_EQ(reader.type(), 1);
    EXPECT_EQ(textOf(reader.value()), "ab");
    EXPECT_THAT(reader.whole(), SizeIs(7));
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(reader.type(), 2);
    EXPECT_EQ(bigEndian(attribute(reader.value(), 3)), 7U);
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(textOf(attribute(attributes, 1)), "ab");
    EXPECT_THAT(attribute(attributes, 9), IsEmpty());
}

TEST(AttributeReaderTest, RefusesWhatDoesNotFit) {
    alignas(4) const std::array<std::uint8_t, 8> tooLong{9, 0, 1, 0, 1, 2, 3, 4};
    alignas(4) const std::array<std::uint8_t, 8> tooShort{3, 0, 1, 0, 1, 2, 3, 4};
    alignas(4) const std::array<std::uint8_t, 3> cut{4, 0, 1};

    for (const Bytes bytes : {Bytes(tooLong), Bytes(tooShort), Bytes(cut)}) {
        EXPECT_THAT(
            [&] { AttributeReader(bytes).next(); },
            Throws<std::system_error>(Property(&std::system_error::code, std::errc::bad_message)));
    }
    EXPECT_FALSE(AttributeReader({}).next());
}

TEST(NumberTest, ReadsOneToEightBytes) {
    const std::array<std::uint8_t, 9> bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xFF, 0x00};

    EXPECT_EQ(bigEndian(Bytes(bytes).first(1)), 1U);
    EXPECT_EQ(bigEndian(Bytes(bytes).first(2)), 0x0102U);
    EXPECT_EQ(bigEndian(Bytes(bytes).first(8)), 0x01020304050607FFU);
    EXPECT_EQ(bigEndian(Bytes(bytes)), std::nullopt);
    EXPECT_EQ(bigEndian({}), std::nullopt);
}

}  // namespace
}  // namespace tarnvale::netlink
