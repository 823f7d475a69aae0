// SPDX-License-Identifier: MIT
//
// A transport without a wire: the test connects, and calls what is exported itself.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "platform/Transport.h"

namespace tarnvale::test {

class FakeConnection final : public platform::NewConnection {
public:
    FakeConnection(pid_t pid, uid_t uid) : peer_{.pid = pid, .handle = -1}, uid_(uid) {}

    std::string requirement;
    bool refusesRequirement = false;
    bool endsAtOnce = false;  ///< as soon as somebody wants to know of it
    std::function<void()> invalidationHandler;

    const platform::Peer& peer() const override { return peer_; }
    uid_t effectiveUserID() const override { return uid_; }

    bool setCodeSigningRequirement(const std::string& text) override {
        requirement = text;
        return !refusesRequirement;
    }

    void setInvalidationHandler(std::function<void()> handler) override {
        invalidationHandler = std::move(handler);
        if (endsAtOnce) {
            invalidationHandler();
        }
    }

private:
    platform::Peer peer_;
    uid_t uid_;
};

class FakeTransport final : public platform::Transport {
public:
    platform::TransportDelegate* delegate = nullptr;
    TarnvaleAdminHelperProtocol* exported = nullptr;
    std::optional<uid_t> caller;  ///< whose request is being served
    bool mayRetire = true;
    bool isRetired = false;

    void resume(platform::TransportDelegate& newDelegate, TarnvaleAdminHelperProtocol& newExported)
        override {
        delegate = &newDelegate;
        exported = &newExported;
    }

    bool retire() override {
        isRetired = mayRetire;
        return mayRetire;
    }

    std::optional<uid_t> currentEffectiveUserID() const override { return caller; }
};

}  // namespace tarnvale::test
