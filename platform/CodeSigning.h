// SPDX-License-Identifier: MIT
//
// Who signed the program that a process runs, as the system knows it. What cannot be found out
// counts as "no".

#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::platform {

/// The process at the other end of a connection, as the transport names it.
struct Peer {
    /// Stands for the handle of a process that can't be named any more: it had ended before, or
    /// belongs to another PID namespace. It runs no code, whoever has its ID now.
    static constexpr int gone = -2;

    pid_t pid = -1;

    /// On Linux a pidfd, which still names this process when another has got its ID; -1 when the
    /// caller knows only the ID. macOS doesn't use it. The transport owns it.
    int handle = -1;

    /// On Linux, the user whose peers take turns with those of other users at being checked, and
    /// when the checks must be done. Without a user there are neither turns nor a limit.
    std::optional<uid_t> user{};
    std::chrono::steady_clock::time_point checkedBy = std::chrono::steady_clock::time_point::max();
};

/// The peer's time was over before its turn to be checked came. That says nothing about the peer.
class CheckOverdue : public std::runtime_error {
public:
    CheckOverdue() : std::runtime_error("The peer could not be checked in time.") {}
};

/// The program's file changed each time that it was checked, or what a check of this program itself
/// takes could not be had. That says nothing about the program.
class CheckDisturbed : public std::runtime_error {
public:
    CheckDisturbed() : std::runtime_error("The program could not be checked undisturbed.") {}
};

/// What a signature says about itself.
struct SigningInformation {
    std::optional<std::string> teamIdentifier;
    std::optional<std::string> identifier;

    bool operator==(const SigningInformation&) const = default;
};

/// The program that a process runs. One thread may use it, as long as the peer's handle is open.
/// Both questions throw `CheckOverdue` and `CheckDisturbed`.
class Code {
public:
    virtual ~Code() = default;

    /// What the code's signature says; nobody has verified it yet. Nothing for unsigned code.
    virtual std::optional<SigningInformation> signingInformation() = 0;

    /// Whether somebody whom the system trusts has signed this very code, and it meets the
    /// requirement. False when the text isn't a requirement.
    virtual bool isValid(std::string_view requirement) = 0;

    /// Why the system trusts none of the signature's certificates, in its own words, such as
    /// "certificate has expired". Nothing if it trusts them or doesn't say why not.
    virtual std::optional<std::string> chainProblem() { return std::nullopt; }
};

/// The system's code signatures. Safe from any thread.
class CodeSigning {
public:
    virtual ~CodeSigning() = default;

    /// The running program itself; null when the system does not show it. Throws `CheckDisturbed`
    /// when it could at another time.
    virtual std::unique_ptr<Code> self() = 0;

    /// The program that the peer runs right now; null when the peer has ended.
    virtual std::unique_ptr<Code> guest(const Peer& peer) = 0;

    /// Why no code is valid on this machine, whoever signed it, as part of a sentence. Nothing if
    /// the system trusts somebody.
    virtual std::optional<std::string> trustProblem() { return std::nullopt; }
};

/// The code signatures of this machine. Defined once in platform/macos and once in
/// platform/linux.
std::unique_ptr<CodeSigning> makeCodeSigning();

}  // namespace tarnvale::platform
