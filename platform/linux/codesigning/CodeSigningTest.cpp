// SPDX-License-Identifier: MIT
//
// The checks as a whole, asked about processes that run signed programs.

#include "platform/CodeSigning.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/PeerProcess.h"
#include "platform/linux/codesigning/RootsNotice.h"
#include "tests/support/Disturbance.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/SigningLab.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/SocketPeer.h"

namespace tarnvale::platform {
namespace {

namespace fs = std::filesystem;
using test::Chain;
using test::clientIdentifier;
using test::Disturbance;
using test::SocketPeer;
using testing::Eq;
using testing::Optional;

constexpr const char* clientPath = "/tmp/client";
constexpr const char* anchored = "anchor apple generic";
constexpr const char* rootsPath = "/etc/tarnvale/code-signing-roots.pem";

void writeProgram(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    fs::permissions(path, fs::perms(0755));
}

class CodeSigningTest : public testing::Test {
protected:
    CodeSigningTest() {
        fs::remove_all("/etc/tarnvale");
        fs::create_directory("/etc/tarnvale");
        ::chmod("/etc/tarnvale", 0755);
        writeRoots(chain.root.certificatePem());
        writeProgram(clientPath, test::signedProgram(program, clientIdentifier, chain));
    }

    static void writeRoots(const std::string& pem) {
        std::ofstream(rootsPath) << pem;
        ::chmod(rootsPath, 0644);
    }

    /// Whether a process that runs the program at this moment is valid.
    bool isValid(const std::string& requirement = anchored) {
        const SocketPeer client({clientPath, "1000"});
        const auto process = PeerProcess::ofSocket(client.socket());
        const auto code = signing->guest(process->peer());
        return code && code->isValid(requirement);
    }

    std::optional<SigningInformation> information() {
        const SocketPeer client({clientPath, "1000"});
        const auto process = PeerProcess::ofSocket(client.socket());
        const auto code = signing->guest(process->peer());
        return code ? code->signingInformation() : std::nullopt;
    }

    const Chain chain = Chain::development();
    const std::string program = test::contentOf("/bin/sleep");
    const SigningInformation clientInformation = {
        .teamIdentifier = "K7PD2QM4TZ", .identifier = clientIdentifier};
    const std::unique_ptr<CodeSigning> signing = makeCodeSigning();
};

TEST_F(CodeSigningTest, ReadsWhoSignedThePeersProgram) {
    EXPECT_THAT(information(), Optional(clientInformation));
}

TEST_F(CodeSigningTest, FindsASignedProgramValid) {
    EXPECT_TRUE(isValid());
    EXPECT_TRUE(
        isValid("identifier \"com.brackwen.tarnvale\" and certificate leaf[subject.OU] = "
                "\"K7PD2QM4TZ\" and not certificate 2[subject.OU] = \"K7PD2QM4TZ\""));
}

TEST_F(CodeSigningTest, HoldsAProgramAgainstTheRequirement) {
    EXPECT_FALSE(isValid("identifier \"com.brackwen.tarnvale.service\""));
    EXPECT_FALSE(isValid("certificate leaf[subject.OU] = \"OTHERTEAM1\""));
    EXPECT_FALSE(isValid("not anchor apple generic"));
}

/// What the body writes to standard error.
template <class Body>
std::string saidBy(const Body& body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST_F(CodeSigningTest, SaysAtTheStartWhyThereAreNoRoots) {
    const auto saidAtStart = [] { return saidBy(RootsNotice::sayAtStart); };
    const std::string start = "TarnvaleAdminHelper: No client will be admitted: ";
    const std::string path = rootsPath;
    EXPECT_EQ(saidAtStart(), "");
    EXPECT_EQ(signing->trustProblem(), std::nullopt);

    writeRoots("no certificate\n");
    EXPECT_EQ(saidAtStart(), start + path + " has no certificate in it.\n");
    constexpr std::uintmax_t largest = std::uintmax_t{4} << 20U;
    fs::resize_file(rootsPath, largest);
    EXPECT_EQ(saidAtStart(), start + path + " has no certificate in it.\n");
    fs::resize_file(rootsPath, largest + 1);
    EXPECT_EQ(saidAtStart(), start + path + " is larger than 4 MiB.\n");
    ::chmod(rootsPath, 0664);
    EXPECT_EQ(saidAtStart(), start + path + " may be written by others than root.\n");
    ::chmod("/etc/tarnvale", 0777);
    EXPECT_EQ(saidAtStart(), start + "/etc/tarnvale may be written by others than root.\n");
    ::chmod("/etc/tarnvale", 0755);

    fs::remove(rootsPath);
    EXPECT_EQ(saidAtStart(), start + path + " doesn't exist.\n");
    fs::create_symlink("/tmp/roots.pem", rootsPath);
    EXPECT_EQ(saidAtStart(), start + path + " is a link or not in a folder.\n");
    fs::remove(rootsPath);
    fs::create_directory(rootsPath);
    EXPECT_EQ(saidAtStart(), start + path + " is not a regular file.\n");
    fs::remove_all("/etc/tarnvale");
    EXPECT_EQ(saidAtStart(), start + "/etc/tarnvale doesn't exist.\n");
    EXPECT_EQ(signing->trustProblem(), "/etc/tarnvale doesn't exist");
}

TEST_F(CodeSigningTest, SaysOnceAMinuteThatAClientLacksRoots) {
    EXPECT_EQ(saidBy([&] { EXPECT_TRUE(isValid()); }), "");
    EXPECT_EQ(saidBy([&] { EXPECT_FALSE(isValid("not anchor apple generic")); }), "");

    fs::remove(rootsPath);

    EXPECT_EQ(
        saidBy([&] {
            EXPECT_FALSE(isValid());
            EXPECT_FALSE(isValid());
        }),
        "TarnvaleAdminHelper: A client was turned away: " + std::string(rootsPath) +
            " doesn't exist.\n");
}

TEST_F(CodeSigningTest, SaysThatRootsAreUnsafeWhenAClientIsTurnedAway) {
    ::chmod(rootsPath, 0666);

    EXPECT_EQ(
        saidBy([&] { EXPECT_FALSE(isValid()); }),
        "TarnvaleAdminHelper: A client was turned away: " + std::string(rootsPath) +
            " may be written by others than root.\n");
}

TEST_F(CodeSigningTest, FindsNothingValidAgainstATextThatIsNoRequirement) {
    EXPECT_FALSE(isValid(""));
    EXPECT_FALSE(isValid("anchor apple generic and"));
}

TEST_F(CodeSigningTest, KnowsNoSignatureOfAnUnsignedProgram) {
    writeProgram(clientPath, program);

    EXPECT_THAT(information(), Eq(std::nullopt));
    EXPECT_FALSE(isValid("!identifier \"x\""));
}

TEST_F(CodeSigningTest, ReadsAStrangersSignatureWithoutTrustingIt) {
    const Chain stranger = Chain::development();
    writeProgram(clientPath, test::signedProgram(program, clientIdentifier, stranger));

    EXPECT_THAT(information(), Optional(clientInformation));
    EXPECT_FALSE(isValid());
}

TEST_F(CodeSigningTest, FindsAProgramWithOneBitChangedInvalid) {
    // A program may carry anything after its last section, and still runs.
    const std::string padded = program + std::string(1'000, 'p');
    const std::string good = test::signedProgram(padded, clientIdentifier, chain);
    for (const std::size_t place : {program.size(), program.size() + 500, padded.size() - 1}) {
        std::string changed = good;
        changed[place] = static_cast<char>(changed[place] ^ 1);
        writeProgram(clientPath, changed);

        EXPECT_THAT(information(), Optional(clientInformation));
        EXPECT_FALSE(isValid()) << place;
    }
    writeProgram(clientPath, good);
    EXPECT_TRUE(isValid());
}

TEST_F(CodeSigningTest, FindsASignatureOfAnotherProgramInvalid) {
    writeProgram(
        clientPath,
        test::withTrailer(program, test::signatureOf(program + "x", clientIdentifier, chain)));

    EXPECT_THAT(information(), Optional(clientInformation));
    EXPECT_FALSE(isValid());
}

TEST_F(CodeSigningTest, KnowsNoPeerThatHasEnded) {
    SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    ASSERT_TRUE(process);

    client.end();

    EXPECT_EQ(signing->guest(process->peer()), nullptr);
    EXPECT_EQ(signing->guest({.pid = client.pid()}), nullptr);
}

TEST_F(CodeSigningTest, TakesNoProcessForAPeerThatIsGone) {
    const SocketPeer namesake({clientPath, "1000"});

    EXPECT_NE(signing->guest({.pid = namesake.pid()}), nullptr);
    EXPECT_EQ(signing->guest({.pid = namesake.pid(), .handle = Peer::gone}), nullptr);
}

TEST_F(CodeSigningTest, FindsThePeerInvalidThatEndsBeforeTheCheck) {
    SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto code = signing->guest(process->peer());
    ASSERT_TRUE(code);

    client.end();

    EXPECT_THAT(code->signingInformation(), Eq(std::nullopt));
    EXPECT_FALSE(code->isValid(anchored));
}

TEST_F(CodeSigningTest, TellsAPeerFromTheNextProcessWithItsID) {
    TARNVALE_NEEDS(processes);
    SocketPeer gone({"/bin/sleep", "1000"});
    const auto process = PeerProcess::ofSocket(gone.socket());
    ASSERT_TRUE(process);
    gone.end();

    const SocketPeer next({clientPath, "1000"}, gone.pid());

    ASSERT_EQ(next.pid(), gone.pid());
    EXPECT_EQ(signing->guest(process->peer()), nullptr);
    EXPECT_NE(signing->guest({.pid = gone.pid()}), nullptr) << "the ID alone says nothing";
}

TEST_F(CodeSigningTest, SaysNothingOfAPeerWhoseTimeWasOverBeforeItsTurnCame) {
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    Peer peer = process->peer();
    peer.user = ::getuid();
    peer.checkedBy = std::chrono::steady_clock::now();

    EXPECT_THROW(signing->guest(peer)->signingInformation(), CheckOverdue);
    EXPECT_THROW(signing->guest(peer)->isValid(anchored), CheckOverdue);

    peer.checkedBy += std::chrono::seconds(10);
    EXPECT_THAT(signing->guest(peer)->signingInformation(), Optional(clientInformation));
    EXPECT_TRUE(signing->guest(peer)->isValid(anchored));
}

TEST_F(CodeSigningTest, ChecksAPeerAgainThatRunsAnotherProgram) {
    writeProgram(
        clientPath, test::signedProgram(test::contentOf("/bin/dash"), clientIdentifier, chain));
    const SocketPeer client({clientPath, "-c", "read line; exec /bin/sleep 1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto before = signing->guest(process->peer());
    ASSERT_TRUE(before);
    ASSERT_TRUE(before->isValid(anchored));
    const auto unasked = signing->guest(process->peer());

    ASSERT_EQ(::send(client.socket(), "go\n", 3, 0), 3);
    client.waitUntilNotRunning(clientPath);

    const auto after = signing->guest(process->peer());
    ASSERT_TRUE(after);
    EXPECT_FALSE(after->isValid(anchored));
    EXPECT_THAT(after->signingInformation(), Eq(std::nullopt));
    EXPECT_FALSE(unasked->isValid(anchored)) << "it cannot be looked at any more";
}

TEST_F(CodeSigningTest, TakesNoSignedProgramForTheOneThatAPeerRanBefore) {
    const std::string shell = fs::canonical("/bin/dash");
    const SocketPeer client({shell, "-c", "read line; exec " + std::string(clientPath) + " 1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto unsignedCode = signing->guest(process->peer());
    ASSERT_TRUE(unsignedCode);

    ASSERT_EQ(::send(client.socket(), "go\n", 3, 0), 3);
    client.waitUntilNotRunning(shell);

    EXPECT_FALSE(unsignedCode->isValid(anchored));
    EXPECT_TRUE(signing->guest(process->peer())->isValid(anchored));
}

TEST_F(CodeSigningTest, ChecksAProgramWhoseFileIsNoLongerThere) {
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    fs::remove(clientPath);
    writeProgram(clientPath, program);

    EXPECT_TRUE(signing->guest(process->peer())->isValid(anchored));
}

TEST_F(CodeSigningTest, ChecksAFileAgainThatChangesDuringTheCheck) {
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const std::vector<std::function<void()>> changes = {
        [] { ::chmod(clientPath, 0700); },
        [] { fs::create_hard_link(clientPath, "/tmp/other name"); },
        [] { fs::remove(clientPath); }};
    for (const auto& change : changes) {
        const auto named = signing->guest(process->peer());
        const auto checked = signing->guest(process->peer());
        ASSERT_TRUE(named && checked);

        change();

        EXPECT_THAT(named->signingInformation(), Optional(clientInformation));
        EXPECT_TRUE(checked->isValid(anchored));
    }
}

TEST_F(CodeSigningTest, SaysSoWhenAFileNeverStopsChanging) {
    writeProgram(
        clientPath,
        test::signedProgram(program + std::string(8 << 20, '\0'), clientIdentifier, chain));
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    {
        // How often the file changes depends on what else this machine does.
        const Disturbance disturbance(clientPath);
        bool isDisturbed = false;
        for (int i = 0; i < 500 && !isDisturbed; ++i) {
            try {
                EXPECT_TRUE(signing->guest(process->peer())->isValid(anchored));
            } catch (const CheckDisturbed&) {
                isDisturbed = true;
            }
        }
        EXPECT_TRUE(isDisturbed);
    }
    EXPECT_TRUE(signing->guest(process->peer())->isValid(anchored));

    writeProgram("/tmp/forged", test::contentOf(clientPath) + "x");
    fs::rename("/tmp/forged", clientPath);
    const SocketPeer forger({clientPath, "1000"});
    const auto forged = PeerProcess::ofSocket(forger.socket());
    const Disturbance disturbance(clientPath);
    EXPECT_FALSE(signing->guest(forged->peer())->isValid(anchored)) << "that is certain";
}

TEST_F(CodeSigningTest, KnowsItself) {
    const auto self = signing->self();

    ASSERT_TRUE(self);
    EXPECT_THAT(self->signingInformation(), Eq(std::nullopt)) << "the test is not signed";
    EXPECT_FALSE(self->isValid("not identifier \"x\""));
}

TEST_F(CodeSigningTest, SaysSoWhenItsOwnFileCannotBeOpened) {
    const auto self = signing->self();
    ASSERT_TRUE(self);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    // A sanitizer needs descriptors where it meets a type for the first time.
    EXPECT_THROW(throw CheckDisturbed(), CheckDisturbed);
    ASSERT_FALSE(signing->self()->isValid(anchored)) << "it isn't signed";
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    EXPECT_THROW(self->isValid(anchored), CheckDisturbed);

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(self->isValid(anchored));
}

TEST_F(CodeSigningTest, SaysSoWhenItsOwnFileCannotBeRead) {
    const auto self = signing->self();
    ASSERT_TRUE(self);
    std::thread([&] {
        test::refuseCall(SYS_pread64, EIO);

        EXPECT_THROW(self->isValid(anchored), CheckDisturbed);
        EXPECT_THROW(self->isValid(anchored), CheckDisturbed) << "it isn't settled by asking twice";
    }).join();

    EXPECT_FALSE(self->isValid(anchored)) << "it isn't signed";
}

TEST_F(CodeSigningTest, SaysSoWhenItsOwnFileCannotBeExamined) {
    const auto self = signing->self();
    ASSERT_TRUE(self);
    for (const int error : {ENOMEM, EIO}) {
        std::thread([&] {
            test::refuseCall(SYS_newfstatat, error);
            test::refuseCall(
                SYS_fstat, error);  // by which the thread sanitizer examines open files

            EXPECT_THROW(signing->self(), CheckDisturbed) << error;
            EXPECT_THROW(self->signingInformation(), CheckDisturbed) << error;
        }).join();
    }

    EXPECT_TRUE(signing->self());
    EXPECT_THAT(self->signingInformation(), Eq(std::nullopt)) << "it isn't signed";
}

TEST_F(CodeSigningTest, TrustsNoPeerWhoseFileCannotBeRead) {
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto code = signing->guest(process->peer());
    ASSERT_TRUE(code);
    std::thread([&] {
        test::refuseCall(SYS_pread64, EIO);

        EXPECT_THAT(code->signingInformation(), Eq(std::nullopt));
        EXPECT_FALSE(code->isValid(anchored));
    }).join();
    std::thread([&] {
        test::refuseCall(SYS_newfstatat, EIO);

        EXPECT_FALSE(signing->guest(process->peer()));
    }).join();
}

TEST_F(CodeSigningTest, TrustsNobodyWithoutRoots) {
    fs::remove(rootsPath);
    EXPECT_FALSE(isValid());
    EXPECT_THAT(information(), Optional(clientInformation));

    fs::remove("/etc/tarnvale");
    EXPECT_FALSE(isValid());
}

TEST_F(CodeSigningTest, TrustsNoRootsThatOthersMayWrite) {
    for (const mode_t mode : {0664U, 0646U, 0666U, 0777U}) {
        ::chmod(rootsPath, mode);
        EXPECT_FALSE(isValid()) << mode;
    }
    ::chmod(rootsPath, 0400);
    EXPECT_TRUE(isValid());

    ::chmod("/etc/tarnvale", 0775);
    EXPECT_FALSE(isValid());
    ::chmod("/etc/tarnvale", 0700);
    EXPECT_TRUE(isValid());
}

TEST_F(CodeSigningTest, TrustsNoRootsThatBelongToSomebodyElse) {
    TARNVALE_NEEDS(owners);
    ASSERT_EQ(::chown(rootsPath, 1000, 0), 0);
    EXPECT_FALSE(isValid());
    ASSERT_EQ(::chown(rootsPath, 0, 1000), 0);
    EXPECT_TRUE(isValid()) << "its group may not write it";

    ASSERT_EQ(::chown("/etc/tarnvale", 1000, 0), 0);
    EXPECT_FALSE(isValid());
}

TEST_F(CodeSigningTest, FollowsNoLinkToTheRoots) {
    fs::rename(rootsPath, "/etc/tarnvale/real.pem");
    fs::create_symlink("real.pem", rootsPath);
    EXPECT_FALSE(isValid());

    fs::remove(rootsPath);
    fs::rename("/etc/tarnvale/real.pem", rootsPath);
    EXPECT_TRUE(isValid());

    fs::rename("/etc/tarnvale", "/etc/tarnvale.real");
    fs::create_directory_symlink("tarnvale.real", "/etc/tarnvale");
    EXPECT_FALSE(isValid());
    fs::remove("/etc/tarnvale");
    fs::rename("/etc/tarnvale.real", "/etc/tarnvale");
}

TEST_F(CodeSigningTest, ReadsRootsFromNothingButAFile) {
    fs::remove(rootsPath);
    ASSERT_EQ(::mkfifo(rootsPath, 0644), 0);
    EXPECT_FALSE(isValid());

    fs::remove(rootsPath);
    fs::create_directory(rootsPath);
    EXPECT_FALSE(isValid());
}

TEST_F(CodeSigningTest, IsSafeFromAnyThread) {
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int count = 0; count < 8; ++count) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                const auto code = signing->guest(process->peer());
                EXPECT_TRUE(code->isValid(anchored));
                EXPECT_THAT(code->signingInformation(), Optional(clientInformation));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// What a check costs this thread, in seconds.
template <typename Check>
double costOf(Check check) {
    const auto now = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double start = now();
    check();
    return now() - start;
}

TEST_F(CodeSigningTest, RemembersAVerdictOnAFileThatHasSettled) {
    writeProgram(
        clientPath,
        test::signedProgram(program + std::string(32 << 20, '\0'), clientIdentifier, chain));
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto check = [&] { EXPECT_TRUE(signing->guest(process->peer())->isValid(anchored)); };

    check();
    EXPECT_GT(costOf(check), 0.002) << "the file could change again and look the same";
    std::this_thread::sleep_for(std::chrono::milliseconds(3'100));
    check();
    EXPECT_LT(costOf(check), 0.002) << "32 MiB take longer to digest";

    writeRoots(Chain::development().root.certificatePem());
    EXPECT_FALSE(signing->guest(process->peer())->isValid(anchored)) << "other roots";
}

TEST_F(CodeSigningTest, RemembersWhoseSignatureIsThatOfAnotherProgram) {
    const std::string padded = program + std::string(32 << 20, '\0');
    writeProgram(
        clientPath, test::withTrailer(padded, test::signatureOf(program, clientIdentifier, chain)));
    const SocketPeer client({clientPath, "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    const auto check = [&] { EXPECT_FALSE(signing->guest(process->peer())->isValid(anchored)); };

    check();
    EXPECT_GT(costOf(check), 0.002) << "the file could change again and look the same";
    std::this_thread::sleep_for(std::chrono::milliseconds(3'100));
    check();

    EXPECT_LT(costOf(check), 0.002) << "32 MiB take longer to digest";
}

}  // namespace
}  // namespace tarnvale::platform
