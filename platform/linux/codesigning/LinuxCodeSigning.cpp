// SPDX-License-Identifier: MIT
//
// Code signatures on Linux: the executable that a process runs is opened once, and its last bytes
// are its signature. Reading a file may take as long as its file system likes, so threads read side
// by side; at what then takes the processor, users take turns.

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/CodeSigning.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/PeerProcess.h"
#include "platform/linux/SharedLibrary.h"
#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/FairTurns.h"
#include "platform/linux/codesigning/FileIdentity.h"
#include "platform/linux/codesigning/Requirement.h"
#include "platform/linux/codesigning/Roots.h"
#include "platform/linux/codesigning/RootsNotice.h"
#include "platform/linux/codesigning/SignedData.h"
#include "platform/linux/codesigning/VerifiedExecutables.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

/// In seconds. File systems take the time of a change from clocks as coarse as this: a file that
/// changed just now could change again and look the same.
constexpr std::int64_t coarsestClock = 2;

std::optional<FileIdentity> identityOf(int file) {
    struct stat status {};
    if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

/// The turns of the peers to be checked.
struct Turns {
    FairTurns messages{2};
    FairTurns digests{1};  ///< they take longest, and shall leave a processor to others
};

/// A file that changes each time that it is checked so often may go on changing for ever.
constexpr int maxChecks = 5;

/// The file has left the state in which it was opened.
struct FileChanged {};

/// The code that a process ran at one moment: one file. A change of its mode or of its names
/// changes nothing in the program, so a check that one disturbs is made again.
class LinuxCode final : public Code {
public:
    /// `link` is where /proc shows the executable of the peer, or, without a peer, of this process.
    LinuxCode(
        Turns& turns,
        VerifiedExecutables& verified,
        RootsNotice& notice,
        std::string link,
        std::optional<Peer> peer,
        std::optional<PeerProcess> owned,
        const FileIdentity& executable)
        : turns_(turns),
          verified_(verified),
          notice_(notice),
          link_(std::move(link)),
          peer_(peer),
          owned_(std::move(owned)),
          executable_(executable) {}

    std::optional<SigningInformation> signingInformation() override {
        if (auto information = verified_.informationOf(executable_)) {
            return information;
        }
        return readInformation();
    }

    bool isValid(std::string_view requirement) override {
        const auto roots = rootsIdentity();
        if (!roots) {
            notice_.sayAfterRefusal();
            return cannotTell();
        }
        const std::int64_t now = std::time(nullptr);
        try {
            return undisturbed([&] {
                return verified_.meets(executable_, *roots, now, requirement) ||
                       check(requirement, now);
            });
        } catch (const SharedLibraryError&) {
            return cannotTell();
        }
    }

    std::optional<std::string> chainProblem() override {
        const auto roots = readRoots();
        return roots && open() ? platform::chainProblem(trailer_->message, roots->pem)
                               : std::nullopt;
    }

private:
    /// Where something can't be found out, a peer fails its check. That says nothing about this
    /// program itself: descriptors or memory may have run out, or the roots may come later.
    bool cannotTell() const {
        if (!peer_) {
            throw CheckDisturbed();
        }
        return false;
    }

    /// Makes the check again until the file stays as it is meanwhile.
    template <typename Check>
    bool undisturbed(const Check& check) {
        for (int checks = 0; checks < maxChecks; ++checks) {
            try {
                return check();
            } catch (const FileChanged&) {
                file_.reset();
                trailer_.reset();
            }
        }
        throw CheckDisturbed();
    }

    void requireUnchanged() const {
        if (identityOf(file_.get()) != executable_) {
            throw FileChanged();
        }
    }

    /// Opens the executable, takes note of its state and reads its trailer, once. False when the
    /// process has ended or runs another program by now, or when the program isn't signed.
    bool open() {
        if (!file_) {
            support::UniqueFd file(::open(link_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            const auto opened = file ? identityOf(file.get()) : std::nullopt;
            if (!opened) {
                return cannotTell();
            }
            if (opened->isSameFile(executable_) && (!peer_ || lives(*peer_))) {
                try {
                    trailer_ = readTrailer(file.get(), opened->size);
                } catch (const FileUnreadable&) {
                    return cannotTell();
                }
                executable_ = *opened;
            }
            file_ = std::move(file);
        }
        return trailer_.has_value();
    }

    std::optional<SigningInformation> readInformation() {
        if (!open()) {
            return std::nullopt;
        }
        std::optional<Claims> claims;
        inTurn(turns_.messages, [&] { claims = readClaims(trailer_->message); });
        if (!claims) {
            return std::nullopt;
        }
        return SigningInformation{
            .teamIdentifier = std::move(claims->teamIdentifier),
            .identifier = std::move(claims->content.identifier)};
    }

    /// The whole check: the cheap parts first, the digest last.
    bool check(std::string_view requirement, std::int64_t now) {
        if (verified_.isMismatch(executable_)) {
            return false;
        }
        const auto parsed = Requirement::parse(requirement);
        if (!parsed || !open()) {
            return false;
        }
        const auto roots = readRoots();
        if (!roots) {
            notice_.sayAfterRefusal();
            return cannotTell();
        }
        std::optional<Trusted> trusted;
        inTurn(turns_.messages, [&] { trusted = verify(trailer_->message, roots->pem); });
        if (!trusted) {
            notice_.sayAfterRefusal();  // if no certificate is in the file
            return false;
        }
        const CodeFacts facts{
            .identifier = trusted->content.identifier,
            .chain = std::move(trusted->chain),
            .anchored = true};
        if (!parsed->holds(facts)) {
            return false;
        }

        const bool maySettle = now - executable_.changedSeconds > coarsestClock;
        const auto paced = [this](const auto& work) { inTurn(turns_.digests, work); };
        const auto digest = sha256(file_.get(), trailer_->programSize, paced);
        if (!digest) {
            return cannotTell();
        }
        if (*digest != trusted->content.sha256) {
            if (maySettle && identityOf(file_.get()) == executable_) {
                verified_.rememberMismatch(executable_);
            }
            return false;
        }
        requireUnchanged();
        if (maySettle) {
            verified_.remember(
                {.executable = executable_,
                 .roots = roots->identity,
                 .validUntil = trusted->validUntil},
                {.teamIdentifier = facts.chain.front().subjectOU, .identifier = facts.identifier},
                requirement);
        }
        return true;
    }

    /// Nobody waits for this process itself.
    template <typename Work>
    void inTurn(FairTurns& turns, const Work& work) {
        if (!peer_ || !peer_->user) {
            work();
            return;
        }
        const auto turn = turns.take(*peer_->user, Deadline::at(peer_->checkedBy));
        if (!turn) {
            throw CheckOverdue();
        }
        work();
    }

    Turns& turns_;
    VerifiedExecutables& verified_;
    RootsNotice& notice_;
    std::string link_;
    std::optional<Peer> peer_;
    std::optional<PeerProcess> owned_;  ///< holds the handle when the caller has none
    FileIdentity executable_;
    support::UniqueFd file_;
    std::optional<SignatureTrailer> trailer_;
};

class LinuxCodeSigning final : public CodeSigning {
public:
    std::unique_ptr<Code> self() override {
        return codeAt("/proc/self/exe", std::nullopt, std::nullopt);
    }

    std::optional<std::string> trustProblem() override { return rootsProblem(); }

    std::unique_ptr<Code> guest(const Peer& peer) override {
        if (peer.handle == Peer::gone) {
            return nullptr;
        }
        if (peer.handle >= 0) {
            return codeAt(executableLink(peer), peer, std::nullopt);
        }
        auto process = PeerProcess::ofPid(peer.pid);
        if (!process) {
            return nullptr;
        }
        Peer named = peer;
        named.handle = process->peer().handle;
        return codeAt(executableLink(named), named, std::move(process));
    }

private:
    std::unique_ptr<Code> codeAt(
        std::string link, std::optional<Peer> peer, std::optional<PeerProcess> owned) {
        struct stat status {};
        const bool isThere = ::stat(link.c_str(), &status) == 0;
        if (!isThere && !peer) {
            throw CheckDisturbed();  // what runs has a file, even one that nobody can see now
        }
        if (!isThere || (peer && !lives(*peer))) {
            return nullptr;
        }
        return std::make_unique<LinuxCode>(
            turns_,
            verified_,
            notice_,
            std::move(link),
            peer,
            std::move(owned),
            FileIdentity(status));
    }

    Turns turns_;
    VerifiedExecutables verified_;
    RootsNotice notice_;
};

}  // namespace

std::unique_ptr<CodeSigning> makeCodeSigning() {
    return std::make_unique<LinuxCodeSigning>();
}

}  // namespace tarnvale::platform
