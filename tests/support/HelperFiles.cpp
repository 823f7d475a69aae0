// SPDX-License-Identifier: MIT

#include "tests/support/HelperFiles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/Pattern.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr auto logTimeout = 60s;

}  // namespace

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("no file " + path);
    }
    std::ostringstream content;
    content << file.rdbuf();
    return std::move(content).str();
}

void put(const std::string& path, std::string_view content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush()) {
        throw std::runtime_error("can't write " + path);
    }
}

void putScript(const std::string& path, const std::string& commands) {
    put(path, "#!/bin/bash\nset -euo pipefail\n" + commands);
    fs::permissions(path, fs::perms(0755));
}

bool exists(const std::string& path) {
    return fs::exists(fs::symlink_status(path));
}

mode_t modeOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        throw std::runtime_error("nothing at " + path);
    }
    constexpr mode_t permissions = 07777;
    return info.st_mode & permissions;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> messagesOf(const std::string& log) {
    static const Pattern form(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ) (.*))");
    std::vector<std::string> messages;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const auto parts = form.groupsOf(line);
        if (parts.empty()) {
            throw std::runtime_error("a log line of another form: " + line);
        }
        messages.push_back(parts[2]);
    }
    return messages;
}

std::vector<std::string> logMessages() {
    return exists(logPath) ? messagesOf(contentOf(logPath)) : std::vector<std::string>();
}

std::vector<std::string> awaitLog(
    const std::function<bool(const std::vector<std::string>&)>& condition, Program* program) {
    const support::UniqueFd changes(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const std::string folder = fs::path(logPath).parent_path();
    if (::inotify_add_watch(changes.get(), folder.c_str(), IN_CLOSE_WRITE | IN_MODIFY) < 0) {
        throw std::system_error(errno, std::generic_category(), "watch the log");
    }
    support::UniqueFd process;
    if (program != nullptr && program->running()) {
        process.reset(static_cast<int>(::syscall(SYS_pidfd_open, program->pid(), 0)));
    }
    const auto deadline = std::chrono::steady_clock::now() + logTimeout;
    while (true) {
        const bool ended = program != nullptr && !program->running();
        // The last line may be half written.
        const std::string log = exists(logPath) ? contentOf(logPath) : "";
        auto messages = messagesOf(log.substr(0, log.rfind('\n') + 1));
        if (condition(messages)) {
            return messages;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (ended || left <= 0ms) {
            std::string problem = ended ? "the program ended" : "nothing happened";
            problem += "; the log:";
            for (const auto& message : messages) {
                problem += "\n" + message;
            }
            throw std::runtime_error(problem + (program == nullptr ? "" : "\n" + program->error()));
        }
        std::array<pollfd, 2> awaited{
            {{.fd = changes.get(), .events = POLLIN, .revents = 0},
             {.fd = process.get(), .events = POLLIN, .revents = 0}}};
        ::poll(awaited.data(), awaited.size(), static_cast<int>(left.count()));
        std::array<char, 4096> events{};
        while (::read(changes.get(), events.data(), events.size()) > 0) {
        }
    }
}

std::vector<std::string> awaitMessage(const std::string& message, Program* program) {
    return awaitLog(
        [&](const std::vector<std::string>& messages) {
            return std::find(messages.begin(), messages.end(), message) != messages.end();
        },
        program);
}

}  // namespace tarnvale::test
