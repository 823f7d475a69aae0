// SPDX-License-Identifier: MIT

#include "tests/reliability/PowerCuts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/reliability/Conclusion.h"
#include "tests/reliability/RecordedDisk.h"
#include "tests/support/FailedStep.h"
#include "tests/support/PolicyText.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* mountPoint = "/run/power/disk";
constexpr const char* absent = "absent";

/// The folders that lie on the disk, and their names there.
constexpr std::array<std::pair<const char*, const char*>, 3> folders = {
    {{"/Library", "library"}, {"/etc", "etc"}, {"/usr/local", "local"}}};

/// Where the helper writes what has to last, and where that is on the disk.
constexpr std::array<std::pair<const char*, const char*>, 4> writtenPlaces = {
    {{"/Library", "/library"},
     {"/etc/resolver", "/etc/resolver"},
     {"/etc/pf.conf", "/etc/pf.conf"},
     {"/usr/local", "/local"}}};

constexpr const char* damagedStore = R"({"owners":{"501":{"appliedAt":)";
constexpr const char* legacyPfConf =
    "scrub-anchor \"com.apple/*\"\nanchor \"com.tarnvale.firewall\"\nanchor \"com.apple/*\"\n";

/// Nobody uses it any more, but the kernel may take a moment to know.
void unmount(const std::string& folder) {
    for (int attempt = 0; ::umount2(folder.c_str(), 0) != 0; ++attempt) {
        if (errno != EBUSY || attempt == 500) {
            fail("umount " + folder);
        }
        std::this_thread::sleep_for(2ms);
    }
}

void mountIt(
    const std::string& what,
    const std::string& where,
    const char* type,
    unsigned long flags,
    const char* options) {
    if (::mount(what.c_str(), where.c_str(), type, flags, options) != 0) {
        fail("mount " + what + " on " + where);
    }
}

/// A new file system, as it is before anybody has mounted it.
std::string makeFileSystem(const FileSystem& fileSystem) {
    std::string file = "/run/power/made";
    fs::create_directories(mountPoint);
    std::ofstream(file).flush();
    fs::resize_file(file, 0);
    fs::resize_file(file, fileSystem.mebibytes << 20U);
    const auto made = run(with(fileSystem.make, {file}));
    if (made.status != 0) {
        throw std::runtime_error(std::string(fileSystem.make.front()) + ": " + made.error);
    }
    return file;
}

/// A file system, with the folders that lie on it in their places once they are shown.
class MountedDisk {
public:
    MountedDisk(const FileSystem& fileSystem, const std::string& device) {
        mountIt(device, mountPoint, fileSystem.name, 0, fileSystem.options);
    }
    MountedDisk(const MountedDisk&) = delete;
    MountedDisk& operator=(const MountedDisk&) = delete;
    ~MountedDisk() {
        try {
            for (; shown_ > 0; --shown_) {
                unmount(folders.at(shown_ - 1).first);
            }
            unmount(mountPoint);
        } catch (const std::system_error&) {
            ::umount2(mountPoint, MNT_DETACH);
        }
    }

    void show() {
        for (const auto& [folder, name] : folders) {
            fs::create_directories(folder);
            mountIt(std::string(mountPoint) + "/" + name, folder, nullptr, MS_BIND, nullptr);
            ++shown_;
        }
    }

    static void sync() {
        const support::UniqueFd folder(::open(mountPoint, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder || ::syncfs(folder.get()) != 0) {
            fail("syncfs");
        }
    }

private:
    std::size_t shown_ = 0;
};

/// The files by their paths, each with its kind, mode and content.
using Tree = std::map<std::string, std::string>;

std::string valueOf(const fs::directory_entry& entry) {
    const std::string mode = std::to_string(modeOf(entry.path()));
    if (entry.is_symlink()) {
        return "link to " + fs::read_symlink(entry.path()).string();
    }
    return entry.is_directory() ? "folder " + mode
                                : "file " + mode + "\n" + contentOf(entry.path());
}

/// Without hidden files: a temporary one may be left over.
Tree writtenTree() {
    Tree tree;
    for (const auto& [place, onDisk] : writtenPlaces) {
        const std::string folder = std::string(mountPoint) + onDisk;
        const fs::directory_entry top(folder);
        if (top.exists()) {
            tree[place] = valueOf(top);
        }
        std::error_code none;
        for (const auto& entry : fs::recursive_directory_iterator(folder, none)) {
            if (!entry.path().filename().string().starts_with('.')) {
                tree[place + entry.path().string().substr(folder.size())] = valueOf(entry);
            }
        }
    }
    return tree;
}

std::string valueIn(const Tree& tree, const std::string& path) {
    const auto found = tree.find(path);
    return found == tree.end() ? absent : found->second;
}

/// One request, or something else that the helper does.
struct Step {
    const char* name;
    std::function<void()> act;
    /// What others do before, and make durable.
    std::function<void()> prepare{};
    /// A content that some file has at any time from here on.
    std::string kept{};
    bool isInSample = false;
};

/// What the files are after a step.
struct Stage {
    std::string step;
    Tree before;  ///< as prepared
    Tree after;
    std::vector<std::string> kept;
};

/// The marks of step n are 2n + 1 when it begins and 2n + 2 when it has been answered; 0 while
/// others write.
bool isAnswer(std::uint64_t mark) {
    return mark != 0 && mark % 2 == 0;
}

std::size_t stepOf(std::uint64_t mark) {
    return (mark - 1) / 2;
}

class PowerCuts {
public:
    PowerCuts(const FileSystem& fileSystem, const PowerCutPlan& plan)
        : fileSystem_(fileSystem), plan_(plan), random_(plan.seed) {
        fs::create_directories(mountPoint);
    }

    PowerCutFigures run();

private:
    std::vector<Step> steps();
    void call(
        std::unique_ptr<ServiceClient>& client,
        uid_t uid,
        const char* method,
        const char* types = "",
        const Texts& arguments = {});
    void record(const DiskImage& image);
    void replay(DiskImage& image);
    void cutIn(
        DiskImage& image,
        const std::vector<const DiskEvent*>& writes,
        const std::vector<std::uint64_t>& marks);
    void judge(
        const DiskImage& image, const std::vector<const DiskEvent*>& kept, std::uint64_t marks);
    Tree treeOn(const DiskImage& image, const std::vector<const DiskEvent*>& kept);
    void judgeTree(const Tree& tree, std::uint64_t marks);
    void judgeHelper(const Tree& tree);
    void violated(const std::string& what);

    const FileSystem& fileSystem_;  ///< one of `allFileSystems`
    PowerCutPlan plan_;
    std::mt19937_64 random_;
    ServiceLab lab_;
    std::string program_ = ServiceLab::installedHelper();
    std::unique_ptr<RunningHelper> helper_;
    std::unique_ptr<ServiceClient> first_;
    std::unique_ptr<ServiceClient> second_;
    DiskRecord record_;
    std::unique_ptr<ReplayedDisk> left_;
    std::vector<Stage> stages_;
    std::map<std::string, std::set<std::string>> rulesOf_;  ///< by what the store holds
    std::set<Tree> known_;
    std::optional<Tree> seen_;     ///< on the last disk that was mounted
    std::optional<Tree> full_;     ///< on the disk that has all that isn't flushed, too
    std::optional<Tree> flushed_;  ///< on the disk that has what is flushed, and nothing else
    std::string where_;
    PowerCutFigures figures_;
};

void PowerCuts::call(
    std::unique_ptr<ServiceClient>& client,
    uid_t uid,
    const char* method,
    const char* types,
    const Texts& arguments) {
    if (!client) {
        client = std::make_unique<ServiceClient>(lab_.client, uid);
    }
    const auto reply = client->call(method, types, arguments);
    if (reply.back() != "nil") {
        throw std::runtime_error(std::string(method) + " failed: " + reply.back());
    }
}

std::vector<Step> PowerCuts::steps() {
    const auto apply = [this](int port) {
        return [this, port] {
            const RuleText rule{.ports = std::to_string(port)};
            call(
                first_,
                administrator,
                "ApplyFirewall",
                "ay",
                {policyText({{.number = 64, .rules = {rule}}})});
        };
    };
    const auto setResolver = [this](const char* enabled) {
        return
            [this, enabled] { call(first_, administrator, "SetTarnvaleResolver", "b", {enabled}); };
    };
    const auto ask = [this](const char* method) {
        return [this, method] { call(first_, administrator, method); };
    };
    std::vector<Step> all = {
        {.name = "apply-new", .act = apply(22), .isInSample = true},
        {.name = "apply-changed", .act = apply(443), .isInSample = true},
        {.name = "apply-same", .act = apply(443)},
        {.name = "resolver-on", .act = setResolver("true")},
        {.name = "links-on", .act = ask("InstallCLISymlink")},
        {.name = "apply-of-another",
         .act =
             [this] {
                 call(
                     second_,
                     rootUser,
                     "ApplyFirewall",
                     "ay",
                     {policyText({{.number = 65, .name = "Farm"}})});
             }},
        {.name = "reapply",
         .act =
             [this] {
                 const auto end = tarnvale::test::run({program_, "--reapply"});
                 if (end.status != 0) {
                     throw std::runtime_error("the re-apply failed: " + end.error);
                 }
             }},
        {.name = "remove-one", .act = [this] { call(second_, rootUser, "RemoveFirewall"); }},
        {.name = "apply-over-a-damaged-store",
         .act = apply(8080),
         .prepare = [] { put(storePath, damagedStore); },
         .kept = damagedStore},
        {.name = "apply-with-legacy-lines",
         .act = apply(8443),
         .prepare = [] { put("/etc/pf.conf", legacyPfConf); },
         .kept = legacyPfConf},
        {.name = "links-off", .act = ask("RemoveCLISymlink")},
        {.name = "resolver-off", .act = setResolver("false")},
        {.name = "remove-last", .act = ask("RemoveFirewall"), .isInSample = true}};
    if (plan_.isSample) {
        std::erase_if(all, [](const Step& step) { return !step.isInSample; });
    }
    return all;
}

void PowerCuts::record(const DiskImage& image) {
    const RecordedDisk recorded(image, record_);
    MountedDisk disk(fileSystem_, recorded.path());
    disk.show();
    helper_ = std::make_unique<RunningHelper>(RunningHelper::Start{.program = program_});
    std::uint64_t marks = 0;
    std::vector<std::string> kept;
    for (const auto& step : steps()) {
        if (step.prepare) {
            record_.mark(0);
            step.prepare();
        }
        MountedDisk::sync();
        Stage stage{.step = step.name, .before = writtenTree(), .after = {}, .kept = {}};
        if (!step.kept.empty()) {
            kept.push_back(step.kept);
        }
        record_.mark(++marks);
        step.act();
        record_.mark(++marks);
        stage.after = writtenTree();
        stage.kept = kept;
        rulesOf_[valueIn(stage.after, storePath)].insert(listedRules());
        figures_.cutsOf.push_back({.request = step.name, .changes = stage.before != stage.after});
        stages_.push_back(std::move(stage));
        ++figures_.requests;
    }
    first_.reset();
    second_.reset();
    helper_.reset();
}

/// Goes through what lies between two flushes, one after the other.
void PowerCuts::replay(DiskImage& image) {
    const auto events = record_.events();
    std::vector<const DiskEvent*> writes;  // since the last flush
    std::vector<std::uint64_t> marks{0};   // after so many of these writes, the last mark
    for (const auto& event : events) {
        switch (event.kind) {
            case DiskEvent::Kind::mark:
                if (event.offset == 0) {
                    cutIn(image, writes, marks);
                }
                marks.back() = event.offset;
                if (isAnswer(event.offset)) {
                    cutIn(image, writes, marks);  // also if nobody writes before the next begins
                }
                break;
            case DiskEvent::Kind::write:
                ++figures_.writes;
                writes.push_back(&event);
                marks.push_back(marks.back());
                break;
            case DiskEvent::Kind::flush:
                ++figures_.flushes;
                cutIn(image, writes, marks);
                for (const auto* const write : writes) {
                    image.write(*write);
                }
                if (!writes.empty()) {
                    flushed_ = std::exchange(full_, std::nullopt);
                }
                writes.clear();
                marks = {marks.back()};
                if (marks.back() == 2 * stages_.size()) {
                    return;  // the rest is the end of the recording
                }
        }
    }
    cutIn(image, writes, marks);
}

/// Cuts after each of the writes; and after the last one, when the disk may have kept any of them.
void PowerCuts::cutIn(
    DiskImage& image,
    const std::vector<const DiskEvent*>& writes,
    const std::vector<std::uint64_t>& marks) {
    full_.reset();
    if (marks.back() == 0) {
        return;  // others write
    }
    std::vector<const DiskEvent*> chosen;
    for (std::size_t count = 0; count <= writes.size(); ++count) {
        chosen.assign(writes.begin(), writes.begin() + static_cast<std::ptrdiff_t>(count));
        if (marks[count] != 0 && (count % plan_.step == 0 || count == writes.size())) {
            judge(image, chosen, marks[count]);
        }
    }
    if (writes.empty()) {
        return;
    }
    full_ = seen_;  // the last prefix was all of it
    judge(image, {}, marks.back());
    if (writes.size() == 1) {
        return;
    }
    for (std::size_t place = 0; place < writes.size(); place += plan_.step) {
        judge(image, {writes[place]}, marks.back());
        chosen = writes;
        chosen.erase(chosen.begin() + static_cast<std::ptrdiff_t>(place));
        judge(image, chosen, marks.back());
    }
    for (std::size_t subset = 0; writes.size() > 2 && subset < plan_.randomSubsets; ++subset) {
        chosen.clear();
        std::ranges::copy_if(
            writes, std::back_inserter(chosen), [&](const auto*) { return random_() % 2 == 0; });
        judge(image, chosen, marks.back());
    }
}

void PowerCuts::judge(
    const DiskImage& image, const std::vector<const DiskEvent*>& kept, std::uint64_t marks) {
    ++figures_.cuts;
    where_ = std::string(fileSystem_.name) + ", cut " + std::to_string(figures_.cuts) + ", " +
             stages_.at(stepOf(marks)).step + (isAnswer(marks) ? " answered" : " begun");
    auto& cuts = figures_.cutsOf.at(stepOf(marks));
    ++(isAnswer(marks) ? cuts.answered : cuts.begun);
    try {
        if (kept.empty() && flushed_) {
            judgeTree(*flushed_, marks);
            return;
        }
        seen_.reset();
        seen_ = treeOn(image, kept);
        if (kept.empty()) {
            flushed_ = seen_;
        }
        judgeTree(*seen_, marks);
    } catch (const std::exception& error) {
        violated(error.what());
    }
}

/// The files that the cut leaves. Has a helper start where there are such files for the first time.
Tree PowerCuts::treeOn(const DiskImage& image, const std::vector<const DiskEvent*>& kept) {
    ++figures_.disks;
    left_->become(image, kept);
    MountedDisk disk(fileSystem_, left_->path());
    auto tree = writtenTree();
    if (known_.insert(tree).second) {
        ++figures_.trees;
        disk.show();
        judgeHelper(tree);
    }
    return tree;
}

/// Each file is the old one or the new one; the new one if success has been replied.
void PowerCuts::judgeTree(const Tree& tree, std::uint64_t marks) {
    const auto& stage = stages_.at(stepOf(marks));
    const bool isAnswered = isAnswer(marks);
    std::set<std::string> paths;
    for (const auto* const one : {&stage.before, &stage.after, &tree}) {
        std::ranges::transform(
            *one, std::inserter(paths, paths.end()), [](const auto& entry) { return entry.first; });
    }
    for (const auto& path : paths) {
        const auto value = valueIn(tree, path);
        const bool isNew = value == valueIn(stage.after, path);
        const bool isOld = !isAnswered && value == valueIn(stage.before, path);
        if (!isNew && !isOld) {
            violated(path + " is neither the old nor the new: " + value.substr(0, 60));
        }
    }
    for (const auto& content : stage.kept) {
        if (std::ranges::none_of(
                tree, [&](const auto& entry) { return entry.second.ends_with("\n" + content); })) {
            violated("nowhere kept: " + content);
        }
    }
}

/// A helper that starts there enforces what is stored, and serves.
void PowerCuts::judgeHelper(const Tree& tree) {
    flushRules();
    {
        const RunningHelper helper(RunningHelper::Start{.program = program_});
        ServiceClient client(lab_.client);
        if (client.call("HelperVersion") != Texts{helperVersion()}) {
            violated("a helper serves nobody");
        }
    }
    const auto store = valueIn(tree, storePath);
    const auto rules = listedRules();
    if (store == absent || store.ends_with(damagedStore)) {
        if (!rules.empty()) {
            violated("without a list, there are rules in force");
        }
    } else if (!rulesOf_[store].contains(rules)) {
        violated("a helper doesn't enforce what is stored");
    }
}

void PowerCuts::violated(const std::string& what) {
    figures_.violations.push_back(where_ + ": " + what);
}

PowerCutFigures PowerCuts::run() {
    DiskImage image(makeFileSystem(fileSystem_));
    {
        // What is there before the helper comes is recorded, too, but nothing is cut in it.
        const RecordedDisk recorded(image, record_);
        const MountedDisk disk(fileSystem_, recorded.path());
        for (const auto& [folder, name] : folders) {
            fs::create_directories(folder);
            const auto copied = tarnvale::test::run(
                {"/bin/cp", "-a", folder, std::string(mountPoint) + "/" + name});
            if (copied.status != 0) {
                throw std::runtime_error("cp: " + copied.error);
            }
        }
    }
    for (const auto& event : record_.events()) {
        image.write(event);
    }
    record_ = DiskRecord();
    record(image);
    left_ = std::make_unique<ReplayedDisk>(image.size());
    replay(image);
    return std::move(figures_);
}

constexpr const char* moreRights = "run it as root, or in a container with --privileged";

/// What gives the machine what it lacks by that error; nothing for any other failure.
std::optional<std::string> helpAgainst(int error, const FileSystem& fileSystem) {
    switch (error) {
        case EACCES:
        case EPERM:
            return moreRights;
        case ENODEV:
        case ENOENT:
        case ENXIO:
            return std::string("load the kernel's modules loop, fuse and ") + fileSystem.name;
        default:
            return std::nullopt;
    }
}

}  // namespace

const std::vector<FileSystem>& allFileSystems() {
    static const std::vector<FileSystem> all = {
        {.name = "ext4",
         .make =
             {"/sbin/mkfs.ext4",
              "-q",
              "-F",
              "-b",
              "4096",
              "-J",
              "size=4",
              "-E",
              "lazy_itable_init=0,lazy_journal_init=0"},
         // Without its guesses at what a program has meant to make durable.
         .options = "noauto_da_alloc,commit=1",
         .mebibytes = 32},
        {.name = "xfs", .make = {"/sbin/mkfs.xfs", "-q", "-f"}, .options = "", .mebibytes = 320},
        {.name = "btrfs",
         .make = {"/sbin/mkfs.btrfs", "-q", "-f"},
         .options = "nodiscard,commit=1",
         .mebibytes = 128}};
    return all;
}

std::optional<std::string> lackOf(const FileSystem& fileSystem) {
    if (auto lack = lackOf(Ability::mounts)) {
        return lack;
    }
    if (ground() != Ground::namespaces) {
        return std::string("loop devices need root (") + moreRights + ")";
    }
    if (const auto& program = fileSystem.make.front(); !fs::exists(program)) {
        return "there is no " + program + " here (install it)";
    }
    try {
        const DiskImage image(makeFileSystem(fileSystem));
        const DiskRecord record;
        const RecordedDisk recorded(image, record);
        const MountedDisk disk(fileSystem, recorded.path());
        return std::nullopt;
    } catch (const std::system_error& error) {
        const auto help = helpAgainst(error.code().value(), fileSystem);
        if (!help) {
            throw;
        }
        return std::string(fileSystem.name) + " on a recorded disk: " + error.what() + " (" +
               *help + ")";
    }
}

std::vector<std::string> missingIn(const PowerCutFigures& figures) {
    std::vector<Tally> tallies = {
        {figures.requests, "request"},
        {figures.writes, "write"},
        {figures.flushes, "flush"},
        {figures.cuts, "cut"},
        {figures.trees, "start of a helper"}};
    for (const auto& [request, changes, begun, answered] : figures.cutsOf) {
        if (changes) {
            tallies.push_back({begun, "cut during " + request});
        }
        tallies.push_back({answered, "cut behind the reply to " + request});
    }
    return missingIn(tallies);
}

PowerCutFigures cutPower(const FileSystem& fileSystem, const PowerCutPlan& plan) {
    return PowerCuts(fileSystem, plan).run();
}

}  // namespace tarnvale::test
