// SPDX-License-Identifier: MIT
//
// Decides which programs may talk to the helper: the application and its service process, both
// signed by the maker's team. A check that can't be made counts as "no".

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/CodeSigning.h"
#include "support/Mutex.h"

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

    /// Determined on first use; the answer never changes. Until a check of the helper itself comes
    /// to an end, it counts as signed so: the strict way.
    bool helperIsDeveloperIDSigned() EXCLUDES(selfCheck_);

private:
    platform::CodeSigning& codeSigning_;
    support::Mutex selfCheck_;  ///< held for one check, so that nobody makes a second
    std::optional<bool> isDeveloperIDSigned_ GUARDED_BY(selfCheck_);
};

}  // namespace tarnvale
