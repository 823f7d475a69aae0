// SPDX-License-Identifier: MIT

#include "clilinks/CLISymlinkFixture.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::HelperCLISymlink {
namespace {

namespace fs = std::filesystem;

void require(int result, const std::string& step) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

}  // namespace

std::string copyIsUnsafe(const std::string& path) {
    return "Tarnvale can't link its command-line tool from this copy: " + path +
           " can be changed by someone who isn't an administrator. Ask an administrator to install "
           "Tarnvale in /Applications.";
}

std::string linkedLine(const std::string& name) {
    return "Linked /usr/local/bin/" + name + " -> " + tool + ".";
}

Entries entriesOf(const std::string& folder) {
    Entries entries;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::string& kind = entries[entry.path().filename().string()];
        if (entry.is_symlink()) {
            kind = "-> " + fs::read_symlink(entry.path()).string();
        } else {
            kind = entry.is_directory() ? "folder" : "file";
        }
    }
    return entries;
}

Entries linked() {
    return entriesOf("/usr/local/bin");
}

Entries bothLinks() {
    const std::string target = std::string("-> ") + tool;
    return {{"tarnvale", target}, {"tvx", target}};
}

void link(const std::string& name, const std::string& target) {
    fs::create_symlink(target, "/usr/local/bin/" + name);
}

void clearLog() {
    fs::remove(test::logPath);
}

std::string install(const std::string& program) {
    return outputOf({program, "install"});
}

std::string remove(const std::string& program) {
    return outputOf({program, "remove"});
}

std::string outputOf(const std::vector<std::string>& arguments) {
    std::string output = test::run(arguments).output;
    if (output.ends_with('\n')) {
        output.pop_back();
    }
    return output;
}

void placePrograms(const std::string& folder) {
    fs::create_directories(folder);
    fs::copy_file(TARNVALE_BIN_DIR "/clilinks_driver", folder + "/TarnvaleAdminHelper");
    test::put(folder + "/tarnvale", "#!/bin/sh\n");
    setMode(folder + "/tarnvale", 0755);
}

void setMode(const std::string& path, mode_t mode) {
    require(::chmod(path.c_str(), mode), path);
}

void setOwner(const std::string& path, uid_t owner, gid_t group) {
    require(::lchown(path.c_str(), owner, group), path);
}

void CLISymlinkFixture::SetUp() {
    TARNVALE_NEEDS(owners);
    ::umask(022);
    test::put(
        "/etc/passwd", "root:x:0:0::/:/bin/sh\nada:x:501:20::/:/bin/sh\nbob:x:502:20::/:/bin/sh\n");
    test::put("/etc/group", "wheel:x:0:\nstaff:x:20:\nadmin:x:80:root,ada\n");
    clearLog();
    placePrograms(fs::path(helper).parent_path());
    removeUsrLocal();
    for (const char* folder : {"/usr/local", "/usr/local/bin"}) {
        require(::mkdir(folder, 0755), folder);
    }
}

void CLISymlinkFixture::removeUsrLocal() {
    fs::remove_all("/usr/local");
}

}  // namespace tarnvale::HelperCLISymlink
