// SPDX-License-Identifier: MIT
//
// A private root of namespaces: the machine's files below a layer that takes what is written.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "tests/support/Grounds.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

void require(int result, const std::string& step) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

void writeText(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    errno = error;
    require(written ? 0 : -1, path);
}

/// IDs that a user may hand out: `count` of them from `first` on.
struct Range {
    std::string first;
    std::string count;
};

/// The user's range in a file of subordinate IDs, "NAME:FIRST:COUNT" a line; NAME may be the ID.
std::optional<Range> subordinateRange(const char* file, uid_t uid) {
    const passwd* const entry = ::getpwuid(uid);
    const std::string name = entry == nullptr ? "" : entry->pw_name;
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string owner;
        Range range;
        if (std::getline(fields, owner, ':') && std::getline(fields, range.first, ':') &&
            std::getline(fields, range.count) && !owner.empty() &&
            (owner == name || owner == std::to_string(uid))) {
            return range;
        }
    }
    return std::nullopt;
}

/// Runs a program and waits for it. Whether it succeeded.
bool succeeds(std::vector<std::string> words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (auto& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    pid_t child = -1;
    int status = 0;
    return ::posix_spawnp(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) == 0 &&
           ::waitpid(child, &status, 0) == child && status == 0;
}

/// Becomes root of a user namespace with the subordinate users besides. Only set-user-ID programs
/// of the system's may write such maps, from outside: a child that stays there runs them. False,
/// and nothing has changed, where they can't be had.
bool becomeRootOfManyUsers(uid_t uid, gid_t gid, const Range& users, const Range& groups) {
    if (::access("/usr/bin/newuidmap", X_OK) != 0 || ::access("/usr/bin/newgidmap", X_OK) != 0) {
        return false;
    }
    std::array<int, 2> ends{};
    require(::pipe2(ends.data(), O_CLOEXEC), "pipe");
    const std::string process = std::to_string(::getpid());
    const pid_t child = ::fork();
    require(child < 0 ? -1 : 0, "fork");
    if (child == 0) {
        char made = 0;
        ::close(ends[1]);
        const auto map = [&](const char* program, unsigned own, const Range& range) {
            return succeeds(
                {program, process, "0", std::to_string(own), "1", "1", range.first, range.count});
        };
        const bool mapped = ::read(ends[0], &made, 1) == 1 && map("newgidmap", gid, groups) &&
                            map("newuidmap", uid, users);
        ::_exit(mapped ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    ::close(ends[0]);
    require(::unshare(CLONE_NEWUSER), "make a user namespace");
    require(::write(ends[1], "", 1) == 1 ? 0 : -1, "pipe");
    ::close(ends[1]);
    int status = 0;
    require(::waitpid(child, &status, 0) == child ? 0 : -1, "waitpid");
    if (status != 0) {
        throw std::system_error(EPERM, std::generic_category(), "newuidmap");
    }
    require(::setgroups(0, nullptr), "setgroups");
    require(::setgid(0), "setgid");
    require(::setuid(0), "setuid");
    return true;
}

/// Keeps what is mounted from here on from showing outside. Below a chroot to a plain folder "/" is
/// not a mount, so only what is mounted below it can be made private.
void makeMountsPrivate() {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        return;
    }
    for (const char* mounted : {"/proc", "/dev", "/sys"}) {
        require(
            ::mount(nullptr, mounted, nullptr, MS_REC | MS_PRIVATE, nullptr),
            std::string("make ") + mounted + " private");
    }
}

/// Mounts a tmpfs for the layers on `place` and returns the folder that is to become the root.
std::string makeLayers(const std::string& place) {
    require(::mount("layers", place.c_str(), "tmpfs", 0, "mode=0755"), "mount layers");
    for (const char* layer : {"/upper", "/work", "/root"}) {
        require(::mkdir((place + layer).c_str(), 0755), "make layer");
    }
    return place + "/root";
}

void bindMount(const std::string& source, const std::string& target) {
    require(::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr), source);
}

void mountScratch(const std::string& root) {
    for (const char* scratch : {"/run", "/tmp"}) {
        require(::mount("scratch", (root + scratch).c_str(), "tmpfs", 0, nullptr), scratch);
    }
}

/// Mounts a layer over one folder. Whether the kernel does that here.
bool mountLayer(const std::string& lower, const std::string& layer, const std::string& target) {
    const std::string upper = layer + "/upper";
    const std::string work = layer + "/work";
    fs::create_directories(upper);
    fs::create_directories(work);
    const std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
    // Without "userxattr" a layer of a user namespace can't note that a folder which it removed
    // came back empty; kernels before 5.11 don't know the word.
    return ::mount("private", target.c_str(), "overlay", 0, (options + ",userxattr").c_str()) ==
               0 ||
           ::mount("private", target.c_str(), "overlay", 0, options.c_str()) == 0;
}

/// The layer over "/" shows one file system only, and the project's tree may lie on another.
void showSources(const std::string& layers, const std::string& root) {
    const std::string source = TARNVALE_SOURCE_DIR;
    std::error_code unknown;
    if (fs::exists(root + source + "/CMakeLists.txt", unknown)) {
        return;
    }
    fs::create_directories(root + source);
    if (!mountLayer(source, layers + "/sources", root + source)) {
        bindMount(source, root + source);
    }
}

/// One layer over the whole file system.
void mountWhole(const std::string& layers, const std::string& root) {
    const std::string options =
        "lowerdir=/,upperdir=" + layers + "/upper,workdir=" + layers + "/work";
    require(::mount("private", root.c_str(), "overlay", 0, options.c_str()), "mount root");
    for (const char* shared : {"/dev", "/sys"}) {
        bindMount(shared, root + shared);
    }
}

/// Makes folders of the layer's own for those of `lower`, down to the given depth. The owner of
/// what lies below is nobody in a user namespace, and even its root may not write into a folder of
/// nobody's; a folder of the layer's belongs to root, and shows what is below it all the same.
void takeOverFolders(const fs::path& lower, const fs::path& upper, int depth) {
    std::error_code unreadable;
    for (const auto& entry : fs::directory_iterator(lower, unreadable)) {
        if (entry.symlink_status(unreadable).type() != fs::file_type::directory) {
            continue;
        }
        struct stat info {};
        if (::lstat(entry.path().c_str(), &info) != 0 || info.st_uid == ::geteuid()) {
            continue;
        }
        const fs::path made = upper / entry.path().filename();
        constexpr mode_t permissions = 01777;
        if (::mkdir(made.c_str(), 0755) != 0 ||
            ::chmod(made.c_str(), info.st_mode & permissions) != 0) {
            continue;
        }
        if (::access(entry.path().c_str(), R_OK | X_OK) != 0 || entry.path() == "/usr/local") {
            // What a user can't read can't be shown. What somebody put into /usr/local, the tests
            // could not clear away.
            ::setxattr(made.c_str(), "user.overlay.opaque", "y", 1, 0);
            if (entry.path() == "/usr/local") {
                ::mkdir((made / "bin").c_str(), 0755);
            }
        } else if (depth > 1) {
            takeOverFolders(entry.path(), made, depth - 1);
        }
    }
}

/// Copies what can be read. What a user can't read in /etc isn't needed there either.
void copyFolder(const fs::path& from, const fs::path& to) {
    std::error_code unreadable;
    for (const auto& entry : fs::directory_iterator(from, unreadable)) {
        const fs::path copy = to / entry.path().filename();
        std::error_code ignored;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), copy, ignored);
        } else if (entry.is_directory()) {
            fs::create_directory(copy, ignored);
            copyFolder(entry.path(), copy);
        } else if (entry.is_regular_file()) {
            fs::copy_file(entry.path(), copy, ignored);
        }
    }
}

/// A layer over one folder at the top. One that has mounts of others below it can't have a layer in
/// a user namespace; it is shown as it is.
void mountFolder(const std::string& layers, const std::string& root, const std::string& name) {
    const std::string layer = layers + "/" + name + ".layer";
    constexpr int writtenDepth = 3;  // such as /usr/local/share and /var/lib/systemd
    fs::create_directories(layer + "/upper");
    takeOverFolders("/" + name, layer + "/upper", writtenDepth);
    if (!mountLayer("/" + name, layer, root + "/" + name)) {
        bindMount("/" + name, root + "/" + name);
    }
}

/// A layer for each folder at the top: in a user namespace a layer over "/" itself is refused,
/// since it would show what the mounts below it hide.
void mountFolders(const std::string& layers, const std::string& root) {
    constexpr std::array<std::string_view, 5> madeApart{"proc", "run", "tmp", "etc", "root"};
    for (const auto& entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().filename();
        const fs::path target = fs::path(root) / name;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), target);
            continue;
        }
        std::error_code unreadable;
        if (!entry.is_directory(unreadable)) {
            continue;
        }
        require(::mkdir(target.c_str(), 0755), "make " + name);
        if (name == "dev" || name == "sys") {
            bindMount("/" + name, target);
        } else if (
            std::find(madeApart.begin(), madeApart.end(), name) == madeApart.end() &&
            ::access(entry.path().c_str(), R_OK | X_OK) == 0) {
            mountFolder(layers, root, name);
        }
    }
    copyFolder("/etc", root + "/etc");
}

/// Puts the folder in place of "/". Where "/" itself is not a mount, below a chroot, it can't
/// change places with another; then a chroot has to do, inside of which no user namespace can be
/// made.
void becomeRoot(const std::string& folder) {
    require(::chdir(folder.c_str()), folder);
    if (::syscall(SYS_pivot_root, ".", ".") == 0) {
        // The old root now lies over the new one, where we still are.
        require(::umount2(".", MNT_DETACH), "leave the old root");
    } else {
        require(::chroot("."), "chroot");
    }
    require(::chdir("/"), "chdir");
}

}  // namespace

void becomeRootOfAUserNamespace() {
    const auto uid = ::geteuid();
    const auto gid = ::getegid();
    const auto users = subordinateRange("/etc/subuid", uid);
    const auto groups = subordinateRange("/etc/subgid", uid);
    if (users && groups && becomeRootOfManyUsers(uid, gid, *users, *groups)) {
        return;
    }
    require(::unshare(CLONE_NEWUSER), "make a user namespace");
    writeText("/proc/self/setgroups", "deny");
    writeText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    writeText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void mountPrivateRoot(bool isUserNamespace) {
    makeMountsPrivate();
    // The layers go where no test looks. On every machine /proc is a mount of its own, even below a
    // chroot, and the new root gets another. A user namespace gets another /proc only while it sees
    // all of the old one, so there a folder for mounts has to do.
    const std::string sources = TARNVALE_SOURCE_DIR;
    const std::string folder = sources.starts_with("/mnt/") ? "/media" : "/mnt";
    const std::string layers = isUserNamespace ? folder : "/proc";
    const std::string root = makeLayers(layers);
    if (isUserNamespace) {
        mountFolders(layers, root);
    } else {
        mountWhole(layers, root);
    }
    require(::mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr), "mount /proc");
    mountScratch(root);
    showSources(layers, root);

    std::ofstream(root + groundFile) << (isUserNamespace ? "userNamespace" : "namespaces");
    becomeRoot(root);
}

}  // namespace tarnvale::test
