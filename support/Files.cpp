// SPDX-License-Identifier: MIT

#include "support/Files.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/SystemCalls.h"
#include "support/UniqueFd.h"

namespace tarnvale::support {
namespace {

using Operation = FileError::Operation;

constexpr std::size_t randomDigits = 16;
constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr int maxAttempts = 6;
constexpr std::chrono::milliseconds attemptPeriod{20};
constexpr std::time_t leftoverAge = 3600;  // seconds, far more than a write takes

struct SplitPath {
    std::string folder;
    std::string name;
};

SplitPath splitPath(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) {
        path.remove_suffix(1);
    }
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return {.folder = ".", .name = std::string(path)};
    }
    return {
        .folder = std::string(path.substr(0, slash == 0 ? 1 : slash)),
        .name = std::string(path.substr(slash + 1))};
}

std::string inQuotes(std::string_view name) {
    return "“" + std::string(name) + "”";
}

/// Where the file system is mounted that holds the path, or as much of the path as exists.
std::string volumeOf(std::string path) {
// A system with MNAMELEN says so itself. It has to be asked: on a Mac, firmlinks let / and /Library
// lie on two volumes that look like one tree, without a mount between them.
#if defined(MNAMELEN)
    struct statfs volume {};
    while (::statfs(path.c_str(), &volume) != 0) {
        if (path == "/" || path == ".") {
            return path;
        }
        path = splitPath(path).folder;
    }
    return static_cast<const char*>(volume.f_mntonname);
#else
    struct stat info {};
    while (::stat(path.c_str(), &info) != 0 && path != "/") {
        path = splitPath(path).folder;
    }
    const auto device = info.st_dev;
    while (path != "/" && path != ".") {
        auto above = splitPath(path).folder;
        if (::stat(above.c_str(), &info) != 0 || info.st_dev != device) {
            break;
        }
        path = std::move(above);
    }
    return path;
#endif
}

/// The sentences for a failed write of a file or folder.
std::string writeProblem(Operation operation, std::string_view path, int errorNumber) {
    const auto [folder, name] = splitPath(path);
    const auto file = inQuotes(name);
    const auto folderName = inQuotes(folder == "/" ? folder : splitPath(folder).name);
    switch (errorNumber) {
        case EACCES:
        case EPERM:
            return "You don’t have permission to save the file " + file + " in the folder " +
                   folderName + ".";
        case ENOENT:
            return operation == Operation::writeInto ? "The folder " + file + " doesn’t exist."
                                                     : "The file " + file + " doesn’t exist.";
        case EEXIST:
            return "The file " + file + " couldn’t be saved in the folder " + folderName +
                   " because a file with the same name already exists.";
        case ENOSPC:
        case EDQUOT:
            return "You can’t save the file " + file + " because the volume " +
                   inQuotes(volumeOf(folder)) + " is out of space.";
        case EROFS:
            return "You can’t save the file " + file + " because the volume " +
                   inQuotes(volumeOf(folder)) + " is read only.";
        case ENAMETOOLONG:
            return "The file name is invalid.";
        default:
            return "The file " + file + " couldn’t be saved in the folder " + folderName + ".";
    }
}

/// The sentence that reports a failed file operation.
std::string problem(Operation operation, std::string_view path, int errorNumber) {
    const auto file = inQuotes(splitPath(path).name);
    const bool isForbidden = errorNumber == EACCES || errorNumber == EPERM;
    switch (operation) {
        case Operation::remove:
            return isForbidden ? file +
                                     " couldn’t be removed because you don’t have permission to "
                                     "access it."
                               : file + " couldn’t be removed.";
        case Operation::open:
        case Operation::launch:
            if (errorNumber == ENOENT) {
                return "The file " + file + " doesn’t exist.";
            }
            return isForbidden ? "The file " + file +
                                     " couldn’t be opened because you don’t have permission to "
                                     "view it."
                               : "The file " + file + " couldn’t be opened.";
        case Operation::write:
        case Operation::writeInto:
            break;
    }
    return writeProblem(operation, path, errorNumber);
}

UniqueFd openFolder(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Makes the content of the descriptor's file or folder survive a power cut.
bool synchronise(int fd) {
// A system that has F_FULLFSYNC has an fsync that stops at the disk's volatile cache. Hence the
// test for the command, not for the system.
#if defined(F_FULLFSYNC)
    if (uninterrupted([&] { return ::fcntl(fd, F_FULLFSYNC); }) == 0) {
        return true;
    }
    // Network volumes and foreign file systems don't support it and say so by any of these errors.
    // Any other error is a failure of the disk.
    if (errno != ENOTSUP && errno != ENOTTY && errno != EINVAL) {
        return false;
    }
#endif
    return uninterrupted([&] { return ::fsync(fd); }) == 0;
}

std::string temporaryName(const std::string& name) {
    std::random_device source;
    std::string made = "." + name + ".";
    for (std::size_t i = 0; i < randomDigits; ++i) {
        made += hexDigits[source() % hexDigits.size()];
    }
    return made;
}

/// Whether `temporaryName` could have made the name. Other people's files have no such names.
bool isTemporaryName(std::string_view entry, std::string_view prefix) {
    return entry.size() == prefix.size() + randomDigits && entry.starts_with(prefix) &&
           entry.find_first_not_of(hexDigits, prefix.size()) == std::string_view::npos;
}

/// Removes the temporary files for this name that killed processes left. A recent one stays:
/// another process may be writing it.
void removeLeftovers(const UniqueFd& folder, const std::string& name) {
    UniqueFd own(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (!entries) {
        return;
    }
    own.release();
    const std::string prefix = "." + name + ".";
    while (const dirent* const entry = ::readdir(entries.get())) {
        struct stat info {};
        if (isTemporaryName(entry->d_name, prefix) &&
            ::fstatat(folder.get(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode) && info.st_mtime < std::time(nullptr) - leftoverAge) {
            ::unlinkat(folder.get(), entry->d_name, 0);
        }
    }
}

struct Attributes {
    mode_t mode = 0;
    std::optional<std::pair<uid_t, gid_t>> owner;  ///< if absent, as for any new file
};

/// A file that isn't ours needs exactly these attributes. One of ours was created with no more than
/// its mode, so it may do without the bits that the umask took.
bool setAttributes(const UniqueFd& file, const Attributes& attributes) {
    if (!attributes.owner) {
        static_cast<void>(::fchmod(file.get(), attributes.mode));
        return true;
    }
    const auto [user, group] = *attributes.owner;
    return ::fchown(file.get(), user, group) == 0 && ::fchmod(file.get(), attributes.mode) == 0;
}

void replaceFile(
    const std::string& path, const FileContent& content, const Attributes& attributes) {
    const auto [folderPath, name] = splitPath(path);
    const auto folder = openFolder(folderPath);
    if (!folder) {
        throw FileError(Operation::writeInto, path, errno);
    }

    std::string temporary;
    UniqueFd file;
    do {
        temporary = temporaryName(name);
        // The umask can only take bits from this mode, so nobody reads what isn't for them.
        file.reset(::openat(
            folder.get(),
            temporary.c_str(),
            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
            attributes.owner ? mode_t{0600} : attributes.mode));
    } while (!file && (errno == EEXIST || errno == EINTR));
    if (!file) {
        throw FileError(Operation::writeInto, path, errno);
    }

    const auto require = [&path](bool done) {
        if (!done) {
            throw FileError(Operation::write, path, errno);
        }
    };
    try {
        require(setAttributes(file, attributes));
        content([&](std::string_view bytes) { require(writeAll(file.get(), bytes)); });
        require(synchronise(file.get()));
        require(::renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) == 0);
    } catch (...) {
        ::unlinkat(folder.get(), temporary.c_str(), 0);
        throw;
    }
    // The new content is in place. Its name has to survive a power cut too.
    require(synchronise(folder.get()));
    removeLeftovers(folder, name);
}

void replaceFile(const std::string& path, std::string_view bytes, const Attributes& attributes) {
    replaceFile(
        path, [bytes](const auto& append) { append(bytes); }, attributes);
}

/// Reads the whole file. Returns 0, or -1 and leaves the errno.
int readInto(std::optional<std::string>& content, const std::string& path) {
    // Non-blocking, so that a FIFO in the file's place can't hold us up.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0) {
        return -1;
    }
    if (!S_ISREG(info.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    // One byte more than the file has, so that reading reaches its end without a larger buffer.
    std::string bytes(static_cast<std::size_t>(info.st_size) + 1, '\0');
    std::size_t filled = 0;
    while (true) {
        const auto got = uninterrupted(
            [&] { return ::read(file.get(), bytes.data() + filled, bytes.size() - filled); });
        if (got < 0) {
            return -1;
        }
        filled += static_cast<std::size_t>(got);
        if (got == 0) {
            bytes.resize(filled);
            content = std::move(bytes);
            return 0;
        }
        if (filled == bytes.size()) {
            bytes.resize(2 * filled);  // the file has grown
        }
    }
}

}  // namespace

FileError::FileError(Operation operation, std::string_view path, int errorNumber)
    : std::runtime_error(problem(operation, path, errorNumber)), errorNumber_(errorNumber) {}

bool mayPass(int errorNumber) {
    switch (errorNumber) {
        case EINTR:
        case EIO:
        case EMFILE:
        case ENFILE:
        case ENOLCK:
        case ENOMEM:
            return true;
        default:
            return false;
    }
}

int persistently(const std::function<int()>& call) {
    for (int attempt = 1;; ++attempt) {
        const int result = call();
        const int error = errno;
        if (result >= 0 || !mayPass(error) || attempt == maxAttempts) {
            errno = error;
            return result;
        }
        std::this_thread::sleep_for(attemptPeriod);
    }
}

std::optional<std::string> readFile(const std::string& path) {
    std::optional<std::string> bytes;
    persistently([&] { return readInto(bytes, path); });
    return bytes;
}

bool isFileThere(const std::string& path) {
    struct stat info {};
    const int found = persistently([&] { return ::lstat(path.c_str(), &info); });
    return found == 0 ? S_ISREG(info.st_mode) : errno != ENOENT && errno != ENOTDIR;
}

void keepUnreadable(const std::string& path) {
    const auto kept = path + ".unreadable";
    const auto [folder, name] = splitPath(path);
    const auto temporary = folder + "/" + temporaryName(name);
    // A second name, so that at each instant one leads to the file; and a third, so that an older
    // file is kept until this one is.
    if (::link(path.c_str(), temporary.c_str()) != 0) {
        throw FileError(Operation::write, kept, errno);
    }
    const bool isKept = ::rename(temporary.c_str(), kept.c_str()) == 0;
    const int error = errno;
    // It is still there, too, if this very file was kept before: then the rename does nothing.
    ::unlink(temporary.c_str());
    if (!isKept) {
        throw FileError(Operation::write, kept, error);
    }
}

void writeFileAtomically(const std::string& path, std::string_view bytes, mode_t mode) {
    replaceFile(path, bytes, {.mode = mode, .owner = std::nullopt});
}

void writeFileAtomically(const std::string& path, const FileContent& content, mode_t mode) {
    replaceFile(path, content, {.mode = mode, .owner = std::nullopt});
}

void replaceFileKeepingAttributes(const std::string& path, std::string_view bytes) {
    struct stat info {};
    if (persistently([&] { return ::stat(path.c_str(), &info); }) != 0) {
        if (errno != ENOENT) {
            throw FileError(Operation::write, path, errno);
        }
        writeFileAtomically(path, bytes, 0644);
        return;
    }
    constexpr mode_t permissions = 07777;
    replaceFile(
        path,
        bytes,
        {.mode = static_cast<mode_t>(info.st_mode & permissions),
         .owner = std::pair(info.st_uid, info.st_gid)});
}

void makeFolders(const std::string& path, std::optional<mode_t> mode) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode)) {
            throw FileError(Operation::write, path, EEXIST);
        }
        return;
    }
    const bool isMissing = errno == ENOENT;
    const auto above = splitPath(path).folder;
    if (isMissing && above != path) {
        makeFolders(above, mode);
    }
    if (::mkdir(path.c_str(), mode.value_or(0755)) != 0) {
        const int error = errno;
        if (error == EEXIST && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            return;  // somebody else has just created it
        }
        throw FileError(Operation::write, path, error);
    }
    if (mode) {
        setMode(path, *mode);
    }
    const auto folder = openFolder(above);
    if (!folder || !synchronise(folder.get())) {
        throw FileError(Operation::write, path, errno);
    }
}

void setMode(const std::string& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) {
        throw FileError(Operation::write, path, errno);
    }
}

void removeFile(const std::string& path) {
    const auto [folderPath, name] = splitPath(path);
    const auto folder = openFolder(folderPath);
    int error = 0;
    if (!folder || ::unlinkat(folder.get(), name.c_str(), 0) != 0) {
        error = errno;
    }
    // Also if it was gone: whoever deleted it may have died before synchronising the folder.
    if (folder && !synchronise(folder.get()) && error == 0) {
        error = errno;
    }
    if (error != 0) {
        throw FileError(Operation::remove, path, error);
    }
}

}  // namespace tarnvale::support
