// SPDX-License-Identifier: MIT

#include "tests/reliability/Sweep.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

#include <sys/stat.h>

#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

constexpr auto endLimit = 2s;
constexpr auto startLimit = 60s;
/// What a start takes after the helper listens.
constexpr auto startRest = 20ms;
constexpr int signalled = 128;
constexpr int maxAttempts = 3;

/// When the file was made or changed, to the kernel's tick; nothing where there is none.
std::optional<std::pair<time_t, long>> changeOf(const char* path) {
    struct stat info {};
    if (::lstat(path, &info) != 0) {
        return std::nullopt;
    }
    return std::pair(info.st_ctim.tv_sec, info.st_ctim.tv_nsec);
}

bool isOneOf(const std::string& value, const std::string& key, const MachineState& state) {
    const auto found = state.find(key);
    return found != state.end() && found->second == value;
}

}  // namespace

Sweep::Sweep(Client client, std::chrono::seconds replyLimit) : replyLimit_(replyLimit) {
    if (client == Client::trusted) {
        beginsAt_ += 4s;
    }
}

void Sweep::begin(const Path& path) {
    std::this_thread::sleep_until(beginsAt_);
    outcome_ = {};
    target_ = targetOf(path);
}

Outcome Sweep::takeOutcome() {
    return std::exchange(outcome_, {});
}

void Sweep::setPoint(const std::string& where, bool mayLeaveFiles) {
    where_ = where;
    mayLeaveFiles_ = mayLeaveFiles;
}

bool Sweep::meet(const std::function<bool()>& disturb) {
    for (int attempt = 1; attempt <= maxAttempts; ++attempt) {
        if (disturb()) {
            ++outcome_.points;
            return true;
        }
    }
    ++outcome_.neverMet;
    return false;
}

void Sweep::stop() {
    client_.reset();
    helper_.reset();
}

/// Leaves no connection and no socket of an earlier helper.
void Sweep::launch() {
    stop();
    std::filesystem::remove(servicePath);
    helper_ = startHelper({program_});
}

/// Waits until it listens, or has ended. The log may have no room to say so; the socket gets its
/// name once it is whole.
bool Sweep::listens() {
    const auto end = std::chrono::steady_clock::now() + startLimit;
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

/// Undisturbed, where a helper was killed: what that has left stays.
void Sweep::succeed() {
    stop();
    const auto stale = changeOf(servicePath);
    helper_ = startHelper({program_});
    const auto end = std::chrono::steady_clock::now() + startLimit;
    while (changeOf(servicePath) == stale) {
        if (helper_->endsWithin(1ms) || std::chrono::steady_clock::now() > end) {
            report("its successor does not start");
            start();
            return;
        }
    }
}

bool Sweep::serves() {
    ServiceClient client(lab_.client);
    const auto reply = callInTime(client, versionRequest(), replyLimit_);
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
    // What failed behind the last reply may have ended the connection.
    if (!client_ || callInTime(*client_, versionRequest(), replyLimit_) == Texts{"closed"}) {
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    path.prepare(*client_);
    const auto reply = callInTime(*client_, versionRequest(), replyLimit_);
    if (!reply || !isSuccess(*reply)) {
        throw std::runtime_error(where_ + ": not served undisturbed");
    }
    if (path.isFirstOfClient) {
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    if (path.isStart || path.isReapply) {
        stop();
    }
}

/// Of a start that leads nowhere, the client sees what it sees of a connection that is closed.
std::optional<Texts> Sweep::ask(const Path& path) {
    if (path.isReapply) {
        return reapply();
    }
    if (path.isStart) {
        launch();
        if (!listens() || hasEndedItself(startRest)) {
            return Texts{"closed"};
        }
        endDisturbance();
        client_ = std::make_unique<ServiceClient>(lab_.client);
    }
    return callInTime(*client_, path, replyLimit_);
}

/// The same for one that only brings the stored lists into force.
std::optional<Texts> Sweep::reapply() {
    stop();
    helper_ = startHelper({program_, "--reapply"});
    if (!hasEndedItself(replyLimit_)) {
        return std::nullopt;
    }
    return Texts{helper_->finish().status == EXIT_SUCCESS ? "nil" : "closed"};
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
    if (path.isReapply) {
        judgeMachine(reply, path, path.mayLose);
        judgeReapply();
    } else {
        judgeHelper(path);
        judgeMachine(reply, path, path.mayLose);
    }
}

/// All that it was doing is as it was or as it was to be. The successor serves, enforces what is
/// stored, and does what the killed one was asked for.
void Sweep::judgeDeath(const std::optional<Texts>& reply, const Path& path) {
    judgeReply(reply);
    if (!hasEndedItself(endLimit)) {
        report("it lives, though it was killed");
    }
    judgeMachine(reply, path, {unfinishedVLAN});
    succeed();
    if (!serves()) {
        report("its successor serves nobody");
    }
    judgeMachine(reply, path, {unfinishedVLAN});
    const auto now = machineState();
    const bool isDone = isOneOf(now.at(storePath), storePath, target_);
    if (contradicts(now, isDone ? target_ : before_)) {
        report("its successor does not bring the stored list into force");
    }
    judgeRepetition(path);
}

/// A start is its own repetition.
void Sweep::judgeRepetition(const Path& path) {
    if (!path.isStart) {
        if (!client_) {
            client_ = std::make_unique<ServiceClient>(lab_.client);
        }
        const bool isRefused = !path.doneOnce.empty() &&
                               isOneOf(machineState().at(path.doneOnce), path.doneOnce, target_);
        const auto reply = ask(path);
        if (!reply || isSuccess(*reply) == isRefused) {
            report("asked again, it is answered: " + (reply ? reply->back() : "no reply"));
        }
    }
    const auto now = machineState();
    for (const auto& [key, value] : now) {
        if (!isOneOf(value, key, target_) && !path.mayLag.contains(key)) {
            report(std::string("asked again, it leaves ").append(key).append(": ").append(value));
        }
    }
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
void Sweep::judgeMachine(
    const std::optional<Texts>& reply, const Path& path, const std::set<std::string>& mayLose) {
    if (mayLeaveFiles_) {
        removeTemporaryFiles();
    }
    const auto after = machineState();
    std::string undone;
    for (const auto& [key, value] : after) {
        if (!isOneOf(value, key, target_) && !path.bestEffort.contains(key)) {
            undone.append(" ").append(key);
        }
        const bool isKnown = isOneOf(value, key, before_) || isOneOf(value, key, target_);
        if (!isKnown && !mayLose.contains(key)) {
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

/// It has ended. The next one does what it couldn't.
void Sweep::judgeReapply() {
    if (!hasEndedItself(0ms)) {
        return;  // as is reported
    }
    const auto end = helper_->finish();
    if (end.status >= signalled) {
        report("it ended with status " + std::to_string(end.status) + ": " + end.error);
    }
    reapply();
    if (machineState() != target_) {
        report("the next one does not bring the stored list into force");
    }
}

bool Sweep::hasEndedItself(std::chrono::milliseconds limit) {
    return helper_->endsWithin(limit);
}

void Sweep::report(const std::string& what) {
    outcome_.violations.push_back(where_ + ": " + what);
}

}  // namespace tarnvale::test
