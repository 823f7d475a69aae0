// SPDX-License-Identifier: MIT
//
// A kernel that answers over netlink as a fuzzer's input says, and a second reading of its answers:
// byte by byte, without libmnl.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/UniqueFd.h"
#include "tests/fuzz/InputBytes.h"

namespace tarnvale::test {

/// What differs from one family of messages to another.
struct MessageFamily {
    std::vector<std::uint16_t> types;          ///< of its answers
    std::string (*header)(InputBytes& input);  ///< what follows netlink's own header
    std::uint32_t firstSequence;
};

/// The datagrams that the input describes: messages with their attributes, the nested ones, too,
/// whose lengths fit unless the input says that one lies. No more than a socket keeps.
std::vector<std::string> answersOf(InputBytes& input, const MessageFamily& family);

/// Both ends of a conversation in which the kernel has said everything already and says no more.
struct PlayedKernel {
    explicit PlayedKernel(const std::vector<std::string>& answers);

    support::UniqueFd client;
    support::UniqueFd kernel;
};

struct SlowMessage {
    std::uint16_t type = 0;
    std::uint16_t flags = 0;
    std::uint32_t sequence = 0;
    std::string payload;
};

/// Attributes by their types, up to the first that isn't one.
struct SlowAttributes {
    explicit SlowAttributes(std::string_view bytes);

    std::vector<std::pair<std::uint16_t, std::string>> list;
    bool isWhole = true;  ///< all bytes are attributes
};

/// The answers as whoever asks takes them in.
class SlowAnswers {
public:
    explicit SlowAnswers(std::vector<std::string> datagrams) : datagrams_(std::move(datagrams)) {}

    struct List {
        std::vector<SlowMessage> messages;
        bool isComplete = true;
    };

    /// What the kernel lists; nothing if it refuses or makes no sense.
    std::optional<List> list(std::uint32_t sequence);

private:
    std::vector<std::string> datagrams_;
    std::size_t next_ = 0;
};

/// A number of the processor's byte order, at that place.
template <typename Number>
Number numberAt(std::string_view bytes, std::size_t place) {
    Number number = 0;
    for (std::size_t i = sizeof number; i > 0; --i) {
        number =
            static_cast<Number>(number << 8U | static_cast<unsigned char>(bytes.at(place + i - 1)));
    }
    return number;
}

}  // namespace tarnvale::test
