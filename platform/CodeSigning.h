// SPDX-License-Identifier: MIT
//
// Who signed the program that a process runs, as the system knows it. A question that cannot be
// answered is answered "no".

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::platform {

/// The process at the other end of a connection, as the transport names it.
struct Peer {
    /// The handle of a process that can't be named any more: it had ended before, or belongs to
    /// another PID namespace. No code is ever its code, whoever has its ID now.
    static constexpr int gone = -2;

    pid_t pid = -1;

    /// On Linux a pidfd, which goes on naming this process when its ID has passed to another; -1
    /// where the caller knows only the ID. macOS doesn't use it. The transport owns it.
    int handle = -1;
};

/// What a signature says of itself.
struct SigningInformation {
    std::optional<std::string> teamIdentifier;
    std::optional<std::string> identifier;

    bool operator==(const SigningInformation&) const = default;
};

/// The program that a process runs. For use by one thread, and no longer than the peer's handle.
class Code {
public:
    virtual ~Code() = default;

    /// What the code's signature says, which is not yet to be trusted. Nothing for code that is
    /// not signed.
    virtual std::optional<SigningInformation> signingInformation() = 0;

    /// Whether the code is what was signed, by somebody whom the system trusts, and meets the
    /// requirement. False for a text that is no requirement.
    virtual bool isValid(std::string_view requirement) = 0;
};

/// The system's code signatures. Safe from any thread.
class CodeSigning {
public:
    virtual ~CodeSigning() = default;

    /// The running program itself; null when it cannot be had.
    virtual std::unique_ptr<Code> self() = 0;

    /// The program that the peer runs at this moment; null when the peer has ended.
    virtual std::unique_ptr<Code> guest(const Peer& peer) = 0;
};

/// The code signatures of this machine. Defined once in platform/macos and once in
/// platform/linux.
std::unique_ptr<CodeSigning> makeCodeSigning();

}  // namespace tarnvale::platform
