// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "support/Free.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

const char* firstArgument = "";

/// The path with "." and ".." taken out, made absolute.
std::string tidied(const std::string& path) {
    std::error_code noFolder;  // then a relative path stays relative, and leads nowhere
    return (std::filesystem::current_path(noFolder) / path).lexically_normal().string();
}

}  // namespace

void rememberFirstArgument(const char* argument) noexcept {
    firstArgument = argument;
}

std::string executablePath() {
    const auto path = reportedExecutablePath();
    return path ? support::repairedUtf8(*path) : firstArgument;
}

std::string resolvingSymlinksInPath(const std::string& path) {
    const std::unique_ptr<char, support::Free> real(::realpath(path.c_str(), nullptr));
    return shownPath(real ? std::string(real.get()) : tidied(path));
}

}  // namespace tarnvale::platform
