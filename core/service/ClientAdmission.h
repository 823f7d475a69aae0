// SPDX-License-Identifier: MIT
//
// Which programs may talk to the helper: the application and its service process, both signed by
// the maker's team. A check that cannot be made counts as "no".

#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "platform/CodeSigning.h"

namespace tarnvale {

/// The team that signs the application and its service process.
inline constexpr std::string_view teamIdentifier = "K7PD2QM4TZ";

/// Decides whom the service admits. A helper that bears a Developer ID signature demands one of
/// its clients; one that was signed for development takes clients signed for development. Safe
/// from any thread.
class ClientAdmission {
public:
    /// `codeSigning` must outlive the object.
    explicit ClientAdmission(platform::CodeSigning& codeSigning) : codeSigning_(codeSigning) {}

    /// Whether the process is one of the two programs. Its answer is about this moment: the
    /// connection's requirement is what holds for each message.
    bool isAllowedClient(const platform::Peer& peer);

    /// What an admitted connection's peer must meet at each of its messages, in the language of
    /// code-signing requirements.
    const std::string& clientRequirement();

    /// Found out on first use, and for good.
    bool helperIsDeveloperIDSigned();

private:
    platform::CodeSigning& codeSigning_;
    std::once_flag selfChecked_;
    bool helperIsDeveloperIDSigned_ = false;
};

}  // namespace tarnvale
