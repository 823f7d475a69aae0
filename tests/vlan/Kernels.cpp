// SPDX-License-Identifier: MIT

#include "tests/vlan/Kernels.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <sys/mman.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/Qemu.h"
#include "tests/support/ServiceLab.h"
#include "tests/vlan/Initramfs.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* userModeLinux = "/usr/bin/linux.uml";

/// Debian's kernel package as scripts/setup unpacks it: boot/vmlinuz-RELEASE, lib/modules/RELEASE.
constexpr const char* failedAllocations = TARNVALE_BIN_DIR "/failed-allocations.so";
constexpr const char* guestKernel = TARNVALE_SOURCE_DIR "/build/guest-kernel";

/// A sanitized program needs terabytes of address space; user-mode Linux has half of one.
constexpr bool isSanitized = !std::string_view(TARNVALE_SANITIZE).empty();

/// What the tests run besides the project's programs.
constexpr std::array systemPrograms{"/bin/sh", "/bin/sleep", "/sbin/ip", "/usr/bin/unshare"};

/// Nothing where no kernel was unpacked.
std::string guestRelease() {
    constexpr std::string_view prefix = "vmlinuz-";
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(guestKernel + std::string("/boot"), missing)) {
        const std::string name = entry.path().filename();
        if (name.starts_with(prefix)) {
            return name.substr(prefix.size());
        }
    }
    return {};
}

/// The guest's files, as an archive in memory.
support::UniqueFd guestFiles(const std::string& program, const std::string& release) {
    Initramfs files;
    files.addProgram("/init", program);
    for (const std::string tested : {helperProgram, clientProgram, pfctlProgram}) {
        files.addProgram(tested, tested);
    }
    if (!isSanitized) {
        files.add(failedAllocations, failedAllocations);
    }
    for (const std::string system : systemPrograms) {
        files.addProgram(system, system);
    }
    const std::string modules = "/lib/modules/" + release + "/kernel/";
    for (const char* module : kernelModules) {
        files.add(modules + module, guestKernel + modules + module);
    }
    for (const char* folder : {"/dev", "/proc", "/run", "/sys", "/tmp", "/var/log"}) {
        files.addFolder(folder);
    }

    const std::string archive = files.archive();
    support::UniqueFd file(::memfd_create("initramfs", MFD_CLOEXEC));
    if (!file || ::write(file.get(), archive.data(), archive.size()) !=
                     static_cast<ssize_t>(archive.size())) {
        throw std::system_error(errno, std::generic_category(), "write the guest's files");
    }
    return file;
}

}  // namespace

Boot bootUserModeLinux(const std::string& program, const std::vector<std::string>& arguments) {
    if (isSanitized) {
        return {{}, "has no room for a sanitizer's shadow memory"};
    }
    if (!fs::exists(userModeLinux)) {
        return {{}, "not installed"};
    }
    // The kernel's arguments are separated by spaces, which the program's path may contain.
    const std::string init = "/run/first-process";
    fs::create_symlink(program, init);
    const std::string report = "/run/vlan-kernel-report";
    // The kernel's memory is a file there.
    ::setenv("TMPDIR", "/tmp", 1);
    const auto kernel = run(with(
        {userModeLinux,
         "mem=256M",
         "rootfstype=hostfs",
         "rw",
         "init=" + init,
         "con=null",
         "con0=null,fd:1",
         "quiet",
         "--",
         asFirstProcess,
         report},
        arguments));
    return {exists(report) ? contentOf(report) : "", kernel.output + kernel.error};
}

Boot bootQemu(const std::string& program, const std::vector<std::string>& arguments) {
    if (!fs::exists(qemu)) {
        return {{}, "not installed"};
    }
    const std::string release = guestRelease();
    if (release.empty()) {
        return {{}, "no kernel in build/guest-kernel, where scripts/setup puts one"};
    }
    std::string commandLine = "quiet panic=-1 console=ttyS1 --";
    for (const auto& argument : with({asFirstProcess, "/dev/ttyS0"}, arguments)) {
        commandLine += " " + argument;
    }
    const auto files = guestFiles(program, release);
    constexpr int filesThere = 3;
    // The first serial line carries the report, the second the console.
    Program machine(
        with(
            qemuCommand(
                guestKernel + ("/boot/vmlinuz-" + release),
                "/dev/fd/" + std::to_string(filesThere),
                commandLine),
            {"-no-reboot",
             "-serial",
             "file:/dev/fd/1",
             "-chardev",
             "file,id=console,append=on,path=/dev/fd/2",
             "-serial",
             "chardev:console"}),
        {},
        {.environment = {}, .descriptors = {{files.get(), filesThere}}});
    auto [status, report, console] = machine.finish();
    std::erase(report, '\r');
    return {report, console};
}

}  // namespace tarnvale::test
