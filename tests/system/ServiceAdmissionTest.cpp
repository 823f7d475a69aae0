// SPDX-License-Identifier: MIT
//
// Whom the service lets in, and whose messages it reads, by how client and helper are signed. Each
// kind of bad signature is tested beside the code that judges it; here each kind of verdict shows
// at the socket and in the log.

#include <array>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/Disturbance.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/UnixSockets.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

std::string rejection(pid_t pid, uid_t uid = rootUser) {
    return "Rejected XPC client pid=" + std::to_string(pid) + " uid=" + std::to_string(uid) +
           ": not Tarnvale or its service signed by K7PD2QM4TZ.";
}

/// Whether the kernel keeps hold of the process that connected, as Linux does from 6.5 on. On older
/// ones the service can only look for it by its ID.
bool kernelKnowsPeers() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return false;
    }
    const support::UniqueFd first(ends[0]);
    const support::UniqueFd second(ends[1]);
    int process = -1;
    socklen_t size = sizeof process;
    if (::getsockopt(first.get(), SOL_SOCKET, SO_PEERPIDFD, &process, &size) != 0) {
        return false;
    }
    ::close(process);
    return true;
}

/// No process of the test has had this ID.
constexpr pid_t freeProcessID = 5000;

class ServiceAdmissionTest : public testing::Test {
protected:
    /// Served without a line in the log.
    static void expectServed(const std::string& program) {
        const auto log = logMessages();
        ServiceClient client(program);
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
        EXPECT_EQ(logMessages(), log);
    }

    /// Turned away at the door, which the log says.
    static void expectRejected(const std::string& program, uid_t uid = rootUser) {
        ServiceClient client(program, uid);
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre("closed"));
        EXPECT_EQ(logMessages().back(), rejection(client.pid(), uid));
    }

    /// Let in, because its claims are right; closed at its first byte without a reply.
    static void expectEnded(const std::string& program) {
        ServiceClient client(program);
        EXPECT_THAT(client.call("RemoveFirewall"), ElementsAre("closed"));
        EXPECT_THAT(logMessages(), ElementsAre(listeningMessage()));
    }

    /// A client with any CMS message behind it.
    static std::string clientWith(
        const std::function<std::string(const std::string& program)>& message) {
        const std::string program = contentOf(clientProgram);
        put("/tmp/made", withTrailer(program, message(program)));
        fs::permissions("/tmp/made", fs::perms(0755));
        return "/tmp/made";
    }

    ServiceLab lab;
};

TEST_F(ServiceAdmissionTest, LetsBothProgramsIn) {
    const Service service;

    for (const char* identifier : {applicationIdentifier, serviceProcessIdentifier}) {
        expectServed(lab.signedClient(identifier, lab.development));
    }
}

TEST_F(ServiceAdmissionTest, TurnsEveryOtherProgramAway) {
    const Chain otherTeam = Chain::development("OTHERTEAM1");
    ServiceLab::trust({&lab.development, &otherTeam});
    const Service service;

    expectRejected(clientProgram);
    expectRejected(lab.signedClient(applicationIdentifier, otherTeam));
    expectRejected(lab.signedClient("com.brackwen.tarnvale.other", lab.development));
    expectRejected(lab.signedClient("com.brackwen.Tarnvale", lab.development));
    expectServed(lab.client);
}

TEST_F(ServiceAdmissionTest, HasNoLibraryReadAStrangersSignature) {
    const Service service;
    const auto hasLibrary = [&] {
        return contentOf("/proc/" + std::to_string(service.pid()) + "/maps").find("libcrypto") !=
               std::string::npos;
    };

    expectRejected(lab.signedClient(applicationIdentifier, Chain::development("OTHERTEAM1")));
    EXPECT_FALSE(hasLibrary());

    expectServed(lab.client);
    EXPECT_TRUE(hasLibrary());
}

TEST_F(ServiceAdmissionTest, TurnsASignatureAwayThatCannotBeRead) {
    const Service service;
    const std::string program = contentOf(clientProgram);
    const std::string message = signatureOf(program, applicationIdentifier, lab.development);

    for (const std::uint32_t length : {0U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        put("/tmp/made", withTrailer(program, message, length));
        fs::permissions("/tmp/made", fs::perms(0755));
        expectRejected("/tmp/made");
    }
    expectRejected(clientWith([&](const auto& content) {
        return cmsMessage(
            signedContent(content, applicationIdentifier),
            {.signers = {&lab.development.leaf, &lab.developerID.leaf}, .certificates = {}});
    }));
    expectRejected(clientWith([](const auto&) { return std::string(1'000, 'x'); }));
}

TEST_F(ServiceAdmissionTest, SaysWhoWasTurnedAway) {
    TARNVALE_NEEDS(usersProcesses);
    const Service service;

    expectRejected(clientProgram, firstUser);
}

TEST_F(ServiceAdmissionTest, ReadsNoMessageOfAProgramThatOnlyLooksRight) {
    const Chain stranger = Chain::development();
    CertificateRequest expired = codeSigningLeaf();
    expired.validUntil = -1;
    CertificateRequest forServers = codeSigningLeaf();
    forServers.extendedKeyUsage = "serverAuth";
    const Service service;

    expectEnded(lab.signedClient(applicationIdentifier, stranger));
    for (const auto& leaf : {expired, forServers}) {
        const Identity signer(leaf, &lab.development.intermediate);
        expectEnded(clientWith([&](const auto& program) {
            return cmsMessage(
                signedContent(program, applicationIdentifier),
                {.signers = {&signer},
                 .certificates = {lab.development.intermediate.certificate()}});
        }));
    }
    expectEnded(clientWith([&](std::string program) {
        program[program.size() / 2] ^= 1;
        return signatureOf(program, applicationIdentifier, lab.development);
    }));
}

TEST_F(ServiceAdmissionTest, ADevelopmentSignedHelperServesDeveloperIDClientsToo) {
    ServiceLab::trust({&lab.development, &lab.developerID});
    const std::string helper = ServiceLab::signCopy(
        helperProgram, "com.brackwen.tarnvale.adminhelper", lab.development, "/tmp/helper");
    const Service service({.program = helper, .listeningSocket = -1});

    expectServed(lab.client);
    expectServed(lab.signedClient(applicationIdentifier, lab.developerID));
}

TEST_F(ServiceAdmissionTest, ADeveloperIDSignedHelperServesOnlyItsLike) {
    ServiceLab::trust({&lab.development, &lab.developerID});
    const std::string helper = ServiceLab::signCopy(
        helperProgram, "com.brackwen.tarnvale.adminhelper", lab.developerID, "/tmp/helper");
    const Service service({.program = helper, .listeningSocket = -1});

    expectServed(lab.signedClient(applicationIdentifier, lab.developerID));
    expectServed(lab.signedClient(serviceProcessIdentifier, lab.developerID));
    expectRejected(lab.client);
    expectRejected(clientProgram);
    expectRejected(lab.signedClient(applicationIdentifier, Chain::developerID()));
}

TEST_F(ServiceAdmissionTest, ADisturbedDeveloperIDSignedHelperServesOnlyItsLike) {
    ServiceLab::trust({&lab.development, &lab.developerID});
    const std::string helper = ServiceLab::signCopy(
        helperProgram, "com.brackwen.tarnvale.adminhelper", lab.developerID, "/tmp/helper");
    const std::string like = lab.signedClient(applicationIdentifier, lab.developerID);
    for (int start = 0; start < 3; ++start) {
        fs::remove(logPath);  // it says when the helper listens
        const Service service({.program = helper, .listeningSocket = -1});
        {
            const Disturbance disturbance(helper);
            ServiceClient client(lab.client);
            EXPECT_THAT(client.call("HelperVersion"), ElementsAre("closed"));
        }

        ServiceClient client(lab.client);
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre("closed"));
        expectServed(like);
    }
}

TEST_F(ServiceAdmissionTest, ADeveloperIDSignedHelperServesOnlyItsLikeOnceItHasRoots) {
    ServiceLab::trust({&lab.development, &lab.developerID});
    const std::string helper = ServiceLab::signCopy(
        helperProgram, "com.brackwen.tarnvale.adminhelper", lab.developerID, "/tmp/helper");
    const std::string like = lab.signedClient(applicationIdentifier, lab.developerID);
    const std::string away = std::string(rootsPath) + ".away";
    for (const bool areThere : {false, true}) {
        fs::remove(logPath);  // it says when the helper listens
        Service service({.program = helper, .listeningSocket = -1});
        service.expected =
            std::string("TarnvaleAdminHelper: A client was turned away: ") + rootsPath +
            (areThere ? " may be written by others than root.\n" : " doesn't exist.\n");
        if (areThere) {
            fs::permissions(rootsPath, fs::perms(0664));  // others may write them
        } else {
            fs::rename(rootsPath, away);
        }
        ServiceClient early(lab.client);
        EXPECT_THAT(early.call("HelperVersion"), ElementsAre("closed"));

        if (areThere) {
            fs::permissions(rootsPath, fs::perms(0644));
        } else {
            fs::rename(away, rootsPath);
        }

        ServiceClient late(lab.client);
        EXPECT_THAT(late.call("HelperVersion"), ElementsAre("closed"));
        expectServed(like);
    }
}

TEST_F(ServiceAdmissionTest, KeepsAClientWhoseFileChanges) {
    const Service service;
    for (int i = 0; i < 20; ++i) {
        ServiceClient client(lab.client);
        ASSERT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));

        ::chmod(lab.client.c_str(), i % 2 == 0 ? 0555 : 0755);

        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion())) << i;
    }
}

TEST_F(ServiceAdmissionTest, ReadsTheRootsAfreshForEachMessage) {
    Service service;
    service.expected = "TarnvaleAdminHelper: A client was turned away: " + std::string(rootsPath) +
                       " doesn't exist.\n";
    ServiceClient client(lab.client);
    ASSERT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));

    fs::remove(rootsPath);

    EXPECT_THAT(client.call("RemoveFirewall"), ElementsAre("closed"));
    expectEnded(lab.client);

    ServiceLab::trust({&lab.development});
    expectServed(lab.client);
}

TEST_F(ServiceAdmissionTest, SaysAtTheStartThatThereAreNoRoots) {
    fs::remove(rootsPath);

    Service service;

    service.expected =
        "TarnvaleAdminHelper: No client will be admitted: " + std::string(rootsPath) +
        " doesn't exist.\n";
}

TEST_F(ServiceAdmissionTest, TrustsNoRootsThatAnybodyButRootCouldWrite) {
    Service service;
    service.expected = "TarnvaleAdminHelper: A client was turned away: " + std::string(rootsPath) +
                       " may be written by others than root.\n";
    const std::string roots = contentOf(rootsPath);

    for (const mode_t mode : {0664U, 0646U}) {
        fs::permissions(rootsPath, static_cast<fs::perms>(mode));
        expectEnded(lab.client);
    }
    fs::remove(rootsPath);
    put("/tmp/roots", roots);
    fs::create_symlink("/tmp/roots", rootsPath);
    expectEnded(lab.client);
    if (isRealRoot()) {
        ServiceLab::trust({&lab.development});
        ASSERT_EQ(::chown(rootsPath, firstUser, 0), 0);
        expectEnded(lab.client);
    }

    ServiceLab::trust({&lab.development});
    expectServed(lab.client);
}

TEST_F(ServiceAdmissionTest, TurnsAPeerAwayThatHasEndedBeforeTheCheck) {
    const Service service;
    service.signal(SIGSTOP);
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const support::UniqueFd ours(ends[0]);
    const support::UniqueFd theirs(ends[1]);
    const pid_t peer = ::fork();
    if (peer == 0) {
        ::_exit(sendDescriptor(theirs.get(), "x", connectToService().get()) ? 0 : 1);
    }
    int status = -1;
    ::waitpid(peer, &status, 0);
    ASSERT_EQ(status, 0);
    const auto connection = receiveDescriptor(ours.get());
    service.signal(SIGCONT);

    awaitMessage(rejection(peer));
    ServiceClient client(lab.client);
    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
}

TEST_F(ServiceAdmissionTest, TakesNoProcessForAnEarlierOneOfItsID) {
    TARNVALE_NEEDS(processes);
    if (!kernelKnowsPeers()) {
        GTEST_SKIP() << "before Linux 6.5 a peer that ends before it is accepted has only its ID";
    }
    const Service service;
    service.signal(SIGSTOP);
    // An unsigned client connects and leaves the connection to a child; a good one gets its ID.
    ServiceClient stranger(clientProgram, rootUser, freeProcessID);
    ASSERT_THAT(stranger.tell({"connect-raw"}), ElementsAre("connected"));
    ASSERT_THAT(stranger.tell({"fork"}), ElementsAre("forked"));
    stranger.kill();
    ServiceClient good(lab.client, rootUser, freeProcessID);
    ASSERT_EQ(good.pid(), freeProcessID);

    service.signal(SIGCONT);

    EXPECT_THAT(
        stranger.tell({"send-raw", std::string("\0AUTH ANONYMOUS\r\n", 17)}),
        ElementsAre("closed"));
    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage(), rejection(freeProcessID)));
    EXPECT_THAT(good.call("HelperVersion"), ElementsAre(helperVersion()));
}

TEST_F(ServiceAdmissionTest, ReadsNoMessageAfterThePeersEnd) {
    TARNVALE_NEEDS(processes);
    const Service service;
    ServiceClient client(lab.client, rootUser, freeProcessID);
    ASSERT_TRUE(client.connects());
    ASSERT_THAT(client.tell({"fork"}), ElementsAre("forked"));
    client.kill();
    ServiceClient next(lab.client, rootUser, freeProcessID);

    EXPECT_THAT(client.tell({"send-raw"}), ElementsAre("closed"));

    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage()));
}

TEST_F(ServiceAdmissionTest, ReadsNoMessageOfAnotherProgramThatThePeerHasBecome) {
    const Service service;
    ServiceClient client(lab.client);
    ASSERT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    ASSERT_THAT(client.tell({"exec", clientProgram}), ElementsAre("replaced"));

    EXPECT_THAT(client.tell({"send-raw"}), ElementsAre("closed"));

    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage()));
}

TEST_F(ServiceAdmissionTest, GoesOnWithAPeerThatBecomesTheOtherProgram) {
    const Service service;
    ServiceClient client(lab.client);
    ASSERT_TRUE(client.connects());
    ASSERT_THAT(
        client.tell({"exec", lab.signedClient(serviceProcessIdentifier, lab.development)}),
        ElementsAre("replaced"));

    EXPECT_THAT(client.tell({"send-raw"}), ElementsAre("answered"));

    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage(), "Removed firewall enforcement."));
}

}  // namespace
}  // namespace tarnvale::test
