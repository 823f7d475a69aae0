// SPDX-License-Identifier: MIT
//
// Runs the tests of this program on a kernel that has 802.1Q, whatever kernel the machine has: it
// boots user-mode Linux in a private root or, where that doesn't run, Debian's kernel in qemu, with
// this program again as that kernel's first process.

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/Qemu.h"
#include "tests/support/SkipReasons.h"
#include "tests/vlan/Kernels.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

/// The last line of a report; the tests' exit status follows.
constexpr std::string_view endOfReport = "first process: the tests end with status ";

void require(bool done, const std::string& step) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

// The first process.

std::string moduleFolder() {
    utsname kernel{};
    require(::uname(&kernel) == 0, "uname");
    const std::string folder = std::string("/lib/modules/") + kernel.release;
    const std::string userModeFolder = std::string("/usr/lib/uml/modules/") + kernel.release;
    return (fs::exists(folder) ? folder : userModeFolder) + "/kernel/";
}

void loadModules() {
    const std::string folder = moduleFolder();
    for (const char* module : kernelModules) {
        const support::UniqueFd file(::open((folder + module).c_str(), O_RDONLY | O_CLOEXEC));
        require(static_cast<bool>(file), folder + module);
        require(::syscall(SYS_finit_module, file.get(), "", 0) == 0, module);
    }
}

/// Runs the tests in a child, so that one that crashes does not take the kernel with it. The child
/// runs the program anew: a sanitizer looks into /proc when it starts, which this process began
/// without.
int runTests(const std::vector<std::string>& arguments) {
    const char* const program = "/proc/self/exe";
    auto command = with({program, asTestProcess, "--gtest_color=no"}, arguments);
    std::vector<char*> pointers;
    pointers.reserve(command.size() + 1);
    for (auto& word : command) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        ::execv(program, pointers.data());
        ::_exit(127);
    }
    int status = 0;
    require(::waitpid(child, &status, 0) == child, "wait for the tests");
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

[[noreturn]] void beFirstProcess(
    const char* reportFile, const std::vector<std::string>& arguments) {
    if (!fs::exists("/dev/null")) {  // qemu's guest starts without devices
        ::mount("dev", "/dev", "devtmpfs", 0, nullptr);
    }
    const int report =
        ::open(reportFile, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
    ::dup2(report, STDOUT_FILENO);
    ::dup2(report, STDERR_FILENO);
    int status = 1;
    try {
        require(::mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount /proc");
        require(::mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0, "mount /sys");
        loadModules();
        status = runTests(arguments);
    } catch (const std::exception& error) {
        std::cout << "first process: " << error.what() << '\n';
    }
    std::cout << endOfReport << status << '\n' << std::flush;
    ::tcdrain(report);
    ::sync();
    ::reboot(RB_POWER_OFF);
    ::_exit(status);
}

// The programs that boot a kernel.

int skip(const std::string& reason) {
    printSkipReason(reason);
    return skippedStatus;
}

/// Prints what the first process reported, and returns the status that it ends with.
int print(const Boot& boot) {
    const auto end = boot.report.rfind(endOfReport);
    std::cout << boot.report.substr(0, end);
    if (end == std::string::npos) {
        std::cout << "The kernel ended before the tests:\n" << boot.console;
        return 1;
    }
    return std::stoi(boot.report.substr(end + endOfReport.size()));
}

/// The line that says why a kernel didn't run: the last one, or the last before its panic.
std::string reasonIn(std::string_view console) {
    console = console.substr(0, console.find("Kernel panic"));
    console = console.substr(0, console.find_last_not_of("\r\n ") + 1);
    return std::string(console.substr(console.find_last_of('\n') + 1));
}

/// Boots user-mode Linux. Prints the tests' output and returns their status; where it doesn't run,
/// prints why and returns `skippedStatus`.
int beUserModeLinux(const std::string& program, const std::vector<std::string>& arguments) {
    if (const auto refusal = enterPrivateRoot()) {
        std::cout << *refusal;
        return skippedStatus;
    }
    if (const auto lack = lackOf(Ability::trees)) {
        std::cout << *lack;
        return skippedStatus;
    }
    const Boot boot = bootUserModeLinux(program, arguments);
    if (!boot.report.empty()) {
        return print(boot);
    }
    std::cout << reasonIn(boot.console);
    return skippedStatus;
}

int bootAndReport(const std::string& program, const std::vector<std::string>& arguments) {
    // A process of its own enters the private root: there is no way back, and qemu needs none.
    const auto userMode = run(endingWithUs(with({program, asUserModeLinux}, arguments)));
    if (userMode.status != skippedStatus) {
        std::cout << userMode.output << userMode.error;
        return userMode.status;
    }
    const Boot boot = bootQemu(program, arguments);
    if (!boot.report.empty()) {
        return print(boot);
    }
    return skip(
        "no kernel with 802.1Q runs here: user-mode Linux: " + userMode.output +
        "; qemu: " + reasonIn(boot.console));
}

}  // namespace
}  // namespace tarnvale::test

int main(int argc, char** argv) {
    namespace test = tarnvale::test;
    try {
        // As it was called: in a chroot, what /proc/self/exe says need not be a path.
        const std::string program = std::filesystem::absolute(argv[0]);
        std::vector<std::string> arguments(argv + 1, argv + argc);
        testing::InitGoogleTest(&argc, argv);
        const std::string_view role = argc > 1 ? argv[1] : "";
        if (role == test::asTestProcess || testing::GTEST_FLAG(list_tests)) {
            return RUN_ALL_TESTS();
        }
        if (role == test::asFirstProcess && argc > 2) {
            arguments.erase(arguments.begin(), arguments.begin() + 2);
            test::beFirstProcess(argv[2], arguments);
        }
        if (role == test::asUserModeLinux) {
            arguments.erase(arguments.begin());
            return test::beUserModeLinux(program, arguments);
        }
        return test::bootAndReport(program, arguments);
    } catch (const std::exception& error) {
        std::cerr << "vlan_kernel_test: " << error.what() << '\n';
        return 1;
    }
}
