// SPDX-License-Identifier: MIT

#include "resolver/ResolverFiles.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include <sys/types.h>

#include "core/base/HelperLog.h"
#include "support/Files.h"

namespace tarnvale::HelperResolver {
namespace {

constexpr std::string_view marker = "Installed by Tarnvale";
constexpr mode_t directoryMode = 0755;
constexpr mode_t fileMode = 0644;

std::string pathOf(std::string_view domain) {
    return std::string(resolverDirectory) + "/" + std::string(domain);
}

/// The text for one domain. "<vm>" is literal: people read the file.
std::string contentFor(std::string_view domain) {
    return "# " + std::string(marker) + ": <vm>." + std::string(domain) +
           " names resolve to its VMs.\n"
           "nameserver 127.0.0.1\n"
           "port " +
           std::to_string(dnsProxyPort) +
           "\n"
           "timeout 2\n";
}

/// The marker is ASCII, so bytes that are not UTF-8 can neither hide nor imitate it.
bool isOurs(std::string_view content) {
    return content.find(marker) != std::string_view::npos;
}

/// What the next write of the path would replace. What can't be read as a file counts as none: a
/// link to nothing is replaced, and a folder makes the write fail. A file that can't be read may be
/// somebody else's: throws `FileError`.
std::optional<std::string> readExisting(const std::string& path) {
    auto content = support::readFile(path);
    const int error = errno;
    if (!content && (support::mayPass(error) || support::isFileThere(path))) {
        throw support::FileError(support::FileError::Operation::open, path, error);
    }
    return content;
}

}  // namespace

std::vector<std::string> resolverFilePaths() {
    std::vector<std::string> paths;
    paths.reserve(domains.size());
    for (const char* domain : domains) {
        paths.push_back(pathOf(domain));
    }
    return paths;
}

Standing standingOf(std::string_view domain, std::string_view content) {
    if (!isOurs(content)) {
        return Standing::foreign;
    }
    return content == contentFor(domain) ? Standing::current : Standing::outdated;
}

void installResolverFiles() {
    std::error_code ignored;
    if (!std::filesystem::exists(resolverDirectory, ignored)) {
        support::makeFolders(resolverDirectory, directoryMode);
    }

    for (const char* domain : domains) {
        const std::string path = pathOf(domain);
        const auto existing = readExisting(path);
        const auto standing = existing ? standingOf(domain, *existing) : Standing::outdated;
        if (standing == Standing::current) {
            continue;
        }
        if (standing == Standing::foreign) {
            helperLog("Left " + path + " alone: it wasn't installed by Tarnvale.");
            continue;
        }
        support::writeFileAtomically(path, contentFor(domain), fileMode);
        support::setMode(path, fileMode);  // others read it, so a narrower mode is a failure
        helperLog("Installed " + path + ".");
    }
}

void removeResolverFiles() {
    for (const std::string& path : resolverFilePaths()) {
        const auto existing = support::readFile(path);
        if (!existing || !isOurs(*existing)) {
            continue;
        }
        support::removeFile(path);
        helperLog("Removed " + path + ".");
    }
}

}  // namespace tarnvale::HelperResolver
