// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/KnownCode.h"

#include <algorithm>

namespace tarnvale::platform {
namespace {

auto isOf(const FileIdentity& executable) {
    return [&executable](const auto& entry) { return entry.evidence.executable == executable; };
}

}  // namespace

void KnownCode::remember(
    const Evidence& evidence, const SigningInformation& information, std::string_view requirement) {
    const support::MutexLock lock(mutex_);
    auto entry = std::find_if(entries_.begin(), entries_.end(), isOf(evidence.executable));
    if (entry == entries_.end()) {
        if (entries_.size() == mostExecutables) {
            entries_.pop_front();
        }
        entry = entries_.insert(entries_.end(), Entry{evidence, information, {}});
    } else if (entry->evidence.roots != evidence.roots) {
        *entry = Entry{evidence, information, {}};
    }
    if (std::find(entry->requirements.begin(), entry->requirements.end(), requirement) ==
        entry->requirements.end()) {
        entry->requirements.emplace_back(requirement);
    }
}

bool KnownCode::isKnown(
    const FileIdentity& executable,
    const FileIdentity& roots,
    std::int64_t now,
    std::string_view requirement) const {
    const support::MutexLock lock(mutex_);
    const auto entry = std::find_if(entries_.begin(), entries_.end(), isOf(executable));
    return entry != entries_.end() && entry->evidence.roots == roots &&
           now < entry->evidence.validUntil &&
           std::find(entry->requirements.begin(), entry->requirements.end(), requirement) !=
               entry->requirements.end();
}

std::optional<SigningInformation> KnownCode::informationOf(const FileIdentity& executable) const {
    const support::MutexLock lock(mutex_);
    const auto entry = std::find_if(entries_.begin(), entries_.end(), isOf(executable));
    return entry == entries_.end() ? std::nullopt : std::optional(entry->information);
}

}  // namespace tarnvale::platform
