// SPDX-License-Identifier: MIT

#include "tests/reliability/Sweep.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

/// Longer than any request takes, and less than until the helper next looks at a silent client,
/// which may end the connection.
constexpr auto replyLimit = 8s;
constexpr auto endLimit = 2s;
/// What a start takes after the helper listens.
constexpr auto startRest = 20ms;
constexpr int signalled = 128;

bool isOneOf(const std::string& value, const std::string& key, const MachineState& state) {
    const auto found = state.find(key);
    return found != state.end() && found->second == value;
}

}  // namespace

void Sweep::begin(const Path& path) {
    // A younger file could have changed since it was checked, so it is checked at each message.
    std::this_thread::sleep_until(settlesAt_);
    outcome_ = {};
    target_ = targetOf(path);
}

/// Leaves no connection and no socket of an earlier helper.
void Sweep::launch() {
    client_.reset();
    helper_.reset();
    std::filesystem::remove(servicePath);
    helper_ = startHelper({program_});
}

/// Waits until it listens, or has ended. The log may have no room to say so; the socket gets its
/// name once it is whole.
bool Sweep::listens() {
    const auto end = std::chrono::steady_clock::now() + replyLimit;
    while (!std::filesystem::exists(servicePath)) {
        if (helper_->endsWithin(1ms) || std::chrono::steady_clock::now() > end) {
            return false;
        }
    }
    return true;
}

/// Undisturbed.
void Sweep::start() {
    launch();
    if (!listens()) {
        throw std::runtime_error(where_ + ": does not start undisturbed");
    }
}

bool Sweep::serves() {
    ServiceClient client(lab_.client);
    const auto reply = callInTime(client, versionRequest(), replyLimit);
    return reply && isSuccess(*reply);
}

void Sweep::toBeginningOf(const Path& path) {
    if (path.isFirstRequest) {
        std::filesystem::remove(storePath);
        start();
        client_ = std::make_unique<ServiceClient>(lab_.client);
    } else {
        prepare(path);
    }
    before_ = machineState();
}

void Sweep::prepare(const Path& path) {
    if (!helper_ || !helper_->running()) {
        start();
    }
    if (!client_) {
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    path.prepare(*client_);
    const auto reply = callInTime(*client_, versionRequest(), replyLimit);
    if (!reply || !isSuccess(*reply)) {
        throw std::runtime_error(where_ + ": not served undisturbed");
    }
    if (path.isFirstOfClient) {
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    if (path.isStart) {
        client_.reset();
        helper_.reset();
    }
}

/// Of a start that leads nowhere, the client sees what it sees of a connection that is closed.
std::optional<Texts> Sweep::ask(const Path& path) {
    if (path.isStart) {
        launch();
        if (!listens() || hasEndedItself(startRest)) {
            return Texts{"closed"};
        }
        endDisturbance();
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    return callInTime(*client_, path, replyLimit);
}

/// What the path leads to where nothing fails.
MachineState Sweep::targetOf(const Path& path) {
    toBeginningOf(path);
    const auto reply = ask(path);
    if (!reply || !isSuccess(*reply)) {
        throw std::runtime_error(std::string(path.name) + " fails undisturbed");
    }
    return machineState();
}

void Sweep::judge(const std::optional<Texts>& reply, const Path& path) {
    judgeReply(reply);
    judgeHelper(path);
    judgeMachine(reply, path);
}

void Sweep::judgeReply(const std::optional<Texts>& reply) {
    if (!reply) {
        report("neither a reply nor the end of the connection");
    }
    if (!reply || reply->front() == "closed") {
        client_.reset();
    }
}

/// Everything is as it was or as it was to be, and a success means the latter.
void Sweep::judgeMachine(const std::optional<Texts>& reply, const Path& path) {
    const auto after = machineState();
    std::string undone;
    for (const auto& [key, value] : after) {
        if (!isOneOf(value, key, target_) && !path.bestEffort.contains(key)) {
            undone.append(" ").append(key);
        }
        if (!isOneOf(value, key, before_) && !isOneOf(value, key, target_)) {
            report(std::string(key).append(" is neither the old nor the new: ").append(value));
        }
    }
    if (reply && isSuccess(*reply) && !undone.empty()) {
        report("success, but not done:" + undone);
    }
}

/// It serves whoever comes next. One that nobody has been served by may end itself instead; then
/// its successor does.
void Sweep::judgeHelper(const Path& path) {
    if (!hasEndedItself(0ms) && serves()) {
        return;
    }
    if (!hasEndedItself(endLimit)) {
        report("it lives, but serves nobody");
        start();
        return;
    }
    const auto end = helper_->finish();
    const bool mayEnd = path.isStart || path.isFirstRequest;
    if (end.status == 0 || end.status >= signalled || !mayEnd) {
        report("it ended with status " + std::to_string(end.status) + ": " + end.error);
    }
    ++outcome_.restarts;
    start();
    if (!serves()) {
        report("its successor serves nobody");
    }
    if (path.isStart && machineState() != target_) {
        report("its successor does not bring the stored list into force");
    }
}

bool Sweep::hasEndedItself(std::chrono::milliseconds limit) {
    return helper_->endsWithin(limit);
}

void Sweep::report(const std::string& what) {
    outcome_.violations.push_back(where_ + ": " + what);
}

}  // namespace tarnvale::test
