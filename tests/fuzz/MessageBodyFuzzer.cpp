// SPDX-License-Identifier: MIT
//
// Any bytes as a call. A second reading goes from place to place in them, and finds the same
// arguments or none; a text lies in the message and is one that D-Bus allows.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <type_traits>

#include <endian.h>

#include "platform/linux/dbus/MessageBody.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"

namespace {

using tarnvale::platform::MessageBody;
using tarnvale::test::require;

constexpr std::size_t headerSize = 16;

/// The next arguments at a place of a message. A number stands at a multiple of its size.
class Place {
public:
    explicit Place(std::string_view message) : message_(message) {
        constexpr std::size_t placeOfSize = 4;
        at_ = placeOfSize;
        const auto size = number<std::uint32_t>();
        isGood_ = size && message.size() >= headerSize && *size <= message.size() - headerSize;
        at_ = isGood_ ? message.size() - *size : 0;
    }

    template <typename Number>
    std::optional<Number> number() {
        while (at_ % sizeof(Number) != 0) {
            isGood_ = isGood_ && at_ < message_.size() && message_[at_] == '\0';
            ++at_;
        }
        Number found{};
        if (!isGood_ || at_ > message_.size() || message_.size() - at_ < sizeof found) {
            isGood_ = false;
            return std::nullopt;
        }
        std::memcpy(&found, message_.data() + at_, sizeof found);
        at_ += sizeof found;
        const bool isBigEndian = message_[0] == 'B';
        if constexpr (sizeof found == sizeof(std::uint64_t)) {
            return isBigEndian ? be64toh(found) : le64toh(found);
        } else {
            return isBigEndian ? be32toh(found) : le32toh(found);
        }
    }

    std::optional<std::string_view> text() {
        const auto size = number<std::uint32_t>();
        if (!size || *size >= message_.size() - at_) {
            return std::nullopt;
        }
        const auto found = message_.substr(at_, *size);
        at_ += *size + std::size_t{1};
        const bool isText = message_[at_ - 1] == '\0' &&
                            std::memchr(found.data(), 0, *size) == nullptr &&
                            tarnvale::support::isValidUtf8(found);
        return isText ? std::optional(found) : std::nullopt;
    }

    bool isEnd() const { return isGood_ && at_ == message_.size(); }

private:
    std::string_view message_;
    std::size_t at_ = 0;
    bool isGood_ = true;
};

/// What the arguments of a call say; nothing where the message isn't such a call.
template <typename Read>
std::optional<std::invoke_result_t<Read, MessageBody&>> readBy(
    std::string_view message, Read read) {
    try {
        MessageBody body(message);
        auto arguments = read(body);
        body.end();
        return arguments;
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

struct VLAN {
    std::string_view name;
    std::int64_t tag;
    std::string_view parent;
};

void checkVLAN(std::string_view message) {
    const auto read = readBy(message, [](MessageBody& body) {
        VLAN vlan{};
        vlan.name = body.nextText();
        vlan.tag = body.nextInteger();
        vlan.parent = body.nextText();
        return vlan;
    });

    Place place(message);
    const auto name = place.text();
    const auto tag = name ? place.number<std::uint64_t>() : std::nullopt;
    const auto parent = tag ? place.text() : std::nullopt;
    require(read.has_value() == (parent && place.isEnd()));
    if (read) {
        require(read->name.data() == name->data() && read->name.size() == name->size());
        require(read->tag == static_cast<std::int64_t>(*tag));
        require(read->parent.data() == parent->data() && read->parent.size() == parent->size());
    }
}

void checkFlag(std::string_view message) {
    const auto read = readBy(message, [](MessageBody& body) { return body.nextBool(); });

    Place place(message);
    const auto flag = place.number<std::uint32_t>();
    require(read.has_value() == (flag && *flag <= 1 && place.isEnd()));
    require(!read || *read == (*flag == 1));
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view message(reinterpret_cast<const char*>(data), size);
    checkVLAN(message);
    checkFlag(message);
    return 0;
}
