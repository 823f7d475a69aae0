// SPDX-License-Identifier: MIT

#include "tests/demo/Stage.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include <fnmatch.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Pattern.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SigningLab.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* signedClient = "/tmp/tarnvale-helperctl";
constexpr const char* unsignedClient = TARNVALE_BIN_DIR "/tarnvale-helperctl";

void makeUsers() {
    constexpr uid_t annsID = 501;
    fs::remove("/etc/nsswitch.conf");
    put("/etc/passwd",
        "root:x:0:0::/root:/bin/sh\n"
        "ann:x:501:20::/:/bin/sh\n"
        "bea:x:502:20::/:/bin/sh\n");
    put("/etc/group", "root:x:0:\nstaff:x:20:\nadmin:x:80:bea\n");
    ServiceLab::setConsoleUser(annsID);
}

void signTheClient() {
    const Chain maker = Chain::development();
    ServiceLab::trust({&maker});
    ServiceLab::signCopy(unsignedClient, applicationIdentifier, maker, signedClient);
}

/// The policies, where every user can read them, by the names that the demo shows.
void layOutTheExamples() {
    fs::copy(TARNVALE_SOURCE_DIR "/examples", "/tmp/examples");
    fs::permissions("/tmp/examples", fs::perms(0755));
    for (const auto& example : fs::directory_iterator("/tmp/examples")) {
        fs::permissions(example, fs::perms(0644));
    }
    fs::current_path("/tmp");
}

/// Prepares the machine. Returns the command that listens for requests and starts the helper.
std::vector<std::string> activation() {
    makeUsers();
    signTheClient();
    layOutTheExamples();
    fs::remove_all(supportFolder);
    put(logPath, "");
    return {TARNVALE_BIN_DIR "/activate", helperProgram};
}

Answer answerOf(const std::vector<std::string>& command) {
    const Finished client = run(command);
    std::string text = client.output + client.error;
    while (text.ends_with('\n')) {
        text.pop_back();
    }
    return {client.status, std::move(text)};
}

std::vector<std::string> joined(
    std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

}  // namespace

Stage::Stage() : activator_(activation()) {
    while (!exists(servicePath)) {
        if (!activator_.running()) {
            throw std::runtime_error("the helper's socket cannot be had: " + activator_.error());
        }
        std::this_thread::sleep_for(1ms);
    }
}

pid_t Stage::helper() const {
    // Other helpers may run where the private root has no PID namespace; ours is the activator's.
    const Pattern childOfTheActivator(
        R"((\d+) \(.*\) \S )" + std::to_string(activator_.pid()) + R"( .*)");
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "stat");
        std::string status;
        std::getline(file, status);
        const auto parts = childOfTheActivator.groupsOf(status);
        if (!parts.empty()) {
            return std::stoi(parts[1]);
        }
    }
    throw std::runtime_error("no helper runs");
}

Answer askOnBehalfOf(const std::string& user, const std::vector<std::string>& request) {
    return answerOf(joined({signedClient, "--user", user}, request));
}

Answer askAsRoot(const std::vector<std::string>& request) {
    return answerOf(joined({signedClient}, request));
}

Answer askUnsigned(const std::vector<std::string>& request) {
    return answerOf(joined({unsignedClient}, request));
}

std::optional<std::string> lastLogged(const std::string& pattern) {
    // The story looks only for messages of one line, each behind its time.
    std::optional<std::string> last;
    std::istringstream lines(contentOf(logPath));
    for (std::string line; std::getline(lines, line);) {
        const std::string message = line.substr(line.find(' ') + 1);
        if (::fnmatch(pattern.c_str(), message.c_str(), 0) == 0) {
            last = message;
        }
    }
    return last;
}

}  // namespace tarnvale::test
