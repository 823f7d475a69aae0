// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include <unistd.h>

#include "support/Free.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

const char* firstArgument = "";

}  // namespace

void rememberFirstArgument(const char* argument) noexcept {
    firstArgument = argument;
}

std::string executablePath() {
    std::array<char, 1024> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    // A path that fills the buffer may have been cut.
    if (length < 0 || static_cast<std::size_t>(length) == path.size()) {
        return firstArgument;
    }
    return support::repairedUtf8({path.data(), static_cast<std::size_t>(length)});
}

std::string resolvingSymlinksInPath(const std::string& path) {
    const std::unique_ptr<char, support::Free> real(::realpath(path.c_str(), nullptr));
    if (real) {
        return real.get();
    }
    std::error_code noFolder;  // then a relative path stays relative, and leads nowhere
    return (std::filesystem::current_path(noFolder) / path).lexically_normal().string();
}

}  // namespace tarnvale::platform
