// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include <mach-o/dyld.h>

#include "support/Free.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

const char* firstArgument = "";

/// The folders at the top that /private has nothing to do with.
constexpr std::array<std::string_view, 12> publicFolders = {
    "/Applications",
    "/Library",
    "/System",
    "/Users",
    "/Volumes",
    "/bin",
    "/cores",
    "/dev",
    "/opt",
    "/private",
    "/sbin",
    "/usr"};

bool liesIn(std::string_view folder, std::string_view path) {
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

/// The path with "." and ".." taken out, made absolute, and without a slash at its end.
std::string tidied(const std::string& path) {
    std::error_code noFolder;  // then a relative path stays relative, and leads nowhere
    auto text = (std::filesystem::current_path(noFolder) / path).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

/// The system shows /tmp, /var and /etc where they seem to be, not where they are: in /private.
std::string withoutPrivate(const std::string& path) {
    constexpr std::string_view privateFolder = "/private";
    if (!path.starts_with("/private/")) {
        return path;
    }
    auto rest = path.substr(privateFolder.size());
    const bool isPublic = std::any_of(publicFolders.begin(), publicFolders.end(), [&](auto folder) {
        return liesIn(folder, rest);
    });
    std::error_code unreadable;
    return !isPublic && std::filesystem::exists(rest, unreadable) ? rest : path;
}

}  // namespace

void rememberFirstArgument(const char* argument) noexcept {
    firstArgument = argument;
}

std::string executablePath() {
    std::array<char, 1024> path{};
    auto size = static_cast<std::uint32_t>(path.size());
    if (::_NSGetExecutablePath(path.data(), &size) != 0) {
        return firstArgument;
    }
    const auto* const end = std::find(path.begin(), path.end(), '\0');
    return support::repairedUtf8({path.data(), static_cast<std::size_t>(end - path.begin())});
}

std::string resolvingSymlinksInPath(const std::string& path) {
    const std::unique_ptr<char, support::Free> real(::realpath(path.c_str(), nullptr));
    return withoutPrivate(real ? std::string(real.get()) : tidied(path));
}

}  // namespace tarnvale::platform
