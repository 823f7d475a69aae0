// SPDX-License-Identifier: MIT
//
// Executables whose digest has been compared with their signature, so that the next check does not
// take another one. Good ones and bad ones are kept apart: other people's programs cannot push the
// good ones out.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CodeSigning.h"
#include "platform/linux/codesigning/FileIdentity.h"
#include "support/Mutex.h"

namespace tarnvale::platform {

/// Safe from any thread.
class VerifiedExecutables {
public:
    /// A further one replaces the oldest, among the good ones and among the bad ones.
    static constexpr std::size_t maxExecutables = 64;

    /// What a verdict rests on. The verdict holds until any of it changes.
    struct Evidence {
        FileIdentity executable;
        FileIdentity roots;
        std::int64_t validUntil;  ///< Unix time
    };

    void remember(
        const Evidence& evidence,
        const SigningInformation& information,
        std::string_view requirement);

    /// Whether the executable has met the requirement under these roots, and its certificates are
    /// still valid.
    bool meets(
        const FileIdentity& executable,
        const FileIdentity& roots,
        std::int64_t now,
        std::string_view requirement) const;

    std::optional<SigningInformation> informationOf(const FileIdentity& executable) const;

    /// Remembers that what the executable's signature was made for is another program.
    void rememberMismatch(const FileIdentity& executable);
    bool isMismatch(const FileIdentity& executable) const;

private:
    struct VerifiedExecutable {
        Evidence evidence;
        SigningInformation information;
        std::vector<std::string> requirements;
    };

    mutable support::Mutex mutex_;
    std::deque<VerifiedExecutable> executables_ GUARDED_BY(mutex_);
    std::deque<FileIdentity> mismatches_ GUARDED_BY(mutex_);
};

}  // namespace tarnvale::platform
