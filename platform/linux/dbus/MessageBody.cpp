// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/MessageBody.h"

#include <cerrno>
#include <system_error>

#include "support/Text.h"

namespace tarnvale::platform {
namespace {

void require(bool isValid) {
    if (!isValid) {
        throw std::system_error(EBADMSG, std::generic_category());
    }
}

}  // namespace

MessageBody::MessageBody(std::string_view message) : message_(message) {
    constexpr std::size_t headerSize = 16;
    require(message_.size() >= headerSize);
    isBigEndian_ = message_.front() == 'B';
    place_ = sizeof(std::uint32_t);
    const auto bodySize = nextNumber(sizeof(std::uint32_t));
    require(bodySize <= message_.size() - headerSize);
    place_ = message_.size() - bodySize;
}

std::string_view MessageBody::nextText() {
    const auto size = nextNumber(sizeof(std::uint32_t));
    const auto text = next(size, 1);
    require(next(1, 1).front() == '\0');
    require(text.find('\0') == std::string_view::npos && support::isValidUtf8(text));
    return text;
}

std::int64_t MessageBody::nextInteger() {
    return static_cast<std::int64_t>(nextNumber(sizeof(std::int64_t)));
}

bool MessageBody::nextBool() {
    const auto value = nextNumber(sizeof(std::uint32_t));
    require(value <= 1);
    return value == 1;
}

void MessageBody::end() const {
    require(place_ == message_.size());
}

/// The bytes at the next place with the alignment, in front of which only zeros may be.
std::string_view MessageBody::next(std::size_t size, std::size_t alignment) {
    const std::string_view rest = message_.substr(place_);
    const std::size_t padding = (alignment - place_ % alignment) % alignment;
    require(padding <= rest.size() && size <= rest.size() - padding);
    require(rest.substr(0, padding).find_first_not_of('\0') == std::string_view::npos);
    place_ += padding + size;
    return rest.substr(padding, size);
}

/// An unsigned number of so many bytes. It stands at a multiple of its size in the message.
std::uint64_t MessageBody::nextNumber(std::size_t size) {
    const auto bytes = next(size, size);
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const char byte = bytes[isBigEndian_ ? i : size - 1 - i];
        number = number << 8U | static_cast<unsigned char>(byte);
    }
    return number;
}

}  // namespace tarnvale::platform
