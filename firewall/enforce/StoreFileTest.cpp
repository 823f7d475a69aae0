// SPDX-License-Identifier: MIT

#include "firewall/enforce/StoreFile.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Files.h"
#include "support/Mutex.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::HelperFirewall {
namespace {

namespace fs = std::filesystem;
using NetworkFirewall::PolicyStore;
using support::FileError;
using support::MutexLock;
using support::UniqueFd;
using test::contentOf;
using test::exists;
using test::logMessages;
using test::modeOf;
using test::namesIn;
using test::put;
using test::supportFolder;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

std::string onePolicy() {
    return test::policyText({{.number = 64}});
}

PolicyStore someStore() {
    return NetworkFirewall::decodeStore(onePolicy()).value();
}

// Each as an operation of this process calls it.

void save(const PolicyStore& store) {
    const MutexLock lock(firewallLock());
    saveStore(store);
}

LoadedStore loadFile() {
    const MutexLock lock(firewallLock());
    return loadStore();
}

PolicyStore storeInFile() {
    return loadFile().store;
}

UniqueFd lockFile() {
    const MutexLock lock(firewallLock());
    return lockStore();
}

TEST(StoreFileTest, LoadsWhatWasSaved) {
    save(someStore());

    EXPECT_EQ(storeInFile(), someStore());
    EXPECT_EQ(contentOf(storePath()), NetworkFirewall::encodeStore(someStore()));
    EXPECT_THAT(namesIn(supportFolder), ElementsAre("firewall-policies.json"));
}

TEST(StoreFileTest, LoadsTheFormOfBeforeThereWereUsers) {
    put(storePath(), onePolicy());

    EXPECT_THAT(storeInFile().owners, ElementsAre(testing::Key("legacy")));
}

TEST(StoreFileTest, AFileThatCantBeReadIsNoStoreAndIsNotMentioned) {
    EXPECT_EQ(storeInFile(), PolicyStore());

    fs::create_directories(storePath());
    EXPECT_EQ(storeInFile(), PolicyStore());

    fs::remove(storePath());
    ASSERT_EQ(::mkfifo(storePath().c_str(), 0600), 0);
    EXPECT_EQ(storeInFile(), PolicyStore());

    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST(StoreFileTest, KnowsOfAFileThatItCouldNotRead) {
    EXPECT_FALSE(loadFile().isUnreadable) << "there is none";
    put(storePath(), "{}");
    EXPECT_TRUE(loadFile().isUnreadable) << "it can't be decoded";
    save(someStore());
    EXPECT_FALSE(loadFile().isUnreadable);

    bool isUnreadable = false;
    std::thread([&] {
        test::refuseCall(SYS_read, EIO);
        isUnreadable = loadFile().isUnreadable;
    }).join();

    EXPECT_TRUE(isUnreadable);
    EXPECT_EQ(logMessages().size(), 1U);
}

TEST(StoreFileTest, AFileThatCantBeDecodedIsNoStoreAndIsMentioned) {
    for (const std::string damaged : {"", "{}", "[1]", "{\"owners\":", "\xFF"}) {
        put(storePath(), damaged);

        EXPECT_EQ(storeInFile(), PolicyStore());

        EXPECT_THAT(
            logMessages(),
            ElementsAre("Persisted firewall policy could not be decoded; starting from none."));
        EXPECT_EQ(contentOf(storePath()), damaged);
        fs::remove(test::logPath);
    }
}

TEST(StoreFileTest, OnlyRootMayReadTheFileWhateverTheUmaskAndTheOldMode) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        fs::remove_all(supportFolder);
        save(someStore());
        EXPECT_EQ(modeOf(storePath()), 0600U) << mask;
        EXPECT_EQ(modeOf(supportFolder), 0755U & ~mask);

        fs::permissions(storePath(), fs::perms(0644));
        save(someStore());
        EXPECT_EQ(modeOf(storePath()), 0600U) << mask;
    }
}

TEST(StoreFileTest, ReplacesALinkInsteadOfFollowingIt) {
    put("/tmp/elsewhere", "kept");
    fs::create_directories(supportFolder);
    fs::create_symlink("/tmp/elsewhere", storePath());

    save(someStore());

    EXPECT_EQ(contentOf("/tmp/elsewhere"), "kept");
    EXPECT_FALSE(fs::is_symlink(storePath()));
}

TEST(StoreFileTest, TellsThatTheFolderCantBeMade) {
    put(supportFolder, "in the way");

    EXPECT_THAT(
        [] { save(someStore()); },
        ThrowsMessage<FileError>(
            "The file “Tarnvale” couldn’t be saved in the folder “Application Support” because a "
            "file with the same name already exists."));
}

/// Another process, which holds the store's lock while it works.
class OtherProcess {
public:
    explicit OtherProcess(const std::function<void()>& work) {
        pid_ = ::fork();
        if (pid_ < 0) {
            throw std::runtime_error("fork");
        }
        if (pid_ == 0) {
            const auto lock = lockFile();
            put("/run/locked", "");
            work();
            ::_exit(lock ? 0 : 1);
        }
        while (!exists("/run/locked")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    ~OtherProcess() { ::waitpid(pid_, nullptr, 0); }

private:
    pid_t pid_ = -1;
};

TEST(StoreLockTest, WaitsForAnotherProcess) {
    put(storePath(), onePolicy());
    const OtherProcess other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        put("/run/done", "");
    });

    const auto lock = lockFile();

    EXPECT_TRUE(lock);
    EXPECT_TRUE(exists("/run/done"));
}

TEST(StoreLockTest, SaysOnceWhatItWaitsFor) {
    put(storePath(), onePolicy());
    const OtherProcess other([] {
        test::awaitLog([](const auto& messages) { return !messages.empty(); });
        put("/run/done", "");
    });

    EXPECT_TRUE(lockFile());

    EXPECT_TRUE(exists("/run/done"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Waiting for another process, which has locked " + storePath() + "."));
}

TEST(StoreLockTest, IsNeverDoneWithoutForWantOfSomething) {
    put(storePath(), onePolicy());
    for (const auto& [call, error] :
         {std::pair<long, int>{SYS_openat, EMFILE},
          {SYS_openat, ENFILE},
          {SYS_openat, ENOMEM},
          {SYS_openat, EIO},
          {SYS_flock, ENOLCK}}) {
        std::string failure = "none";
        std::thread([&, call = call, error = error] {
            test::refuseCall(call, error);
            try {
                lockFile();
            } catch (const FileError& thrown) {
                failure = thrown.what();
            }
        }).join();
        EXPECT_EQ(failure, "The file “firewall-policies.json” couldn’t be opened.") << error;
    }
}

TEST(StoreLockTest, IsTakenDespiteASignal) {
    put(storePath(), onePolicy());

    EXPECT_GT(test::interruptCalls(SYS_flock, [] { EXPECT_TRUE(lockFile()); }), 0);
}

TEST(StoreLockTest, IsNothingThatAChildInherits) {
    put(storePath(), onePolicy());

    EXPECT_THAT(test::inheritableFilesOf([] { lockFile(); }), IsEmpty());
}

TEST(StoreLockTest, WaitsForNobodyWhoWouldWriteToAFifo) {
    fs::create_directories(supportFolder);
    ASSERT_EQ(::mkfifo(storePath().c_str(), 0600), 0);

    EXPECT_TRUE(lockFile());
}

TEST(StoreLockTest, IsOutOfReachOfOthersOnceItHasBeenTaken) {
    put(storePath(), onePolicy());
    for (const unsigned mode : {0644U, 0640U, 0620U, 0604U}) {
        fs::permissions(storePath(), fs::perms(mode));
        EXPECT_TRUE(lockFile());
        EXPECT_EQ(modeOf(storePath()), 0600U) << mode;
    }

    put("/tmp/elsewhere", onePolicy());
    fs::permissions("/tmp/elsewhere", fs::perms(0644));
    fs::remove(storePath());
    fs::create_symlink("/tmp/elsewhere", storePath());
    EXPECT_TRUE(lockFile());
    EXPECT_EQ(modeOf("/tmp/elsewhere"), 0644U) << "that file isn't ours";
}

TEST(StoreLockTest, IsOnTheFileThatTheOtherProcessLeft) {
    put(storePath(), onePolicy());
    const OtherProcess other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        save(someStore());
    });

    const auto lock = lockFile();

    struct stat locked {};
    struct stat named {};
    ASSERT_EQ(::fstat(lock.get(), &locked), 0);
    ASSERT_EQ(::stat(storePath().c_str(), &named), 0);
    EXPECT_EQ(locked.st_ino, named.st_ino);
    EXPECT_EQ(contentOf(storePath()), NetworkFirewall::encodeStore(someStore()));
}

TEST(StoreLockTest, IsNoneWhenTheOtherProcessRemovedTheFile) {
    put(storePath(), onePolicy());
    const OtherProcess other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        support::removeFile(storePath());
    });

    EXPECT_FALSE(lockFile());
}

TEST(StoreLockTest, CantBeHeldByWhoeverMayOpenTheFolder) {
    put(storePath(), onePolicy());
    const UniqueFd folder(::open(supportFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(folder.get(), LOCK_EX), 0);

    EXPECT_TRUE(lockFile());
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
