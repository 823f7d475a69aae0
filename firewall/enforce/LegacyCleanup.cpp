// SPDX-License-Identifier: MIT

#include "firewall/enforce/LegacyCleanup.h"

#include <cerrno>
#include <exception>

#include <sys/stat.h>

#include "core/base/AppSupport.h"
#include "core/base/HelperLog.h"
#include "firewall/enforce/Pfctl.h"
#include "support/Files.h"
#include "support/Text.h"

namespace tarnvale::HelperFirewall {
namespace {

constexpr const char* pfConfPath = "/etc/pf.conf";
constexpr const char* legacyRulesPath = "/etc/pf.anchors/com.tarnvale.firewall";
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

/// Runs a step whose failure changes nothing for the caller.
template <class Step>
void ignoreFailure(const Step& step) {
    try {
        step();
    } catch (const std::exception&) {
        // The next load tries again.
    }
}

bool isNamedIn(std::string_view text) {
    return text.find(legacyAnchorName) != std::string_view::npos;
}

/// The text without the lines that name the old anchor.
std::string withoutLegacyLines(std::string_view text) {
    std::string kept;
    kept.reserve(text.size());
    bool isFirst = true;
    for (const auto line : support::split(text, '\n')) {
        if (isNamedIn(line)) {
            continue;
        }
        if (!isFirst) {
            kept += '\n';
        }
        kept += line;
        isFirst = false;
    }
    return kept;
}

/// Keeps a copy from before the first clean-up. It has the original's mode, so nobody gains access.
void backUp(const std::string& text) {
    const std::string path = std::string(appSupportDirectory) + "/pf.conf.before-tarnvale-cleanup";
    struct stat info {};
    // What can't be found out counts as a copy: better none of this text than the first one lost.
    if (support::persistently([&] { return ::stat(path.c_str(), &info); }) == 0 ||
        errno != ENOENT) {
        return;
    }
    const mode_t mode = ::stat(pfConfPath, &info) == 0 ? info.st_mode & 0777U : 0600;
    ignoreFailure([&] {
        support::makeFolders(appSupportDirectory);
        support::writeFileAtomically(path, text, mode);
    });
}

/// Removes the lines that name the old anchor from /etc/pf.conf.
void cleanUpPfConf() {
    const auto text = support::readFile(pfConfPath);
    const auto cleaned = text ? cleanedPfConf(*text) : std::nullopt;
    if (!cleaned) {
        return;
    }
    backUp(*text);
    ignoreFailure([&] { support::replaceFileKeepingAttributes(pfConfPath, *cleaned); });
    helperLog("Removed legacy anchor references from /etc/pf.conf.");
}

}  // namespace

void removeLegacyAnchor() {
    ignoreFailure(cleanUpPfConf);
    ignoreFailure([] { support::removeFile(legacyRulesPath); });
    flushLegacyAnchor();
}

std::optional<std::string> cleanedPfConf(std::string_view text) {
    if (!support::isValidUtf8(text) || !isNamedIn(text)) {
        return std::nullopt;
    }
    if (text.starts_with(byteOrderMark)) {
        text.remove_prefix(byteOrderMark.size());
    }
    return withoutLegacyLines(text);
}

}  // namespace tarnvale::HelperFirewall
