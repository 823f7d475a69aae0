// SPDX-License-Identifier: MIT

#include "helperctl/PolicyFile.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "support/Text.h"
#include "support/UniqueFd.h"

namespace tarnvale::helperctl {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& reason) {
    throw std::runtime_error("Could not read " + name + ": " + reason + ".");
}

std::string readAll(int fd, const std::string& name) {
    constexpr std::size_t firstPiece = 65536;
    std::string content;
    std::size_t size = 0;
    while (true) {
        if (size == content.size()) {
            // One byte more than allowed, to notice a file that is too large.
            content.resize(std::min(std::max(2 * size, firstPiece), maxPolicyFileSize + 1));
        }
        const auto count = ::read(fd, content.data() + size, content.size() - size);
        if (count < 0) {
            if (errno != EINTR) {
                fail(name, std::generic_category().message(errno));
            }
            continue;
        }
        if (count == 0) {
            content.resize(size);
            return content;
        }
        size += static_cast<std::size_t>(count);
        if (size > maxPolicyFileSize) {
            fail(name, "it is larger than 64 MiB");
        }
    }
}

}  // namespace

std::string readPolicyFile(const std::string& path) {
    if (path == "-") {
        return readAll(STDIN_FILENO, "standard input");
    }
    const support::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    const int error = errno;
    const auto name = "\"" + support::repairedUtf8(path) + "\"";
    if (!file) {
        fail(name, std::generic_category().message(error));
    }
    return readAll(file.get(), name);
}

}  // namespace tarnvale::helperctl
