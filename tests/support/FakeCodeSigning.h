// SPDX-License-Identifier: MIT
//
// Code signatures in memory.

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/CodeSigning.h"

namespace tarnvale::test {

class FakeCodeSigning final : public platform::CodeSigning {
public:
    /// A program that runs.
    struct Program {
        std::optional<platform::SigningInformation> information;
        std::set<std::string, std::less<>> meets;  ///< the requirements that it is valid against
    };

    std::optional<Program> own = Program{};
    std::map<pid_t, Program> peers;
    int selfLookups = 0;
    bool isDisturbed = false;                    ///< no check comes to an end
    std::set<std::string, std::less<>> asked;    ///< every requirement that was checked
    std::function<void()> duringLookup = [] {};  ///< happens while a peer is looked up

    std::unique_ptr<platform::Code> self() override {
        ++selfLookups;
        return own ? std::make_unique<RunningCode>(*own, *this) : nullptr;
    }

    std::unique_ptr<platform::Code> guest(const platform::Peer& peer) override {
        duringLookup();
        const auto found = peers.find(peer.pid);
        return found == peers.end() ? nullptr : std::make_unique<RunningCode>(found->second, *this);
    }

private:
    class RunningCode final : public platform::Code {
    public:
        RunningCode(const Program& program, FakeCodeSigning& signing)
            : program_(program), signing_(signing) {}

        std::optional<platform::SigningInformation> signingInformation() override {
            return program_.information;
        }

        bool isValid(std::string_view requirement) override {
            signing_.asked.emplace(requirement);
            if (signing_.isDisturbed) {
                throw platform::CheckDisturbed();
            }
            return program_.meets.count(requirement) == 1;
        }

    private:
        const Program& program_;
        FakeCodeSigning& signing_;
    };
};

}  // namespace tarnvale::test
