// SPDX-License-Identifier: MIT

#include "clilinks/CLISymlink.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clilinks/PathSafety.h"
#include "clilinks/SymlinkError.h"
#include "core/base/HelperLog.h"
#include "platform/ExecutablePath.h"
#include "support/Text.h"
#include "support/UniqueFd.h"

namespace tarnvale::HelperCLISymlink {
namespace {

using support::UniqueFd;

constexpr const char* toolName = "tarnvale";

/// The ends of targets that lead into a copy of the application, wherever it lies. The tool was
/// once called "tx".
constexpr std::array<std::string_view, 2> bundleTools = {
    "/Tarnvale.app/Contents/Helpers/tarnvale", "/Tarnvale.app/Contents/Helpers/tx"};

/// The tool lies beside the real executable of the running helper; no client can name another
/// place.
std::string expectedToolURL() {
    const std::filesystem::path helper =
        platform::resolvingSymlinksInPath(platform::executablePath());
    return (helper.parent_path() / toolName).string();
}

/// The link's name within the opened folder.
const char* bareName(const char* path) {
    return std::strrchr(path, '/') + 1;
}

/// The target of the link, cut at 1,024 bytes; nothing if there is no link.
std::optional<std::string> linkTarget(const char* path, int directory) {
    std::array<char, 1024> target{};
    const ssize_t length = ::readlinkat(directory, bareName(path), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return support::repairedUtf8({target.data(), static_cast<std::size_t>(length)});
}

bool isBundleTool(std::string_view target) {
    return std::any_of(bundleTools.begin(), bundleTools.end(), [&](std::string_view tool) {
        return target.ends_with(tool);
    });
}

void removeLinkIfOurs(const char* path, int directory) {
    const auto target = linkTarget(path, directory);
    if (!target) {
        return;
    }
    if (!isBundleTool(*target) && *target != expectedToolURL()) {
        helperLog(
            "Left " + std::string(path) + " alone: it points at " + *target +
            ", not a Tarnvale bundle.");
        return;
    }
    if (::unlinkat(directory, bareName(path), 0) == 0) {
        helperLog("Removed " + std::string(path) + ".");
    }
}

void placeLink(const char* path, int directory, const std::string& tool) {
    struct stat existing {};
    if (::fstatat(directory, bareName(path), &existing, AT_SYMLINK_NOFOLLOW) == 0) {
        const auto target = S_ISLNK(existing.st_mode) ? linkTarget(path, directory) : std::nullopt;
        if (!target || (!isBundleTool(*target) && *target != tool)) {
            throw SymlinkError::failed(
                std::string(path) +
                " already exists and isn't a Tarnvale link. Move it aside, then try again.");
        }
        // If this fails, making the new link fails too, and that is reported.
        static_cast<void>(::unlinkat(directory, bareName(path), 0));
    }
    if (::symlinkat(tool.c_str(), directory, bareName(path)) != 0) {
        throw SymlinkError::failed(
            "Could not link " + std::string(path) + ": " + std::generic_category().message(errno) +
            ".");
    }
    helperLog("Linked " + std::string(path) + " -> " + tool + ".");
}

/// Makes the changes survive a power cut, if the disk can do that.
void synchronize(int directory) {
    static_cast<void>(::fsync(directory));
}

/// Removes the current links that lead to this very copy of the application.
void removeLinksTo(const std::string& tool, platform::Users& users) {
    UniqueFd directory;
    try {
        directory = openBinDirectory(users, Create::no);
    } catch (const SymlinkError&) {
        return;  // the caller reports the application's copy, which matters more
    }
    if (!directory) {
        return;
    }
    for (const char* path : currentLinks) {
        if (linkTarget(path, directory.get()) == tool) {
            removeLinkIfOurs(path, directory.get());
        }
    }
    synchronize(directory.get());
}

}  // namespace

void install(platform::Users& users) {
    const std::string tool = expectedToolURL();
    if (::access(tool.c_str(), X_OK) != 0) {
        throw SymlinkError::cliMissing(tool);
    }

    if (const auto weak = firstUnsafeAncestor(users, tool)) {
        removeLinksTo(tool, users);
        throw SymlinkError::failed(
            "Tarnvale can't link its command-line tool from this copy: " + *weak +
            " can be changed by someone who isn't an administrator. Ask an administrator to "
            "install Tarnvale in /Applications.");
    }

    const UniqueFd directory = openBinDirectory(users, Create::yes);
    if (!directory) {
        throw SymlinkError::failed("Could not create /usr/local/bin.");
    }
    for (const char* path : currentLinks) {
        placeLink(path, directory.get(), tool);
    }
    for (const char* path : legacyLinks) {
        removeLinkIfOurs(path, directory.get());
    }
    synchronize(directory.get());
}

void remove(platform::Users& users) {
    const UniqueFd directory = openBinDirectory(users, Create::no);
    if (!directory) {
        return;
    }
    for (const auto& links : {currentLinks, legacyLinks}) {
        for (const char* path : links) {
            removeLinkIfOurs(path, directory.get());
        }
    }
    synchronize(directory.get());

    for (const char* path : currentLinks) {
        const auto target = linkTarget(path, directory.get());
        if (target && isBundleTool(*target)) {
            throw SymlinkError::failed("Could not remove " + std::string(path) + ".");
        }
    }
}

}  // namespace tarnvale::HelperCLISymlink
