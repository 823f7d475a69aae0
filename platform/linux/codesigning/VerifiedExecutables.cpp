// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/VerifiedExecutables.h"

#include <algorithm>

namespace tarnvale::platform {
namespace {

auto isOf(const FileIdentity& executable) {
    return [&executable](const auto& known) { return known.evidence.executable == executable; };
}

}  // namespace

void VerifiedExecutables::remember(
    const Evidence& evidence, const SigningInformation& information, std::string_view requirement) {
    const support::MutexLock lock(mutex_);
    auto known = std::find_if(executables_.begin(), executables_.end(), isOf(evidence.executable));
    if (known == executables_.end()) {
        if (executables_.size() == maxExecutables) {
            executables_.pop_front();
        }
        known =
            executables_.insert(executables_.end(), VerifiedExecutable{evidence, information, {}});
    } else if (known->evidence.roots != evidence.roots) {
        *known = VerifiedExecutable{evidence, information, {}};
    }
    if (std::find(known->requirements.begin(), known->requirements.end(), requirement) ==
        known->requirements.end()) {
        known->requirements.emplace_back(requirement);
    }
}

bool VerifiedExecutables::meets(
    const FileIdentity& executable,
    const FileIdentity& roots,
    std::int64_t now,
    std::string_view requirement) const {
    const support::MutexLock lock(mutex_);
    const auto known = std::find_if(executables_.begin(), executables_.end(), isOf(executable));
    return known != executables_.end() && known->evidence.roots == roots &&
           now < known->evidence.validUntil &&
           std::find(known->requirements.begin(), known->requirements.end(), requirement) !=
               known->requirements.end();
}

std::optional<SigningInformation> VerifiedExecutables::informationOf(
    const FileIdentity& executable) const {
    const support::MutexLock lock(mutex_);
    const auto known = std::find_if(executables_.begin(), executables_.end(), isOf(executable));
    return known == executables_.end() ? std::nullopt : std::optional(known->information);
}

void VerifiedExecutables::rememberMismatch(const FileIdentity& executable) {
    const support::MutexLock lock(mutex_);
    if (mismatches_.size() == maxExecutables) {
        mismatches_.pop_front();
    }
    mismatches_.push_back(executable);
}

bool VerifiedExecutables::isMismatch(const FileIdentity& executable) const {
    const support::MutexLock lock(mutex_);
    return std::find(mismatches_.begin(), mismatches_.end(), executable) != mismatches_.end();
}

}  // namespace tarnvale::platform
