// SPDX-License-Identifier: MIT

#include "pfctl/kernel/RunState.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "pfctl/language/PfctlError.h"
#include "support/Decimal.h"
#include "support/Files.h"
#include "support/SystemCalls.h"

namespace tarnvale::pfctl {
namespace {

std::string pathOf(const char* name) {
    return std::string(runFolder) + "/" + name;
}

PfctlError failure(const std::string& path) {
    return {path, errno};
}

/// Takes a decimal number and the character after it off the front of the text.
std::optional<std::uint64_t> takeNumberUntil(std::string_view& text, char after) {
    const auto value = support::takeNumber<std::uint64_t>(text);
    if (!value || !text.starts_with(after)) {
        return std::nullopt;
    }
    text.remove_prefix(1);
    return value;
}

void makeRunFolder() {
    if (::mkdir(runFolder, 0700) != 0 && errno != EEXIST) {
        throw failure(runFolder);
    }
}

}  // namespace

std::optional<Enabled> readEnabled() {
    const std::string path = pathOf("enabled");
    std::array<char, 64> bytes{};
    const int size = support::persistently([&] {
        const support::UniqueFd file(
            ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        return file ? static_cast<int>(::read(file.get(), bytes.data(), bytes.size())) : -1;
    });
    // A load that took pf for disabled would put the rules in force out of force.
    if (size < 0 && support::mayPass(errno)) {
        throw failure(path);
    }
    return size < 0 ? std::nullopt : enabledIn({bytes.data(), static_cast<std::size_t>(size)});
}

std::optional<Enabled> enabledIn(std::string_view text) {
    const auto since = takeNumberUntil(text, ' ');
    const auto token = takeNumberUntil(text, '\n');
    if (!since || !token) {
        return std::nullopt;
    }
    return Enabled{.since = *since, .token = *token};
}

Enabled writeEnabled() {
    Enabled enabled{.since = uptime(), .token = 0};
    if (::getrandom(&enabled.token, sizeof enabled.token, 0) !=
        static_cast<ssize_t>(sizeof enabled.token)) {
        throw failure("getrandom");
    }
    const std::string text =
        std::to_string(enabled.since) + " " + std::to_string(enabled.token) + "\n";

    // The caller holds the lock, so nobody else writes under the temporary name.
    const std::string temporary = pathOf("enabled.new");
    const support::UniqueFd file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) {
        throw failure(temporary);
    }
    if (!support::writeAll(file.get(), text) ||
        std::rename(temporary.c_str(), pathOf("enabled").c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw PfctlError(temporary, error);
    }
    return enabled;
}

std::uint64_t uptime() {
    timespec now{};
    if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        throw failure("clock_gettime");
    }
    return static_cast<std::uint64_t>(now.tv_sec);
}

RunLock::RunLock(WhenTaken whenTaken) {
    makeRunFolder();
    const std::string path = pathOf("lock");
    fd_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_) {
        throw failure(path);
    }
    const int operation = whenTaken == WhenTaken::fail ? LOCK_EX | LOCK_NB : LOCK_EX;
    while (::flock(fd_.get(), operation) != 0) {
        if (errno == EWOULDBLOCK) {
            throw PfctlError("DIOCXCOMMIT: Resource busy");
        }
        if (errno != EINTR) {
            throw failure(path);
        }
    }
}

}  // namespace tarnvale::pfctl
