// SPDX-License-Identifier: MIT
//
// The arguments of a call, as they came. sd-bus hands them out as it sees fit: it takes every
// boolean but 0 for true, which D-Bus forbids, and refuses noncharacters, which D-Bus allows.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarnvale::platform {

/// Hands out the arguments in their order. The caller knows their types. All functions throw
/// `std::system_error` with EBADMSG when the bytes hold no message or no such value.
class MessageBody {
public:
    /// `message` is the whole of it and must outlive this and the texts.
    explicit MessageBody(std::string_view message);

    std::string_view nextText();
    std::int64_t nextInteger();
    bool nextBool();

    /// Throws unless the body ends after the argument that was handed out last.
    void end() const;

private:
    std::string_view next(std::size_t size, std::size_t alignment);
    std::uint64_t nextNumber(std::size_t size);

    std::string_view message_;  ///< its body begins at a multiple of 8
    std::size_t place_ = 0;
    bool isBigEndian_ = false;
};

}  // namespace tarnvale::platform
