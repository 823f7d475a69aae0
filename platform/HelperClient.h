// SPDX-License-Identifier: MIT
//
// The helper as one of its clients sees it: the same ten methods that it serves, at the other end
// of a connection.

#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"

namespace tarnvale::platform {

/// Each method sends its request, waits for the reply and returns it; `shutdownForUpgrade` then
/// calls its `reply`. Without a reply a method throws `HelperClientError`. For use by one thread.
using HelperClient = TarnvaleAdminHelperProtocol;

/// Why there is no reply; what() is the whole sentence that the user reads.
class HelperClientError : public std::runtime_error {
public:
    enum class Case { notReachable, notAdmitted, noReply };

    /// Nobody answers where the helper listens. `reason` is the system's own text without its full
    /// stop.
    static HelperClientError notReachable(const std::string& reason) {
        return {Case::notReachable, "Could not reach the helper: " + reason + "."};
    }

    /// The helper closed the connection before it answered anything.
    static HelperClientError notAdmitted() {
        return {
            Case::notAdmitted,
            "The helper closed the connection: it doesn't admit this program, or has too many "
            "connections already."};
    }

    /// The request was sent. Whether the helper carried it out isn't known.
    static HelperClientError noReply(const std::string& reason) {
        return {Case::noReply, "The helper gave no reply: " + reason + "."};
    }

    Case errorCase() const noexcept { return case_; }

private:
    HelperClientError(Case errorCase, const std::string& description)
        : std::runtime_error(description), case_(errorCase) {}

    Case case_;
};

/// How long the helper may take to admit this process. The system may have to start it first, and
/// before it listens it enforces the stored policies again.
inline constexpr std::chrono::seconds admissionLimit{60};

/// How long the helper may take to reply. An apply waits for those of other users, and each of them
/// may find the packet filter busy for seconds.
inline constexpr std::chrono::seconds replyLimit{120};

/// Connects to the helper, which the system starts if necessary, and waits until it has admitted
/// this process. Throws `HelperClientError`. Defined once in platform/macos and once in
/// platform/linux.
std::unique_ptr<HelperClient> connectToHelper();

}  // namespace tarnvale::platform
