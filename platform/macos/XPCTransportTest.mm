// SPDX-License-Identifier: MIT
//
// The transport as its clients meet it. On a Mac these tests run with the system's own Foundation,
// elsewhere with the stand-in.

#import <Foundation/Foundation.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/Transport.h"
#include "platform/macos/FoundationText.h"
#include "platform/macos/XPCProtocol.h"
#include "tests/macos/xpc/XPCGround.h"
#include "tests/support/FakeCodeSigning.h"
#include "tests/support/FakeHelper.h"

namespace tarnvale::platform {
namespace {

using test::eventually;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using Helper = id<TarnvaleAdminHelperProtocol>;

constexpr const char* notEnoughMemory = "There is not enough memory for this request.";

/// Admits whoever meets the requirement, and counts as the helper does.
class Doorkeeper final : public TransportDelegate {
public:
    std::string requirement = test::metRequirement;
    std::function<void()> beforeDecision = [] {};
    std::function<void()> atTheEnd = [] {};  ///< of a connection that is admitted from now on
    std::atomic<int> admitted = 0;
    std::atomic<int> ended = 0;
    std::vector<pid_t> pids;  ///< of those who asked to be admitted, in order
    std::vector<uid_t> uids;

    bool shouldAcceptNewConnection(NewConnection& connection) override {
        pids.push_back(connection.peer().pid);
        uids.push_back(connection.effectiveUserID());
        beforeDecision();
        if (!connection.setCodeSigningRequirement(requirement)) {
            return false;
        }
        ++admitted;
        connection.setInvalidationHandler([this, itsEnd = atTheEnd] {
            ++ended;
            itsEnd();
        });
        return true;
    }
};

/// Remembers what it was asked, and by whom; replies or throws what the test says.
class Exported final : public test::FakeHelper {
public:
    explicit Exported(const Transport& transport) : transport_(transport) {}

    std::function<ResultReply()> reply = [] { return ResultReply{"the result", "the error"}; };
    std::function<void()> afterShutdown = [] {};

    std::vector<std::string> calls() const {
        const std::lock_guard lock(mutex_);
        return calls_;
    }

    std::vector<std::optional<uid_t>> callers() const {
        const std::lock_guard lock(mutex_);
        return callers_;
    }

    void shutdownForUpgrade(const std::function<void()>& itsReply) override {
        FakeHelper::shutdownForUpgrade(itsReply);
        afterShutdown();
    }

private:
    ResultReply asked(std::string call) override {
        const std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
        callers_.push_back(transport_.currentEffectiveUserID());
        return reply();
    }

    const Transport& transport_;
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::vector<std::optional<uid_t>> callers_;
};

/// What came of a request.
struct Answer {
    int replies = 0;
    int failures = 0;
    OptionalText result = std::nullopt;
    OptionalText error = std::nullopt;

    bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answer& answer) {
    return out << answer.replies << " replies, " << answer.failures << " failures, result "
               << answer.result.value_or("nil") << ", error " << answer.error.value_or("nil");
}

OptionalText optional(NSString* text) {
    return text != nil ? OptionalText(toUtf8(text)) : std::nullopt;
}

using TextReply = void (^)(NSString*);
using ResultAndErrorReply = void (^)(NSString*, NSString*);

/// A program that asks the helper.
class Client {
public:
    Client()
        : connection_([[NSXPCConnection alloc] initWithMachServiceName:machServiceName
                                                               options:NSXPCConnectionPrivileged]) {
        connection_.remoteObjectInterface =
            [NSXPCInterface interfaceWithProtocol:@protocol(TarnvaleAdminHelperProtocol)];
        [connection_ resume];
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        @autoreleasepool {
            [connection_ invalidate];
        }
    }

    /// Sends a request, and one after it, before whose answer that of the first must have come.
    Answer ask(const std::function<void(Helper, ResultAndErrorReply)>& request) {
        @autoreleasepool {
            auto answer = sent(request);
            const auto last = sent([](Helper helper, ResultAndErrorReply reply) {
                [helper helperVersionWithReply:^(NSString* version) {
                    reply(version, nil);
                }];
            });
            EXPECT_TRUE(eventually([&] { return last->isOver(); }));
            EXPECT_TRUE(eventually([&] { return answer->isOver(); }));
            return answer->get();
        }
    }

    Answer askForVersion() {
        return ask([](Helper helper, ResultAndErrorReply reply) {
            [helper helperVersionWithReply:^(NSString* version) {
                reply(version, nil);
            }];
        });
    }

private:
    class Pending {
    public:
        void add(int replies, int failures, OptionalText result, OptionalText error) {
            const std::lock_guard lock(mutex_);
            answer_.replies += replies;
            answer_.failures += failures;
            answer_.result = std::move(result);
            answer_.error = std::move(error);
        }

        Answer get() const {
            const std::lock_guard lock(mutex_);
            return answer_;
        }

        bool isOver() const { return get() != Answer{}; }

    private:
        mutable std::mutex mutex_;
        Answer answer_;
    };

    std::shared_ptr<Pending> sent(const std::function<void(Helper, ResultAndErrorReply)>& request) {
        const auto pending = std::make_shared<Pending>();
        request(
            static_cast<Helper>([connection_ remoteObjectProxyWithErrorHandler:^(NSError*) {
                pending->add(0, 1, std::nullopt, std::nullopt);
            }]),
            ^(NSString* result, NSString* error) {
                pending->add(1, 0, optional(result), optional(error));
            });
        return pending;
    }

    NSXPCConnection* connection_;
};

/// Nil where the protocol promises something else.
template <typename T>
T nothing() {
    return nil;
}

/// One of the ten methods: how it is asked for, what the helper then sees, and what comes back.
struct Request {
    std::string call;
    std::function<void(Helper, ResultAndErrorReply)> send;
    Answer answer;
    Answer answerToFailure;
};

const Answer onlyError{.replies = 1, .error = "the error"};
const Answer both{.replies = 1, .result = "the result", .error = "the error"};
const Answer failure{.replies = 1, .error = notEnoughMemory};

TextReply asError(ResultAndErrorReply reply) {
    return ^(NSString* error) {
        reply(nil, error);
    };
}

std::vector<Request> allRequests() {
    return {
        {"helperVersion",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper helperVersionWithReply:^(NSString* version) {
                 reply(version, nil);
             }];
         },
         {.replies = 1, .result = "the result"},
         {.replies = 1}},
        {"applyFirewall [\xF0\x9F\x94\xA5]",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper applyFirewallWithPolicyData:[NSData dataWithBytes:"[\xF0\x9F\x94\xA5]"
                                                                length:6]
                                       withReply:reply];
         },
         both,
         failure},
        {"removeFirewall",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper removeFirewallWithReply:asError(reply)];
         },
         onlyError,
         failure},
        {"firewallReport",
         [](Helper helper, ResultAndErrorReply reply) { [helper firewallReportWithReply:reply]; },
         both,
         failure},
        {"createVLAN B\u00FCro|-9223372036854775808|en0",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper createVLANWithName:@"B\u00FCro"
                                    tag:INT64_MIN
                              parentBSD:@"en0"
                              withReply:reply];
         },
         both,
         failure},
        {"deleteVLAN vlan0",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper deleteVLANWithBsdName:@"vlan0" withReply:asError(reply)];
         },
         onlyError,
         failure},
        {"installCLISymlink",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper installCLISymlinkWithReply:asError(reply)];
         },
         onlyError,
         failure},
        {"removeCLISymlink",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper removeCLISymlinkWithReply:asError(reply)];
         },
         onlyError,
         failure},
        {"setTarnvaleResolver on",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper setTarnvaleResolverWithEnabled:YES withReply:asError(reply)];
         },
         onlyError,
         failure},
        {"setTarnvaleResolver off",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper setTarnvaleResolverWithEnabled:NO withReply:asError(reply)];
         },
         onlyError,
         failure},
        {"shutdownForUpgrade",
         [](Helper helper, ResultAndErrorReply reply) {
             [helper shutdownForUpgradeWithReply:^{
                 reply(nil, nil);
             }];
         },
         {.replies = 1},
         {.replies = 1}},
    };
}

class XPCTransportTest : public testing::Test {
protected:
    /// Every connection that was admitted has ended, and was counted down once.
    void TearDown() override {
        EXPECT_TRUE(eventually([&] { return doorkeeper.ended == doorkeeper.admitted; }))
            << doorkeeper.ended << " of " << doorkeeper.admitted << " connections have ended";
    }

    void resume() { transport->resume(doorkeeper, helper); }

    /// The object that the system calls, for what the system itself would never pass on.
    NSObject<TarnvaleAdminHelperProtocol, NSXPCListenerDelegate>* exportedObject() {
        return static_cast<NSObject<TarnvaleAdminHelperProtocol, NSXPCListenerDelegate>*>(
            ground.listener().delegate);
    }

    test::XPCGround ground;
    test::FakeCodeSigning codeSigning;
    std::unique_ptr<Transport> transport = makeTransport(codeSigning);
    Doorkeeper doorkeeper;
    Exported helper{*transport};
};

TEST_F(XPCTransportTest, OffersTheHelpersService) {
    resume();

    EXPECT_THAT(ground.offered(), ElementsAre("com.brackwen.tarnvale.adminhelper"));
}

TEST_F(XPCTransportTest, CarriesEachRequestAndItsReplyOnce) {
    resume();
    Client client;

    for (const auto& request : allRequests()) {
        SCOPED_TRACE(request.call);
        const auto before = helper.calls().size();
        EXPECT_EQ(client.ask(request.send), request.answer);
        EXPECT_THAT(helper.calls(), SizeIs(before + 2));
        EXPECT_EQ(helper.calls().at(before), request.call);
    }
}

TEST_F(XPCTransportTest, TellsNilFromAnEmptyText) {
    resume();
    Client client;
    const auto report = [](Helper asked, ResultAndErrorReply reply) {
        [asked firewallReportWithReply:reply];
    };

    helper.reply = [] { return ResultReply{std::nullopt, ""}; };
    EXPECT_EQ(client.ask(report), (Answer{.replies = 1, .error = ""}));

    helper.reply = [] { return ResultReply{"", std::nullopt}; };
    EXPECT_EQ(client.ask(report), (Answer{.replies = 1, .result = ""}));
}

TEST_F(XPCTransportTest, CarriesTextsWhole) {
    resume();
    Client client;
    using namespace std::string_literals;
    helper.reply = [] {
        return ResultReply{
            "a\0b"s,
            "a\xFF"
            "b"s};
    };

    const auto answer = client.ask([](Helper asked, ResultAndErrorReply reply) {
        [asked createVLANWithName:toNSString("x\0y"s) tag:7 parentBSD:@"" withReply:reply];
    });

    EXPECT_EQ(
        answer,
        (Answer{
            .replies = 1,
            .result = "a\0b"s,
            .error = "a\uFFFD"
                     "b"}));
    EXPECT_EQ(helper.calls().at(0), "createVLAN x\0y|7|"s);
}

TEST_F(XPCTransportTest, RepliesOnceWhateverAnOperationThrows) {
    resume();
    Client client;
    const std::vector<std::function<ResultReply()>> failures{
        []() -> ResultReply { throw std::runtime_error("it fails"); },
        []() -> ResultReply { throw 5; },
        []() -> ResultReply {
            @throw [NSException exceptionWithName:@"Failure" reason:@"it fails" userInfo:nil];
        }};

    for (std::size_t i = 0; i < failures.size(); ++i) {
        helper.reply = failures[i];
        for (const auto& request : allRequests()) {
            SCOPED_TRACE("failure " + std::to_string(i) + " of " + request.call);
            EXPECT_EQ(client.ask(request.send), request.answerToFailure);
        }
    }
}

TEST_F(XPCTransportTest, RepliesToAShutdownOnceThoughItFailsAfterwards) {
    resume();
    Client client;
    helper.afterShutdown = [] { throw std::runtime_error("it fails"); };

    const auto answer = client.ask([](Helper asked, ResultAndErrorReply reply) {
        [asked shutdownForUpgradeWithReply:^{
            reply(nil, nil);
        }];
    });

    EXPECT_EQ(answer, (Answer{.replies = 1}));
}

TEST_F(XPCTransportTest, SurvivesWhatOnlyAHostileClientSends) {
    resume();
    const auto object = exportedObject();
    const auto replies = std::make_shared<int>();
    const ResultAndErrorReply result = ^(NSString*, NSString*) {
        ++*replies;
    };
    const TextReply text = ^(NSString*) {
        ++*replies;
    };

    [object applyFirewallWithPolicyData:nothing<NSData*>() withReply:result];
    [object createVLANWithName:nothing<NSString*>()
                           tag:INT64_MAX
                     parentBSD:nothing<NSString*>()
                     withReply:result];
    [object deleteVLANWithBsdName:nothing<NSString*>() withReply:text];

    EXPECT_EQ(*replies, 3);
    EXPECT_THAT(
        helper.calls(),
        ElementsAre("applyFirewall ", "createVLAN |9223372036854775807|", "deleteVLAN "));
}

TEST_F(XPCTransportTest, NeedsNobodyToWaitForAReply) {
    resume();
    const auto object = exportedObject();
    const auto noText = &nothing<TextReply>;
    const auto noResult = &nothing<ResultAndErrorReply>;

    [object helperVersionWithReply:noText()];
    [object applyFirewallWithPolicyData:[NSData dataWithBytes:"[]" length:2] withReply:noResult()];
    [object removeFirewallWithReply:noText()];
    [object firewallReportWithReply:noResult()];
    [object createVLANWithName:@"" tag:1 parentBSD:@"" withReply:noResult()];
    [object deleteVLANWithBsdName:@"" withReply:noText()];
    [object installCLISymlinkWithReply:noText()];
    [object removeCLISymlinkWithReply:noText()];
    [object setTarnvaleResolverWithEnabled:YES withReply:noText()];
    [object shutdownForUpgradeWithReply:nothing<void (^)()>()];

    EXPECT_THAT(helper.calls(), SizeIs(10));
}

TEST_F(XPCTransportTest, KnowsWhoIsAtTheOtherEnd) {
    resume();
    Client client;

    client.askForVersion();

    EXPECT_THAT(doorkeeper.pids, ElementsAre(::getpid()));
    EXPECT_THAT(doorkeeper.uids, ElementsAre(::geteuid()));
    EXPECT_THAT(helper.callers(), ElementsAre(::geteuid(), ::geteuid()));
    EXPECT_EQ(transport->currentEffectiveUserID(), std::nullopt) << "this thread serves nobody";
}

TEST_F(XPCTransportTest, HasEveryMessageCheckedAgainstTheRequirement) {
    doorkeeper.requirement = test::unmetRequirement;
    resume();
    {
        Client client;

        EXPECT_EQ(client.askForVersion(), (Answer{.failures = 1}));
    }

    EXPECT_THAT(ground.requirements(), AllOf(Not(IsEmpty()), Each(test::unmetRequirement)));
    EXPECT_THAT(helper.calls(), IsEmpty());
}

TEST_F(XPCTransportTest, TurnsAwayWhomTheDelegateTurnsAway) {
    doorkeeper.requirement = test::malformedRequirement;
    resume();
    {
        Client client;

        EXPECT_EQ(client.askForVersion(), (Answer{.failures = 1}));
    }

    EXPECT_EQ(doorkeeper.admitted, 0);
    EXPECT_THAT(helper.calls(), IsEmpty());
}

TEST_F(XPCTransportTest, TurnsAwayWhomTheDelegateFailsToDecideOn) {
    resume();
    const std::vector<std::function<void()>> failures{
        [] { throw std::runtime_error("it fails"); },
        [] { throw 5; },
        [] { @throw [NSException exceptionWithName:@"Failure" reason:@"it fails" userInfo:nil]; }};

    for (const auto& fail : failures) {
        doorkeeper.beforeDecision = fail;
        Client client;
        EXPECT_EQ(client.askForVersion(), (Answer{.failures = 1}));
    }

    doorkeeper.beforeDecision = [] {};
    Client client;
    EXPECT_EQ(client.askForVersion(), (Answer{.replies = 1, .result = "the result"}));
}

TEST_F(XPCTransportTest, CountsAConnectionDownOnceWhateverTheHandlerThrows) {
    resume();
    const std::vector<std::function<void()>> failures{
        [] { throw std::runtime_error("it fails"); },
        [] { throw 5; },
        [] { @throw [NSException exceptionWithName:@"Failure" reason:@"it fails" userInfo:nil]; }};

    for (int i = 0; i < std::ssize(failures); ++i) {
        doorkeeper.atTheEnd = failures[static_cast<std::size_t>(i)];
        {
            Client client;
            client.askForVersion();
            EXPECT_EQ(doorkeeper.admitted, i + 1);
            EXPECT_EQ(doorkeeper.ended, i) << "its connection is still open";
        }
        EXPECT_TRUE(eventually([&] { return doorkeeper.ended == i + 1; }));
    }
}

TEST_F(XPCTransportTest, ServesManyConnectionsAtOnce) {
    resume();
    {
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < 20; ++i) {
            clients.push_back(std::make_unique<Client>());
            EXPECT_EQ(clients.back()->askForVersion().replies, 1);
        }
        for (const auto& client : clients) {
            EXPECT_EQ(client->askForVersion().replies, 1);
        }
        EXPECT_EQ(doorkeeper.admitted, 20);
        EXPECT_EQ(doorkeeper.ended, 0);
    }
    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 20; }));
}

TEST_F(XPCTransportTest, LeavesToLaunchdWhatNobodyHasTaken) {
    resume();

    EXPECT_TRUE(transport->retire());
}

}  // namespace
}  // namespace tarnvale::platform
