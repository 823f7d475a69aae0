// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <mach-o/dyld.h>

namespace tarnvale::platform {
namespace {

/// The folders at the top that have no counterpart in /private.
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

/// /tmp, /var and /etc lie in /private. The system shows them where they seem to be.
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

std::optional<std::string> reportedExecutablePath() {
    std::array<char, 1024> path{};
    auto size = static_cast<std::uint32_t>(path.size());
    if (::_NSGetExecutablePath(path.data(), &size) != 0) {
        return std::nullopt;
    }
    return std::string(path.begin(), std::find(path.begin(), path.end(), '\0'));
}

std::string shownPath(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return withoutPrivate(path);
}

}  // namespace tarnvale::platform
