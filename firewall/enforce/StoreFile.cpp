// SPDX-License-Identifier: MIT

#include "firewall/enforce/StoreFile.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "core/base/HelperLog.h"
#include "support/Files.h"

namespace tarnvale::HelperFirewall {

using NetworkFirewall::PolicyStore;
using support::UniqueFd;

namespace {

/// Whether the opened file is still the one at the store's path.
bool isStore(const UniqueFd& file) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(file.get(), &opened) == 0 && ::stat(storePath().c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
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
        UniqueFd file(::open(storePath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (!file) {
            return file;
        }
        while (::flock(file.get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                return {};
            }
        }
        // Whoever held the lock before us may have replaced or removed the file.
        if (isStore(file)) {
            return file;
        }
    }
}

PolicyStore loadStore() {
    const auto data = support::readFile(storePath());
    if (!data) {
        return {};
    }
    auto store = NetworkFirewall::decodeStore(*data);
    if (!store) {
        helperLog("Persisted firewall policy could not be decoded; starting from none.");
        return {};
    }
    return *std::move(store);
}

void saveStore(const PolicyStore& store) {
    support::makeFolders(appSupportDirectory);
    support::writeFileAtomically(storePath(), NetworkFirewall::encodeStore(store), 0600);
}

}  // namespace tarnvale::HelperFirewall
