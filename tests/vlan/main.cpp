// SPDX-License-Identifier: MIT
//
// Runs the tests of this program on a kernel that has 802.1Q, whatever kernel the machine has: it
// boots user-mode Linux in its private root, with the private root's files, and with this program
// again as that kernel's first process.

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
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
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kernelProgram = "/usr/bin/linux.uml";

/// A sanitized program needs terabytes of address space; user-mode Linux has half of one.
constexpr bool isSanitized = !std::string_view(TARNVALE_SANITIZE).empty();

/// Tells the first process from the program that boots the kernel.
constexpr const char* asFirstProcess = "--as-first-process";

/// What the first process leaves in the private root: its tests' output and their exit status.
constexpr const char* reportFile = "/run/vlan-kernel-report";
constexpr const char* statusFile = "/run/vlan-kernel-status";

/// The modules of 802.1Q, each after those that it needs, and of interfaces to carry VLANs.
constexpr std::array modules = {
    "net/llc/llc.ko",
    "net/802/stp.ko",
    "net/802/garp.ko",
    "net/802/mrp.ko",
    "net/8021q/8021q.ko",
    "drivers/net/dummy.ko",
};

void require(bool done, const std::string& step) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

// The first process.

void loadModules() {
    utsname kernel{};
    require(::uname(&kernel) == 0, "uname");
    const std::string folder = std::string("/usr/lib/uml/modules/") + kernel.release + "/kernel/";
    for (const char* module : modules) {
        const support::UniqueFd file(::open((folder + module).c_str(), O_RDONLY | O_CLOEXEC));
        require(static_cast<bool>(file), folder + module);
        require(::syscall(SYS_finit_module, file.get(), "", 0) == 0, module);
    }
}

/// Runs the tests in a child, so that one that crashes does not take the kernel with it.
int runTests() {
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        const int status = RUN_ALL_TESTS();
        std::cout.flush();
        ::_exit(std::fflush(nullptr) == 0 ? status : 1);
    }
    int status = 0;
    require(::waitpid(child, &status, 0) == child, "wait for the tests");
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

[[noreturn]] void beFirstProcess() {
    const int report =
        ::open(reportFile, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    ::dup2(report, STDOUT_FILENO);
    ::dup2(report, STDERR_FILENO);
    int status = 1;
    try {
        require(::mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount /proc");
        require(::mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0, "mount /sys");
        loadModules();
        status = runTests();
    } catch (const std::exception& error) {
        std::cout << "first process: " << error.what() << '\n' << std::flush;
    }
    std::ofstream(statusFile) << status << '\n';
    ::sync();
    ::reboot(RB_POWER_OFF);
    ::_exit(status);
}

// The program that boots the kernel.

int skip(const std::string& reason) {
    printSkipReason(reason);
    return skippedStatus;
}

std::string contentOf(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

int bootAndReport(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {
        kernelProgram,
        "mem=256M",
        "rootfstype=hostfs",
        "rw",
        "init=" + program,
        "con=null",
        "con0=null,fd:1",
        "quiet",
        "--",
        asFirstProcess};
    command.insert(command.end(), arguments.begin(), arguments.end());
    // The kernel's memory is a file there.
    require(::setenv("TMPDIR", "/tmp", 1) == 0, "setenv");
    const auto kernel = run(command);

    if (!fs::exists(reportFile)) {
        return skip(
            "user-mode-linux cannot run this program here:\n" + kernel.output + kernel.error);
    }
    std::cout << contentOf(reportFile);
    int status = 1;
    if (!(std::ifstream(statusFile) >> status)) {
        std::cout << "The kernel ended before the tests:\n" << kernel.output << kernel.error;
    }
    return status;
}

int bootAndReportFromAPrivateRoot(
    const std::string& program, const std::vector<std::string>& arguments) {
    if (isSanitized) {
        return skip("a sanitizer's shadow memory does not fit into user-mode Linux");
    }
    if (!fs::exists(kernelProgram)) {
        return skip("user-mode-linux is not installed");
    }
    if (const auto refusal = enterPrivateRoot()) {
        return skip(*refusal);
    }
    return bootAndReport(program, arguments);
}

}  // namespace
}  // namespace tarnvale::test

int main(int argc, char** argv) {
    try {
        // As it was called: in a chroot, what /proc/self/exe says need not be a path.
        const std::string program = std::filesystem::absolute(argv[0]);
        const std::vector<std::string> arguments(argv + 1, argv + argc);
        testing::InitGoogleTest(&argc, argv);
        if (argc > 1 && std::string_view(argv[1]) == tarnvale::test::asFirstProcess) {
            tarnvale::test::beFirstProcess();
        }
        return testing::GTEST_FLAG(list_tests)
                   ? RUN_ALL_TESTS()
                   : tarnvale::test::bootAndReportFromAPrivateRoot(program, arguments);
    } catch (const std::exception& error) {
        std::cerr << "vlan_kernel_test: " << error.what() << '\n';
        return 1;
    }
}
