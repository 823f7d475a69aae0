// SPDX-License-Identifier: MIT

#include "tests/support/Conversation.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <system_error>

#include <sys/socket.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

void append(std::string& bytes, std::size_t number) {
    const auto value = static_cast<std::uint32_t>(number);
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

bool readAll(int fd, char* bytes, std::size_t size) {
    while (size > 0) {
        const auto got = ::read(fd, bytes, size);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return false;
        }
        if (got > 0) {
            bytes += got;
            size -= static_cast<std::size_t>(got);
        }
    }
    return true;
}

std::optional<std::uint32_t> readNumber(int fd) {
    std::uint32_t value = 0;
    return readAll(fd, reinterpret_cast<char*>(&value), sizeof value) ? std::optional(value)
                                                                      : std::nullopt;
}

}  // namespace

void say(int fd, const Words& words) {
    std::string bytes;
    append(bytes, words.size());
    for (const auto& word : words) {
        append(bytes, word.size());
        bytes += word;
    }
    for (std::string_view left = bytes; !left.empty();) {
        const auto sent = ::send(fd, left.data(), left.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            left.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "say");
        }
    }
}

std::optional<Words> hear(int fd) {
    const auto count = readNumber(fd);
    if (!count) {
        return std::nullopt;
    }
    Words words(*count);
    for (auto& word : words) {
        const auto size = readNumber(fd);
        if (!size) {
            return std::nullopt;
        }
        word.resize(*size);
        if (!readAll(fd, word.data(), word.size())) {
            return std::nullopt;
        }
    }
    return words;
}

}  // namespace tarnvale::test
