// SPDX-License-Identifier: MIT
//
// What is the same for every test is copied once, into a template beside the build; each test's
// root consists of hard links to it. What tests write over, such as /etc/passwd, is copied for
// each.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/Grounds.h"
#include "tests/support/Libraries.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

/// The programs that tests and the project's scripts run, as far as this machine has them.
constexpr std::string_view programs =
    "awk base64 basename bash busctl cat chgrp chmod chown cksum cmp comm cp cut dash date dd "
    "diff dirname du echo env expr false find flock gdbus getconf getent grep gzip head "
    "hostname id install ip join kill ln locale ls md5sum mkdir mkfifo mknod mktemp mv nl nproc "
    "od openssl paste pgrep pkill printenv printf ps pwd readlink realpath rm rmdir sed seq "
    "setarch setpriv setsid sh sha256sum sleep sort stat strace stty su sync tac tail tar tee test "
    "timeout touch tr true truncate tty uname uniq wc which whoami xargs yes";

/// Libraries that are loaded by name at run time, so that no program lists them.
constexpr std::array<std::string_view, 5> loadedLibraries{
    "libstdc++.so.6", "libsystemd.so.0", "libcrypto.so.3", "libgcc_s.so.1", "libnss_files.so.2"};

/// What a program needs of /etc. Each root has its own.
constexpr std::array<std::string_view, 12> settings{
    "debian_version",
    "group",
    "host.conf",
    "hosts",
    "ld.so.cache",
    "ld.so.conf",
    "localtime",
    "nsswitch.conf",
    "os-release",
    "passwd",
    "protocols",
    "services"};

constexpr const char* templateName = "template";

constexpr std::array<std::string_view, 9> devices{
    "null", "zero", "full", "random", "urandom", "tty", "ptmx", "stdin", "stdout"};

[[noreturn]] void fail(int error, const std::string& step) {
    throw std::system_error(error, std::generic_category(), step);
}

/// Everywhere that the shell would find the program.
std::vector<fs::path> programPaths(const std::string& name) {
    std::vector<fs::path> paths;
    for (const char* folder : {"/usr/bin", "/usr/sbin", "/bin", "/sbin"}) {
        const fs::path path = fs::path(folder) / name;
        if (::access(path.c_str(), X_OK) == 0) {
            paths.push_back(path);
        }
    }
    return paths;
}

/// A folder that many tests use. The first of them fills it; the others wait for it.
class Template {
public:
    explicit Template(fs::path folder) : folder_(std::move(folder)) {
        fs::create_directories(folder_.parent_path());
        const std::string lock = folder_.string() + ".lock";
        lock_ = support::UniqueFd(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (!lock_ || ::flock(lock_.get(), LOCK_EX) != 0) {
            fail(errno, lock);
        }
        if (!isCurrent()) {
            fs::remove(completeMark());
            fs::remove_all(folder_);
            fs::create_directory(folder_);
            fill();
        }
    }

    const fs::path& folder() const { return folder_; }

private:
    /// The list of installed packages is newer than whatever was copied from them.
    bool isCurrent() const {
        std::error_code unknown;
        const auto made = fs::last_write_time(completeMark(), unknown);
        if (unknown) {
            return false;
        }
        const auto installed = fs::last_write_time("/var/lib/dpkg/status", unknown);
        return unknown || installed < made;
    }

    /// Written last, beside the folder, so that a template that was left half made is made again.
    std::string completeMark() const { return folder_.string() + ".complete"; }

    void fill() {
        std::istringstream names{std::string(programs)};
        for (std::string name; names >> name;) {
            for (const auto& path : programPaths(name)) {
                addWithLibraries(path);
            }
        }
        for (const auto name : loadedLibraries) {
            if (const auto path = libraryPath(name)) {
                addWithLibraries(*path);
            }
        }
        // The sanitizers' libraries, for the test programs themselves.
        addWithLibraries(fs::read_symlink("/proc/self/exe"), false);
        addFolder("/usr/lib/locale/C.utf8");
        addFolder("/usr/lib/ssl");
        std::ofstream(completeMark()) << "";
    }

    void addWithLibraries(const fs::path& file, bool itself = true) {
        if (itself) {
            add(file);
        }
        for (const auto& library : librariesOf(file)) {
            add(library);
        }
    }

    /// By the name that it was asked for by; what lies behind links on the way is not of interest.
    void add(const fs::path& file) {
        if (!added_.insert(file).second) {
            return;
        }
        // Folders at the top that are links, such as /bin, lead to those below /usr.
        const fs::path folder = fs::canonical(file.parent_path());
        const fs::path copy = folder_ / folder.relative_path() / file.filename();
        fs::create_directories(copy.parent_path());
        fs::copy_file(file, copy, fs::copy_options::skip_existing);
    }

    void addFolder(const fs::path& folder) {
        std::error_code missing;
        fs::create_directories((folder_ / folder.relative_path()).parent_path());
        fs::copy(
            folder,
            folder_ / folder.relative_path(),
            fs::copy_options::recursive | fs::copy_options::copy_symlinks,
            missing);
    }

    support::UniqueFd lock_;  ///< held for as long as this lives
    fs::path folder_;
    std::set<fs::path> added_;
};

/// The same files below another folder, as links, or where that can't be as copies. What is there
/// already stays: a program of the project's that makes the root is in it before the others are.
void linkTree(const fs::path& from, const fs::path& to) {
    for (const auto& entry : fs::directory_iterator(from)) {
        const fs::path target = to / entry.path().filename();
        std::error_code refused;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), target);
        } else if (entry.is_directory()) {
            fs::create_directory(target);
            linkTree(entry.path(), target);
        } else if (fs::create_hard_link(entry.path(), target, refused);
                   refused && refused != std::errc::file_exists) {
            fs::copy_file(entry.path(), target);
        }
    }
}

/// Whether only compilers read it.
bool isSource(const fs::path& file) {
    return file.extension() == ".cpp" || file.extension() == ".h" || file.extension() == ".mm";
}

/// Copies a folder of the project without its sources.
void copyReadable(const fs::path& from, const fs::path& to) {
    fs::create_directories(to);
    for (const auto& entry : fs::directory_iterator(from)) {
        const auto name = entry.path().filename();
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), to / name);
        } else if (entry.is_directory()) {
            if (name != "build" && name != ".git" && name != "node_modules") {
                copyReadable(entry.path(), to / name);
            }
        } else if (!isSource(name)) {
            fs::copy_file(entry.path(), to / name);
        }
    }
}

/// The project's own files: those that tests read, as copies since a test may write them, and what
/// was built.
void addProject(const fs::path& root) {
    const fs::path source = TARNVALE_SOURCE_DIR;
    copyReadable(source, root / source.relative_path());
    const fs::path bin = TARNVALE_BIN_DIR;
    fs::create_directories(root / bin.relative_path());
    linkTree(bin, root / bin.relative_path());
    const fs::path program = fs::read_symlink("/proc/self/exe");
    const fs::path shown = root / program.relative_path();
    fs::create_directories(shown.parent_path());
    if (std::error_code refused; fs::create_hard_link(program, shown, refused),
                                 refused && refused != std::errc::file_exists) {
        fs::copy_file(program, shown);
    }
}

void addDevices(const fs::path& root) {
    fs::create_directory(root / "dev");
    for (const auto device : devices) {
        const std::string path = "/dev/" + std::string(device);
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0 || !S_ISCHR(info.st_mode)) {
            continue;
        }
        const fs::path made = root / "dev" / device;
        constexpr mode_t everybody = 0666;
        if (::mknod(made.c_str(), S_IFCHR | everybody, info.st_rdev) == 0) {
            ::chmod(made.c_str(), everybody);
        }
    }
    const support::UniqueFd null(::open((root / "dev/null").c_str(), O_RDWR | O_CLOEXEC));
    if (!null) {
        fail(errno, "make /dev/null");
    }
}

void addSettings(const fs::path& root) {
    fs::create_directories(root / "etc/ssl");
    std::error_code missing;
    for (const auto name : settings) {
        const std::string path = "/etc/" + std::string(name);
        fs::copy_file(path, root / "etc" / name, missing);
    }
    fs::copy_file("/etc/ssl/openssl.cnf", root / "etc/ssl/openssl.cnf", missing);
}

void addFolders(const fs::path& root) {
    for (const char* folder :
         {"/etc",
          "/home",
          "/mnt",
          "/opt",
          "/root",
          "/run",
          "/sys",
          "/usr/bin",
          "/usr/lib",
          "/usr/local/bin",
          "/usr/sbin",
          "/usr/share",
          "/var/lib",
          "/var/log",
          "/var/tmp"}) {
        fs::create_directories(root / fs::path(folder).relative_path());
    }
    fs::create_directory(root / "tmp");
    constexpr mode_t sticky = 01777;
    ::chmod((root / "tmp").c_str(), sticky);
    // Such as /bin, which leads to usr/bin.
    for (const auto& entry : fs::directory_iterator("/")) {
        const fs::path link = root / entry.path().filename();
        if (entry.is_symlink() && !fs::exists(fs::symlink_status(link))) {
            fs::copy_symlink(entry.path(), link);
        }
    }
}

/// Removes the roots of processes that were killed: nobody holds their locks any more.
void removeAbandoned(const fs::path& place) {
    for (const auto& entry : fs::directory_iterator(place)) {
        if (!entry.is_directory() || entry.path().filename() == templateName) {
            continue;
        }
        const support::UniqueFd folder(
            ::open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder && ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0) {
            std::error_code ignored;
            fs::remove_all(entry.path(), ignored);
        }
    }
}

}  // namespace

CopiedRoot::CopiedRoot() {
    const fs::path place = fs::path(TARNVALE_SOURCE_DIR) / "build" / "private-roots";
    const Template shared(place / templateName);
    removeAbandoned(place);
    folder_ = place / "XXXXXX";
    if (::mkdtemp(folder_.data()) == nullptr) {
        fail(errno, folder_);
    }
    lock_ = support::UniqueFd(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock_ || ::flock(lock_.get(), LOCK_EX) != 0) {
        fail(errno, folder_);
    }
    ::chmod(folder_.c_str(), 0755);
    try {
        addFolders(folder_);
        linkTree(shared.folder(), folder_);
        addSettings(folder_);
        addDevices(folder_);
        addProject(folder_);
        std::ofstream(folder_ + groundFile) << "copies";
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
        throw;
    }
}

CopiedRoot::~CopiedRoot() {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

}  // namespace tarnvale::test
