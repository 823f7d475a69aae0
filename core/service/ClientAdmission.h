// SPDX-License-Identifier: MIT
//
// Decides which programs may talk to the helper: the application and its service process, both
// signed by the maker's team. A check that can't be made counts as "no".

#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "platform/CodeSigning.h"

namespace tarnvale {

/// The team that signs the application and its service process.
inline constexpr std::string_view teamIdentifier = "K7PD2QM4TZ";

/// Decides whom the service admits. A helper with a Developer ID signature demands one of its
/// clients; a helper signed for development also admits clients signed for development. Safe from
/// any thread.
class ClientAdmission {
public:
    /// `codeSigning` must outlive the object.
    explicit ClientAdmission(platform::CodeSigning& codeSigning) : codeSigning_(codeSigning) {}

    /// Whether the process is one of the two programs now. Later messages are checked against the
    /// connection's requirement.
    bool isAllowedClient(const platform::Peer& peer);

    /// What the peer of an admitted connection must meet at each message, in the language of
    /// code-signing requirements.
    const std::string& clientRequirement();

    /// Determined on first use; the answer never changes.
    bool helperIsDeveloperIDSigned();

private:
    platform::CodeSigning& codeSigning_;
    std::once_flag selfChecked_;
    bool helperIsDeveloperIDSigned_ = false;
};

}  // namespace tarnvale
