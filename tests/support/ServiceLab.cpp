// SPDX-License-Identifier: MIT

#include "tests/support/ServiceLab.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

#include "tests/support/Conversation.h"
#include "tests/support/FailedStep.h"
#include "tests/support/Pattern.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::test {

namespace fs = std::filesystem;

const char* const helperProgram = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
const char* const clientProgram = TARNVALE_BIN_DIR "/service-client";
const char* const pfctlProgram = TARNVALE_BIN_DIR "/pfctl";

namespace {

/// The helper's.
constexpr const char* anchor = "com.apple/900.tarnvale.firewall";

void setSession(const std::string& session) {
    put("/run/systemd/seats/seat0", "IS_SEAT0=1\nACTIVE=c1\n");
    put("/run/systemd/sessions/c1", session);
}

std::size_t countOf(const std::vector<std::string>& messages, std::string_view message) {
    return static_cast<std::size_t>(std::count(messages.begin(), messages.end(), message));
}

/// libsystemd draws the keys of its hash tables into shared memory without a lock and copies them;
/// any mixture is random enough. Only a sanitizer looks at the variable.
std::vector<std::string> sanitizerOptions() {
    const std::string path = "/run/sanitizer-suppressions";
    put(path, "called_from_lib:libsystemd.so\n");
    return {"TSAN_OPTIONS=suppressions=" + path};
}

Program startHelper(const RunningHelper::Start& start) {
    Surroundings surroundings{
        .environment = with(sanitizerOptions(), start.environment), .descriptors = {}};
    if (start.listeningSocket < 0) {
        return Program({start.program}, {}, surroundings);
    }
    surroundings.descriptors = {{start.listeningSocket, 3}};
    return Program(
        activationCommand(start.program, {"LISTEN_PID=$$", "LISTEN_FDS=1"}), {}, surroundings);
}

}  // namespace

std::string helperVersion() {
    const char* const version = TARNVALE_VERSION;
    return *version == 0 ? "7" : version;
}

std::string listeningMessage() {
    return "Helper " + helperVersion() + " listening on com.brackwen.tarnvale.adminhelper.";
}

ServiceLab::ServiceLab() : client(signedClient(applicationIdentifier, development)) {
    trust({&development});
    fs::remove("/etc/nsswitch.conf");
    put("/etc/passwd",
        "root:x:0:0::/root:/bin/sh\n"
        "ada:x:501:20::/:/bin/sh\n"
        "bob:x:502:20::/:/bin/sh\n"
        "eve:x:503:20::/:/bin/sh\n");
    put("/etc/group", "root:x:0:\nstaff:x:20:\nadmin:x:80:ada\n");
    setConsoleUser(std::nullopt);
    fs::copy_file(pfctlProgram, "/sbin/pfctl", fs::copy_options::overwrite_existing);
}

void ServiceLab::trust(const std::vector<const Chain*>& chains) {
    std::string roots;
    for (const auto* chain : chains) {
        roots += chain->root.certificatePem();
    }
    fs::remove(rootsPath);
    put(rootsPath, roots);
    fs::permissions(rootsPath, fs::perms(0644));
}

std::string ServiceLab::signCopy(
    const std::string& program,
    std::string_view identifier,
    const Chain& chain,
    const std::string& path) {
    put(path, signedProgram(contentOf(program), identifier, chain));
    fs::permissions(path, fs::perms(0755));
    return path;
}

std::string ServiceLab::installedHelper() {
    const std::string helpers = "/Applications/Tarnvale.app/Contents/Helpers";
    fs::remove_all("/Applications");
    fs::remove_all("/usr/local");
    fs::create_directories(helpers);
    fs::create_directories("/usr/local");
    const std::string tool = helpers + "/tarnvale";
    put(tool, "#!/bin/sh\n");
    fs::permissions(tool, fs::perms(0755));
    std::string helper = helpers + "/TarnvaleAdminHelper";
    fs::copy_file(helperProgram, helper);
    return helper;
}

std::string ServiceLab::signedClient(std::string_view identifier, const Chain& chain) {
    return signCopy(clientProgram, identifier, chain, "/tmp/client-" + std::to_string(++clients_));
}

void ServiceLab::setConsoleUser(std::optional<uid_t> uid) {
    if (uid) {
        setSession("UID=" + std::to_string(*uid) + "\nSTATE=active\nCLASS=user\n");
    } else {
        fs::remove_all("/run/systemd/seats");
    }
}

void ServiceLab::showLoginWindow() {
    setSession("UID=118\nSTATE=active\nCLASS=greeter\n");
}

std::string listedRules() {
    static const Pattern counters("  \\[[^\n]*\n");
    return counters.replaceAll(run({"/sbin/pfctl", "-a", anchor, "-v", "-sr"}).output, "");
}

void flushRules() {
    const auto flushed = run({"/sbin/pfctl", "-a", anchor, "-F", "rules"});
    if (flushed.status != 0) {
        throw std::runtime_error("the rules can't be flushed: " + flushed.error);
    }
}

RunningHelper::RunningHelper() : RunningHelper(Start{}) {}

RunningHelper::RunningHelper(const Start& start)
    : RunningHelper(start, countOf(logMessages(), listeningMessage())) {}

RunningHelper::RunningHelper(const Start& start, std::size_t listeningBefore)
    : program_(startHelper(start)) {
    awaitLog(
        [&](const auto& messages) {
            return countOf(messages, listeningMessage()) > listeningBefore;
        },
        &program_);
}

void RunningHelper::signal(int number) const {
    if (program_.pid() > 0 && ::kill(program_.pid(), number) != 0) {
        fail("kill");
    }
}

void RunningHelper::kill() {
    if (running()) {
        signal(SIGKILL);
        program_.finish();
    }
}

std::vector<std::string> activationCommand(
    const std::string& program, const std::vector<std::string>& variables) {
    std::string command;
    for (const auto& variable : variables) {
        command += variable + " ";
    }
    return {"/bin/sh", "-c", command + "exec \"$0\"", program};
}

support::UniqueFd connectToService() {
    return connectTo(servicePath);
}

ServiceClient::ServiceClient(const std::string& program, uid_t uid, std::optional<pid_t> pid)
    : process_({program, std::to_string(uid)}, pid) {}

bool ServiceClient::connects() {
    return tell({"connect"}) == Texts{"connected"};
}

support::UniqueFd ServiceClient::lend() {
    say(process_.socket(), {"lend"});
    support::UniqueFd lent = receiveDescriptor(process_.socket());
    if (!lent) {
        throw std::runtime_error("the client has no connection to lend");
    }
    return lent;
}

Texts ServiceClient::call(
    const std::string& method, const std::string& types, const Texts& arguments) {
    begin(method, types, arguments);
    return reply();
}

void ServiceClient::begin(
    const std::string& method, const std::string& types, const Texts& arguments) {
    Texts words{"call", method, types};
    words.insert(words.end(), arguments.begin(), arguments.end());
    say(process_.socket(), words);
}

Texts ServiceClient::reply() {
    auto words = hear(process_.socket());
    if (!words) {
        throw std::runtime_error("the client has ended");
    }
    return std::move(*words);
}

Texts ServiceClient::tell(const Texts& sentence) {
    say(process_.socket(), sentence);
    return reply();
}

void ServiceClient::signal(int number) const {
    if (::kill(pid(), number) != 0) {
        fail("kill");
    }
}

}  // namespace tarnvale::test
