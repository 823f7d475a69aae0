// SPDX-License-Identifier: MIT

#include "tests/reliability/Storm.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "core/service/CallerAuthorization.h"
#include "tests/reliability/Conclusion.h"
#include "tests/reliability/Paths.h"
#include "tests/reliability/SerialOrders.h"
#include "tests/support/JsonOracle.h"
#include "tests/support/Pattern.h"
#include "tests/support/PolicyText.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 60s;
/// After each reply; far longer than any request takes once it is its turn.
constexpr auto replyLimit = 60s;
constexpr int killedStatus = 128 + SIGKILL;
constexpr const char* none = "none";

struct User {
    uid_t uid;
    bool isAdministrator;
};

/// The last one may change nothing.
constexpr std::array<User, 9> users = {
    {{rootUser, true},
     {administrator, true},
     {511, true},
     {512, true},
     {513, true},
     {514, true},
     {515, true},
     {516, true},
     {firstUser, false}}};

/// Each user has a network of the user's own; one network is everybody's.
constexpr int firstNetwork = 100;
constexpr int sharedNetwork = 200;

/// Every list has a port of its own, by which it is known again in the store and in force. Ports
/// below are those of DHCP and DNS.
constexpr unsigned firstPort = 1000;
constexpr unsigned ports = 60'000;

constexpr std::array links = {"/usr/local/bin/tarnvale", "/usr/local/bin/tvx"};
constexpr std::array resolverFiles = {"/etc/resolver/tvx", "/etc/resolver/tarnvale"};

int networkOf(std::size_t user) {
    return firstNetwork + static_cast<int>(user);
}

std::string nameOf(std::size_t user) {
    return std::to_string(users.at(user).uid);
}

/// What the path is: what a link leads to, or whether there is a whole file.
std::string valueOf(const std::string& path) {
    std::error_code absent;
    if (const auto target = fs::read_symlink(path, absent); !absent) {
        return target;
    }
    if (!exists(path)) {
        return none;
    }
    const auto content = contentOf(path);
    return content.ends_with("nameserver 127.0.0.1\nport 5380\ntimeout 2\n") ? "file" : content;
}

/// Whether a request for links or resolver files says so that finds them other than it has just
/// seen them.
bool isOfRace(const std::string& message) {
    return std::ranges::any_of(
               links,
               [&](const std::string& link) {
                   return message.starts_with("Could not link " + link + ": ") ||
                          message == "Could not remove " + link + "." ||
                          message.starts_with(link + " already exists and isn't a Tarnvale link.");
               }) ||
           std::ranges::any_of(resolverFiles, [&](const fs::path& file) {
               const std::string name = "“" + file.filename().string() + "”";
               return message == name + " couldn’t be removed." ||
                      message == "The file " + name + " doesn’t exist.";
           });
}

/// For each network in a listing of rules, the ports that tell which list it is of.
std::map<int, std::set<std::string>> networksIn(const std::string& listing) {
    static const Pattern rule(R"(192\.168\.([0-9]+)\.0/24 port = ([0-9]{4,5})\b)");
    std::map<int, std::set<std::string>> networks;
    for (const auto& found : rule.findAll(listing)) {
        networks[std::stoi(found[1])].insert(found[2]);
    }
    return networks;
}

std::string joined(const std::set<std::string>& texts) {
    std::string all;
    for (const auto& text : texts) {
        all += (all.empty() ? "" : "+") + text;
    }
    return all.empty() ? none : all;
}

/// A user's list, as it is stored.
struct StoredList {
    std::set<std::string> ports;
    bool hasShared = false;
};

/// By the user's name.
std::map<std::string, StoredList> storedLists() {
    std::map<std::string, StoredList> lists;
    if (!exists(storePath)) {
        return lists;
    }
    const auto store = jsonValue(contentOf(storePath));
    for (const auto& [owner, entry] : jsonObject(store.at("owners"))) {
        auto& list = lists[owner];
        for (const auto& network : jsonList(entry.at("policies"))) {
            list.hasShared |= jsonText(network.at("networkID")) == networkID(sharedNetwork);
            for (const auto& rule : jsonList(network.at("policy").at("rules"))) {
                list.ports.insert(jsonText(rule.at("ports")));
            }
        }
    }
    return lists;
}

/// What a client can ask for.
enum class Wish {
    apply,
    applyAgain,
    remove,
    version,
    report,
    createVLAN,
    deleteVLAN,
    linksOn,
    linksOff,
    resolverOn,
    resolverOff,
    disconnect
};

Wish wishOf(std::uint64_t number) {
    using enum Wish;
    static const std::vector<Wish> wishes = {
        apply,    apply,      apply,  apply,      apply,       applyAgain, remove,
        version,  report,     report, createVLAN, deleteVLAN,  linksOn,    linksOn,
        linksOff, resolverOn, remove, resolverOn, resolverOff, version,    disconnect};
    return wishes[number % wishes.size()];
}

/// A request, word by word.
struct Call {
    const char* method = "";
    const char* types = "";
    Texts arguments{};
    Texts reply{"nil"};   ///< an administrator's; an empty text stands for any
    bool isOpen = false;  ///< to everybody
};

void joinAll(std::vector<std::thread>& threads) {
    for (auto& thread : threads) {
        thread.join();
    }
    threads.clear();
}

bool fits(const Texts& reply, const Texts& expected) {
    return std::ranges::equal(reply, expected, [](const auto& text, const auto& expectedText) {
        return expectedText.empty() ? text != "nil" : text == expectedText;
    });
}

}  // namespace

/// The work of it. Threads share what `mutex_` guards; the rest is one thread's or never changes.
class Storm::Course {
public:
    explicit Course(const StormPlan& plan);

    void run(std::chrono::milliseconds duration);
    void disconnect();
    const StormFigures& figures() const { return figures_; }
    pid_t helper() const { return helper_->pid(); }

private:
    /// A client on a connection, one after the other.
    struct Asker {
        std::size_t user;
        std::mt19937_64 random;
        std::unique_ptr<ServiceClient> client{};
        std::string list{};  ///< the last one, by its port
        std::string text{};
        Instant served = Instant::min();  ///< when the connection got its last reply
        Instant asked = Instant::min();   ///< when its last request began
        const char* waitsFor = nullptr;   ///< the request that has no reply yet
    };

    struct Report {
        std::map<std::string, std::string> read;
        Span seen;
    };

    /// A request for links or resolver files that another one got in the way of.
    struct FileRefusal {
        std::string path;  ///< one that it was for
        Span span;
        std::string message;
    };

    std::unique_ptr<Program> begin(const std::vector<std::string>& command);
    void launch();
    void disturb(
        const std::function<void()>& act,
        std::uint64_t seed,
        std::chrono::milliseconds pauseLimit,
        bool isLast);
    void restart();
    static void awaitFreeSocket();
    void reapply();
    void askUntilTheEnd(Asker& asker);
    bool isDone(const Asker& asker);
    void ask(Asker& asker);
    Call callFor(Wish wish, Asker& asker);
    static std::optional<Texts> replyTo(Asker& asker, const Call& call);
    bool mayAsk(Asker& asker, const char* request);
    void stopWaiting(Asker& asker);
    bool hasAskedSinceLastKill(const Asker& asker) const;
    void awaitRequests();
    void awaitReplies();
    void record(
        Wish wish,
        const Asker& asker,
        const Call& call,
        const Span& span,
        const std::optional<Texts>& reply);
    void recordClosed(const Asker& asker, const Span& span);
    void countAnswer(
        const std::optional<Texts>& reply,
        const Texts& expected,
        const Call& call,
        const char* what);
    void recordFiles(Wish wish, const Span& span, bool surely);
    void keepReport(const std::string& report, const Span& span);
    void look();
    void lookAtReports();
    void lookAtFileRefusals();
    void lookAtFiles(const Span& now);
    void lookAtLists(const Span& now);
    bool isOneAttempt(std::map<int, std::set<std::string>> enforced);
    void lookAtShared(
        const std::map<std::string, StoredList>& stored, const std::set<std::string>& enforced);
    void violated(const std::string& what);

    StormPlan plan_;
    ServiceLab lab_;
    std::string program_ = ServiceLab::installedHelper();
    std::string tool_ = fs::path(program_).replace_filename("tarnvale");
    std::unique_ptr<Program> helper_;
    std::vector<Asker> askers_;
    std::uint64_t round_ = 0;
    std::atomic<bool> isOver_ = false;  ///< nobody disturbs any more, but for the last time
    std::atomic<bool> ends_ = false;    ///< nobody asks any more
    std::atomic<bool> listens_ = false;
    std::atomic<unsigned> listsMade_ = 0;
    std::mutex starting_;  ///< a program that starts has, for a moment, all that is open here

    std::mutex mutex_;
    std::map<std::string, SerialValue> lists_;  ///< by user
    std::map<std::string, SerialValue> files_;  ///< by path
    std::vector<Report> reports_;
    std::vector<FileRefusal> fileRefusals_;
    std::vector<Span> kills_;  ///< each from before it until the next helper listens
    StormFigures figures_;
};

Storm::Course::Course(const StormPlan& plan) : plan_(plan) {
    std::string names = "root:x:0:0::/root:/bin/sh\n";
    std::string members;
    for (const auto& user : users) {
        const std::string name = "user" + std::to_string(user.uid);
        if (user.uid != rootUser) {
            names += name + ":x:" + std::to_string(user.uid) + ":20::/:/bin/sh\n";
        }
        if (user.isAdministrator) {
            members += (members.empty() ? "" : ",") + name;
        }
    }
    put("/etc/passwd", names);
    put("/etc/group", "root:x:0:\nstaff:x:20:\nadmin:x:80:" + members + "\n");
    for (std::size_t user = 0; user < users.size(); ++user) {
        lists_[nameOf(user)].reset(none);
    }
    for (const auto& paths : {links, resolverFiles}) {
        for (const auto& path : paths) {
            files_[path].reset(none);
        }
    }
    std::seed_seq seeds{plan.seed};
    std::vector<std::uint32_t> numbers(plan.connections);
    seeds.generate(numbers.begin(), numbers.end());
    for (std::size_t index = 0; index < plan.connections; ++index) {
        askers_.push_back(
            {.user = index % users.size(), .random = std::mt19937_64(numbers[index])});
    }
    launch();
}

std::unique_ptr<Program> Storm::Course::begin(const std::vector<std::string>& command) {
    const std::lock_guard lock(starting_);
    return std::make_unique<Program>(command);
}

/// Leaves an earlier helper's socket, which the new one replaces.
void Storm::Course::launch() {
    helper_ = begin({program_});
    const auto end = Clock::now() + patience;
    while (!connectToService()) {
        if (helper_->endsWithin(1ms) || Clock::now() > end) {
            throw std::runtime_error("the helper does not start: " + helper_->error());
        }
    }
    listens_ = true;
}

void Storm::Course::run(std::chrono::milliseconds duration) {
    isOver_ = false;
    ends_ = false;
    ++round_;
    const bool endsWithAKill = plan_.isDisturbed && round_ % 2 == 0;
    std::vector<std::thread> disturbers;
    if (plan_.isDisturbed) {
        const auto seed = plan_.seed + round_;
        const auto longestLife =
            endsWithAKill ? plan_.longestLife : std::min(plan_.longestLife, duration / 2);
        disturbers.emplace_back([this, seed, longestLife, endsWithAKill] {
            disturb([this] { restart(); }, seed, longestLife, endsWithAKill);
        });
        disturbers.emplace_back([this, seed, endsWithAKill] {
            disturb([this] { reapply(); }, seed, 100ms, endsWithAKill);
        });
    }
    std::vector<std::thread> threads;
    threads.reserve(askers_.size());
    for (auto& asker : askers_) {
        threads.emplace_back([this, &asker] { askUntilTheEnd(asker); });
    }
    std::this_thread::sleep_for(duration);
    isOver_ = true;
    if (!endsWithAKill) {
        joinAll(disturbers);
        awaitRequests();
    }
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    awaitReplies();
    joinAll(disturbers);
    joinAll(threads);
    look();
}

/// With `mutex_` held.
bool Storm::Course::hasAskedSinceLastKill(const Asker& asker) const {
    return kills_.empty() || asker.asked >= kills_.back().end;
}

/// Until each client has asked since the last kill, so that no kill hides that it gets no reply.
void Storm::Course::awaitRequests() {
    const auto haveAllAsked = [this] {
        const std::lock_guard lock(mutex_);
        return std::ranges::all_of(
            askers_, [this](const Asker& asker) { return hasAskedSinceLastKill(asker); });
    };
    const auto end = Clock::now() + patience;
    while (!haveAllAsked() && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
}

/// Kills the clients that get none, though the others have got theirs. Nobody asks any more, so
/// with each reply there is one less who waits.
void Storm::Course::awaitReplies() {
    const auto countWaiting = [this] {
        const std::lock_guard lock(mutex_);
        return std::ranges::count_if(
            askers_, [](const Asker& asker) { return asker.waitsFor != nullptr; });
    };
    auto waiting = countWaiting();
    auto end = Clock::now() + replyLimit;
    while (waiting > 0 && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
        if (const auto left = countWaiting(); left < waiting) {
            waiting = left;
            end = Clock::now() + replyLimit;
        }
    }
    const std::lock_guard lock(mutex_);
    for (const auto& asker : askers_) {
        if (asker.waitsFor != nullptr) {
            figures_.violations.push_back(
                std::string(asker.waitsFor) +
                " gets neither a reply nor the end of its connection");
            asker.client->signal(SIGKILL);
        }
    }
}

void Storm::Course::disconnect() {
    for (auto& asker : askers_) {
        asker.client.reset();
    }
}

/// Does it at least once, and again and again, after pauses that are no longer than that. It is the
/// last that happens, or else the period goes on without it.
void Storm::Course::disturb(
    const std::function<void()>& act,
    std::uint64_t seed,
    std::chrono::milliseconds pauseLimit,
    bool isLast) {
    std::mt19937_64 random(seed);
    std::uniform_int_distribution<std::int64_t> pause(0, pauseLimit.count());
    try {
        do {
            const auto until = Clock::now() + std::chrono::milliseconds(pause(random));
            while (!isOver_ && Clock::now() < until) {
                std::this_thread::sleep_for(1ms);
            }
            if (!isOver_ || isLast) {
                act();
            }
        } while (!isOver_);
    } catch (const std::exception& error) {
        violated(error.what());
    }
}

void Storm::Course::restart() {
    listens_ = false;
    {
        const std::lock_guard lock(mutex_);
        kills_.push_back({.begin = Clock::now(), .end = Instant::max()});
    }
    if (helper_->running()) {
        ::kill(helper_->pid(), SIGKILL);
    }
    const auto end = helper_->finish();
    if (end.status != killedStatus) {
        violated("it ended with status " + std::to_string(end.status) + ": " + end.error);
    }
    awaitFreeSocket();
    launch();
    const std::lock_guard lock(mutex_);
    kills_.back().end = Clock::now();
    ++figures_.kills;
}

/// A process that was about to become a pfctl has the killed helper's socket until it does, and the
/// next helper would rightly leave it to whoever listens.
void Storm::Course::awaitFreeSocket() {
    const auto end = Clock::now() + patience;
    while (connectToService()) {
        if (Clock::now() > end) {
            throw std::runtime_error("somebody listens, though the helper was killed");
        }
        std::this_thread::sleep_for(1ms);
    }
}

void Storm::Course::reapply() {
    const auto end = begin({program_, "--reapply"})->finish();
    if (end.status != 0 || !end.error.empty()) {
        violated("a re-apply ends with status " + std::to_string(end.status) + ": " + end.error);
    }
    const std::lock_guard lock(mutex_);
    ++figures_.reapplies;
}

void Storm::Course::askUntilTheEnd(Asker& asker) {
    try {
        while (!ends_) {
            if (!listens_ || isDone(asker)) {
                std::this_thread::sleep_for(1ms);
                continue;
            }
            ask(asker);
        }
    } catch (const std::exception& error) {
        violated(error.what());
    }
}

/// Whoever has asked since the last kill leaves the rest of the period to the others.
bool Storm::Course::isDone(const Asker& asker) {
    const std::lock_guard lock(mutex_);
    return isOver_ && hasAskedSinceLastKill(asker);
}

void Storm::Course::ask(Asker& asker) {
    const auto wish = wishOf(asker.random());
    if (wish == Wish::disconnect) {
        asker.client.reset();
        return;
    }
    if (!asker.client) {
        const std::lock_guard lock(starting_);
        if (ends_) {
            return;  // a busy machine takes longer to start all clients than a period is
        }
        asker.client = std::make_unique<ServiceClient>(lab_.client, users.at(asker.user).uid);
        asker.served = Instant::min();
    }
    const auto call = callFor(wish, asker);
    if (!mayAsk(asker, call.method)) {
        return;
    }
    Span span{.begin = Clock::now()};
    const auto reply = replyTo(asker, call);
    span.end = Clock::now();
    stopWaiting(asker);
    record(wish, asker, call, span, reply);
    if (reply) {
        asker.served = span.end;
    } else {
        asker.client.reset();
    }
}

/// Not after the end, which may have come while the client was started.
bool Storm::Course::mayAsk(Asker& asker, const char* request) {
    const std::lock_guard lock(mutex_);
    if (ends_) {
        return false;
    }
    asker.asked = Clock::now();
    asker.waitsFor = request;
    return true;
}

void Storm::Course::stopWaiting(Asker& asker) {
    const std::lock_guard lock(mutex_);
    asker.waitsFor = nullptr;
}

Call Storm::Course::callFor(Wish wish, Asker& asker) {
    if (wish == Wish::apply || (wish == Wish::applyAgain && asker.list.empty())) {
        asker.list = std::to_string(firstPort + listsMade_++ % ports);
        const RuleText rule{.ports = asker.list};
        std::vector<NetworkText> networks{{.number = networkOf(asker.user), .rules = {rule}}};
        if (asker.random() % 3 == 0) {
            networks.push_back({.number = sharedNetwork, .name = "Shared", .rules = {rule}});
        }
        asker.text = policyText(networks);
    }
    switch (wish) {
        case Wish::apply:
        case Wish::applyAgain:
            return {
                .method = "ApplyFirewall",
                .types = "ay",
                .arguments = {asker.text},
                .reply = {"", "nil"}};
        case Wish::remove:
            return {.method = "RemoveFirewall"};
        case Wish::report:
            return {.method = "FirewallReport", .reply = {"", "nil"}, .isOpen = true};
        case Wish::createVLAN:
            return {
                .method = "CreateVLAN",
                .types = "sxs",
                .arguments = {"Office", "5", "en7"},
                .reply = {"nil", "No physical interface named en7."}};
        case Wish::deleteVLAN:
            return {
                .method = "DeleteVLAN",
                .types = "s",
                .arguments = {"vlan7"},
                .reply = {"No VLAN interface named vlan7."}};
        case Wish::linksOn:
            return {.method = "InstallCLISymlink"};
        case Wish::linksOff:
            return {.method = "RemoveCLISymlink"};
        case Wish::resolverOn:
            return {.method = "SetTarnvaleResolver", .types = "b", .arguments = {"true"}};
        case Wish::resolverOff:
            return {.method = "SetTarnvaleResolver", .types = "b", .arguments = {"false"}};
        case Wish::version:
        case Wish::disconnect:
            break;
    }
    return {.method = "HelperVersion", .reply = {helperVersion()}, .isOpen = true};
}

/// Nothing when the connection has been closed, or none could be made.
std::optional<Texts> Storm::Course::replyTo(Asker& asker, const Call& call) {
    try {
        auto reply = asker.client->call(call.method, call.types, call.arguments);
        return reply == Texts{"closed"} ? std::nullopt : std::optional(std::move(reply));
    } catch (const std::exception&) {
        return std::nullopt;  // nobody listened, and the client has ended
    }
}

void Storm::Course::record(
    Wish wish,
    const Asker& asker,
    const Call& call,
    const Span& span,
    const std::optional<Texts>& reply) {
    const std::lock_guard lock(mutex_);
    ++figures_.requests;
    if (!reply) {
        ++figures_.unanswered;
        recordClosed(asker, span);
    }
    if (!users.at(asker.user).isAdministrator && !call.isOpen) {
        Texts refusal(call.reply.size(), "nil");
        refusal.back() = refusalMessage;
        countAnswer(reply, refusal, call, refusals);
        return;
    }
    const bool isDone = reply && fits(*reply, call.reply);
    auto& list = lists_[nameOf(asker.user)];
    switch (wish) {
        case Wish::apply:
        case Wish::applyAgain:
            list.setBy(span, asker.list, isDone);
            break;
        case Wish::remove:
            list.setBy(span, none, isDone);
            break;
        case Wish::report:
            if (isDone) {
                keepReport(reply->front(), span);
            }
            break;
        case Wish::linksOn:
        case Wish::linksOff:
        case Wish::resolverOn:
        case Wish::resolverOff:
            recordFiles(wish, span, isDone);
            if (reply && !isDone) {
                const bool isForLinks = wish == Wish::linksOn || wish == Wish::linksOff;
                fileRefusals_.push_back(
                    {.path = isForLinks ? links.front() : resolverFiles.front(),
                     .span = span,
                     .message = reply->back()});
                ++figures_.refused;
                return;
            }
            break;
        default:
            break;
    }
    countAnswer(reply, call.reply, call, call.method);
}

/// With `mutex_` held.
void Storm::Course::countAnswer(
    const std::optional<Texts>& reply, const Texts& expected, const Call& call, const char* what) {
    if (reply && fits(*reply, expected)) {
        ++figures_.answers[what];
    } else if (reply) {
        figures_.violations.emplace_back(
            std::string(call.method) + ", in place of " + expected.back() + ": " + reply->back());
    }
}

/// With `mutex_` held. Only a kill may close a connection that has been served; one that has not
/// may have been one too many.
void Storm::Course::recordClosed(const Asker& asker, const Span& span) {
    const bool wasKilled = std::ranges::any_of(kills_, [&](const Span& kill) {
        return kill.begin <= span.end && kill.end >= asker.served;
    });
    if (!wasKilled && (!plan_.isDisturbed || asker.served != Instant::min())) {
        figures_.violations.emplace_back("a connection was closed, although nobody was killed");
    }
}

/// With `mutex_` held. These operations take no lock, so that each file has an order of its own.
void Storm::Course::recordFiles(Wish wish, const Span& span, bool surely) {
    if (wish == Wish::resolverOn || wish == Wish::resolverOff) {
        for (const auto& path : resolverFiles) {
            files_[path].setBy(span, wish == Wish::resolverOn ? "file" : none, surely);
        }
        return;
    }
    for (const auto& path : links) {
        files_[path].setBy(span, wish == Wish::linksOn ? tool_ : none, surely);
        if (wish == Wish::linksOn && !surely) {
            files_[path].setBy(span, none, false);  // the old link goes before the new one comes
        }
    }
}

/// With `mutex_` held. It is judged when all requests beside it are known.
void Storm::Course::keepReport(const std::string& report, const Span& span) {
    auto networks = networksIn(report);
    Report kept{.read = {}, .seen = span};
    for (std::size_t user = 0; user < users.size(); ++user) {
        kept.read[nameOf(user)] = joined(networks[networkOf(user)]);
    }
    reports_.push_back(std::move(kept));
}

/// What is there when nothing runs.
void Storm::Course::look() {
    const Instant instant = Clock::now();
    const Span now{.begin = instant, .end = instant};
    ++figures_.looks;
    if (!helper_->running()) {
        const auto end = helper_->finish();
        violated("it ended with status " + std::to_string(end.status) + ": " + end.error);
        launch();
    }
    ServiceClient client(lab_.client);
    if (callInTime(client, versionRequest(), replyLimit) != Texts{helperVersion()}) {
        violated("it lives, but serves nobody");
    }
    lookAtReports();
    lookAtFileRefusals();
    lookAtFiles(now);
    lookAtLists(now);
    const auto log = contentOf(logPath);
    for (const char* const sign :
         {"could not be decoded", "could not be read", "re-apply failed"}) {
        if (log.find(sign) != std::string::npos) {
            violated(std::string("the log says: ") + sign);
        }
    }
    fs::resize_file(logPath, 0);
}

void Storm::Course::lookAtReports() {
    for (const auto& report : reports_) {
        for (const auto& user : inexplicable(lists_, report.read, report.seen)) {
            violated("reported for user " + user + ": " + report.read.at(user));
        }
    }
    reports_.clear();
}

/// None but a request for the same files, made at the same time, gets in the way of one.
void Storm::Course::lookAtFileRefusals() {
    for (const auto& refusal : fileRefusals_) {
        if (!isOfRace(refusal.message) || !files_[refusal.path].hasOthersIn(refusal.span)) {
            violated("a request for " + refusal.path + " failed: " + refusal.message);
        }
    }
    fileRefusals_.clear();
}

void Storm::Course::lookAtFiles(const Span& now) {
    for (auto& [path, file] : files_) {
        const auto value = valueOf(path);
        if (!file.mayHave(value, now)) {
            violated(std::string(path).append(" is ").append(value));
        }
        file.reset(value);
    }
}

void Storm::Course::lookAtLists(const Span& now) {
    const auto stored = storedLists();
    auto listing = listedRules();
    auto enforced = networksIn(listing);
    if (stored.empty() && isOneAttempt(enforced)) {
        // The helper was killed after it had enforced the first list, and before it stored it. The
        // list stays in force until the next apply, removal or boot.
        flushRules();
        listing = listedRules();
        enforced = networksIn(listing);
    }
    std::map<std::string, std::string> read;
    for (std::size_t user = 0; user < users.size(); ++user) {
        const auto name = nameOf(user);
        const auto found = stored.find(name);
        read[name] = found == stored.end() ? none : joined(found->second.ports);
        if (const auto rules = joined(enforced[networkOf(user)]); rules != read[name]) {
            violated(std::string("in force for user ")
                         .append(name)
                         .append(": ")
                         .append(rules)
                         .append(", but stored: ")
                         .append(read[name]));
        }
    }
    for (const auto& name : inexplicable(lists_, read, now)) {
        violated("stored for user " + name + ": " + read[name]);
    }
    lookAtShared(stored, enforced[sharedNetwork]);
    if (::tarnvale::test::run({program_, "--reapply"}).status != 0 || listedRules() != listing) {
        violated("a re-apply changes what is in force");
    }
    for (auto& [name, list] : lists_) {
        list.reset(read[name], list.attemptsAt(read[name]).value_or(now));
    }
}

/// Whether that is a list of one user, who tried to apply it.
bool Storm::Course::isOneAttempt(std::map<int, std::set<std::string>> enforced) {
    std::vector<std::string> tried;
    for (std::size_t user = 0; user < users.size(); ++user) {
        const auto rules = joined(enforced[networkOf(user)]);
        if (rules != none && lists_[nameOf(user)].attemptsAt(rules)) {
            tried.push_back(rules);
        } else if (rules != none) {
            return false;
        }
    }
    const auto shared = joined(enforced[sharedNetwork]);
    return tried.size() == 1 && (shared == none || shared == tried.front());
}

/// The one who applied it last has the network that all want.
void Storm::Course::lookAtShared(
    const std::map<std::string, StoredList>& stored, const std::set<std::string>& enforced) {
    std::map<std::string, Span> claims;
    for (const auto& [name, list] : stored) {
        const auto port = joined(list.ports);
        if (const auto attempts = lists_[name].attemptsAt(port); list.hasShared && attempts) {
            claims[port] = *attempts;
        }
    }
    const auto winner = claims.find(joined(enforced));
    if (winner == claims.end()) {
        if (!claims.empty() || !enforced.empty()) {
            violated("in force for the network of several: " + joined(enforced));
        }
        return;
    }
    for (const auto& [port, claim] : claims) {
        if (claim.begin > winner->second.end) {
            violated("of the network of several, an earlier list is in force");
        }
    }
}

void Storm::Course::violated(const std::string& what) {
    const std::lock_guard lock(mutex_);
    figures_.violations.emplace_back(
        "storm " + std::to_string(plan_.seed) + ", period " + std::to_string(round_) + ": " + what);
}

std::vector<std::string> missingIn(const StormFigures& figures, const StormPlan& plan) {
    std::vector<Tally> tallies = {{figures.looks, "look"}};
    if (plan.isDisturbed) {
        tallies.push_back({figures.kills, "kill"});
        tallies.push_back({figures.reapplies, "re-apply"});
    }
    for (const char* const answer : expectedAnswers) {
        const auto found = figures.answers.find(answer);
        const auto count = found == figures.answers.end() ? 0 : found->second;
        tallies.push_back({count, std::string("right reply: ") + answer});
    }
    return missingIn(tallies);
}

Storm::Storm(const StormPlan& plan) : course_(std::make_unique<Course>(plan)) {}

Storm::~Storm() = default;

void Storm::run(std::chrono::milliseconds duration) {
    course_->run(duration);
}

void Storm::disconnect() {
    course_->disconnect();
}

const StormFigures& Storm::figures() const {
    return course_->figures();
}

pid_t Storm::helper() const {
    return course_->helper();
}

}  // namespace tarnvale::test
