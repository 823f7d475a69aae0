// SPDX-License-Identifier: MIT

#include "tests/reliability/CallSweep.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <utility>

#include <sys/syscall.h>

#include "tests/reliability/CallErrors.h"
#include "tests/reliability/Kinds.h"
#include "tests/reliability/SweepCommand.h"

namespace tarnvale::test {
namespace {

bool removesName(const ListedCall& listed) {
    const auto name = nameOfCall(listed.call.number);
    return name == "unlink" || name == "unlinkat";
}

/// Of the helper.
bool isDeath(const Deed& deed) {
    return deed.kind == Deed::Kind::killAll;
}

/// Whoever is killed, or can't remove a file, leaves one under its temporary name.
bool mayLeaveFiles(const Deed& deed, const ListedCall& listed) {
    return isDeath(deed) || deed.kind == Deed::Kind::killProcess || removesName(listed);
}

std::vector<std::string> namesOf(const std::vector<CallDeed>& deeds) {
    std::vector<std::string> names;
    std::ranges::transform(deeds, std::back_inserter(names), &CallDeed::name);
    return names;
}

int sweepDeeds(const std::vector<CallDeed>& deeds, const std::vector<std::string>& words) {
    CallSweep sweep;
    return sweepPaths(
        words, namesOf(deeds), [&](const Path& path, const std::string& way, const Points& points) {
            return sweep.run(path, *std::ranges::find(deeds, way, &CallDeed::name), points);
        });
}

int sweepDeaths(const std::vector<std::string>& words) {
    return sweepDeeds(allDeaths(), words);
}

int sweepRefusals(const std::vector<std::string>& words) {
    return sweepDeeds(allRefusals(), words);
}

}  // namespace

const std::vector<CallDeed>& allDeaths() {
    static const std::vector<CallDeed> deaths = {
        {.name = "service",
         .deed = {.kind = Deed::Kind::killAll},
         .fits = [](const ListedCall& /*listed*/) { return true; }},
        {.name = "child",
         .deed = {.kind = Deed::Kind::killProcess},
         .fits = [](const ListedCall& listed) { return listed.point.process != 0; }}};
    return deaths;
}

const std::vector<CallDeed>& allRefusals() {
    static const auto refusals = [] {
        std::vector<CallDeed> made;
        const std::vector<std::pair<const char*, int>> errors = {
            {"EINTR", EINTR},
            {"EAGAIN", EAGAIN},
            {"EIO", EIO},
            {"ENOSPC", ENOSPC},
            {"ENOMEM", ENOMEM},
            {"EMFILE", EMFILE},
            {"EACCES", EACCES},
            {"EROFS", EROFS}};
        made.reserve(errors.size() + 1);
        for (const auto& [name, number] : errors) {
            made.push_back(
                {.name = name,
                 .deed = {.kind = Deed::Kind::fail, .error = number},
                 .fits = [error = number](const ListedCall& listed) {
                     return mayFail(listed.call, error);
                 }});
        }
        made.push_back(
            {.name = "short",
             .deed = {.kind = Deed::Kind::shorten},
             .fits = [](const ListedCall& listed) { return mayBeShort(listed.call); }});
        return made;
    }();
    return refusals;
}

const CallDeed& deathNamed(std::string_view name) {
    return *std::ranges::find(allDeaths(), name, &CallDeed::name);
}

const CallDeed& refusalNamed(std::string_view name) {
    return *std::ranges::find(allRefusals(), name, &CallDeed::name);
}

CallDeed restrictedTo(const std::set<std::string>& calls, const CallDeed& deed) {
    auto restricted = deed;
    restricted.fits = [calls, fits = deed.fits](const ListedCall& listed) {
        return calls.contains(nameOfCall(listed.call.number)) && fits(listed);
    };
    return restricted;
}

CallSweep::~CallSweep() {
    stop();
}

std::unique_ptr<Program> CallSweep::startHelper(const std::vector<std::string>& commandLine) {
    return watch_.start(commandLine);
}

void CallSweep::endDisturbance() {
    watch_.pause();
}

Outcome CallSweep::run(const Path& path, const CallDeed& deed, const Points& points) {
    begin(path);
    auto calls = callsOf(path);
    std::erase_if(calls, [&](const ListedCall& call) { return !deed.fits(call); });
    for (auto number = points.first; number <= std::min<std::size_t>(points.last, calls.size());
         number += points.step) {
        const auto& listed = calls[number - 1];
        setPoint(
            std::string(path.name) + " " + deed.name + " " + std::to_string(number) + " (" +
                nameOfCall(listed.call.number) + ")",
            mayLeaveFiles(deed.deed, listed));
        meet([&] { return disturb(path, deed, listed.point); });
    }
    return takeOutcome();
}

/// Those of the path's undisturbed run.
std::vector<ListedCall> CallSweep::callsOf(const Path& path) {
    toBeginningOf(path);
    watch_.beginList();
    static_cast<void>(ask(path));
    return watch_.list();
}

/// False when the call wasn't made this time.
bool CallSweep::disturb(const Path& path, const CallDeed& deed, const WatchedPoint& point) {
    toBeginningOf(path);
    watch_.await(point, deed.deed, deed.fits);
    const auto reply = ask(path);
    const bool wasDone = watch_.end();
    if (wasDone && isDeath(deed.deed)) {
        judgeDeath(reply, path);
    } else {
        judge(reply, path);
    }
    return wasDone;
}

const Kind killKind{.name = "kill", .arguments = sweepArguments, .run = sweepDeaths};
const Kind errnoKind{.name = "errno", .arguments = sweepArguments, .run = sweepRefusals};

}  // namespace tarnvale::test
