// SPDX-License-Identifier: MIT

#include "firewall/enforce/StoreFile.h"

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/HelperLog.h"
#include "support/Files.h"
#include "support/SystemCalls.h"

namespace tarnvale::HelperFirewall {

using NetworkFirewall::PolicyStore;
using support::FileError;
using support::uninterrupted;
using support::UniqueFd;

namespace {

using namespace std::chrono_literals;

constexpr auto lockPeriod = 10ms;
constexpr auto unmentionedWait = 3s;

/// Whether the opened file is still the one at the store's path.
bool isStore(const UniqueFd& file) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(file.get(), &opened) == 0 && ::stat(storePath().c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// Takes the store's mode back to root alone. Leaves a file alone that only a link leads to.
void narrowMode(const UniqueFd& file) {
    constexpr mode_t others = S_IRWXG | S_IRWXO;
    struct stat opened {};
    struct stat named {};
    if (::fstat(file.get(), &opened) == 0 && ::lstat(storePath().c_str(), &named) == 0 &&
        S_ISREG(named.st_mode) && (opened.st_mode & others) != 0) {
        static_cast<void>(::fchmod(file.get(), S_IRUSR | S_IWUSR));
    }
}

/// Says in the log that it waits, if that takes long. Throws `FileError`.
void takeLock(const UniqueFd& file) {
    const auto whenItTakesLong = std::chrono::steady_clock::now() + unmentionedWait;
    while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && errno != EWOULDBLOCK) {
            throw FileError(FileError::Operation::open, storePath(), errno);
        }
        if (std::chrono::steady_clock::now() >= whenItTakesLong) {
            helperLog("Waiting for another process, which has locked " + storePath() + ".");
            if (uninterrupted([&] { return ::flock(file.get(), LOCK_EX); }) != 0) {
                throw FileError(FileError::Operation::open, storePath(), errno);
            }
            return;
        }
        std::this_thread::sleep_for(lockPeriod);
    }
}

}  // namespace

support::Mutex& firewallLock() {
    static auto& lock = *new support::Mutex;
    return lock;
}

const std::string& storePath() {
    static const auto& path = *new std::string(
        std::string(appSupportDirectory) + "/" + std::string(NetworkFirewall::storeFileName));
    return path;
}

UniqueFd lockStore() {
    while (true) {
        UniqueFd file(support::persistently(
            [] { return ::open(storePath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
        if (!file && support::mayPass(errno)) {
            throw FileError(FileError::Operation::open, storePath(), errno);
        }
        if (!file) {
            return file;
        }
        narrowMode(file);
        takeLock(file);
        // Whoever held the lock before us may have replaced or removed the file.
        if (isStore(file)) {
            return file;
        }
    }
}

LoadedStore loadStore() {
    const auto data = support::readFile(storePath());
    if (!data) {
        return {.store = {}, .isUnreadable = support::isFileThere(storePath())};
    }
    auto store = NetworkFirewall::decodeStore(*data);
    if (!store) {
        helperLog("Persisted firewall policy could not be decoded; starting from none.");
        return {.store = {}, .isUnreadable = support::isFileThere(storePath())};
    }
    return {.store = *std::move(store)};
}

void keepUnreadableStore() {
    support::keepUnreadable(storePath());
}

void saveStore(const PolicyStore& store) {
    support::makeFolders(appSupportDirectory);
    // In pieces: the text is several times as large as what it is made of.
    support::writeFileAtomically(
        storePath(),
        [&store](const auto& append) { NetworkFirewall::encodeStore(store, append); },
        0600);
}

}  // namespace tarnvale::HelperFirewall
