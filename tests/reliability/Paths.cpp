// SPDX-License-Identifier: MIT

#include "tests/reliability/Paths.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <system_error>

#include "tests/support/HelperFiles.h"
#include "tests/support/Pattern.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* rulesInForce = "rules";
constexpr const char* pfctlsFolder = "/run/com.brackwen.tarnvale.pfctl";
constexpr const char* enabledPath = "/run/com.brackwen.tarnvale.pfctl/enabled";
constexpr const char* damagedStore = "{ broken off";
constexpr const char* pfConfPath = "/etc/pf.conf";
constexpr const char* oldPfConf = "anchor \"com.tarnvale.firewall\"\nset skip on lo0\n";
constexpr const char* oldPfConfKey = "the old pf.conf";
constexpr const char* legacyAnchorPath = "/etc/pf.anchors/com.tarnvale.firewall";

std::vector<NetworkText> oneNetwork() {
    return {{.number = 64}};
}

std::vector<NetworkText> twoNetworks() {
    return {{.number = 64}, {.number = 65, .name = "Farm"}};
}

Texts expectSuccess(Texts reply, const std::string& method) {
    if (!isSuccess(reply)) {
        throw std::runtime_error(method + " failed undisturbed: " + reply.front());
    }
    return reply;
}

/// From here on nobody has a list, and no rules are in force.
void removeLists(ServiceClient& client) {
    fs::remove(storePath);
    expectSuccess(client.call("RemoveFirewall"), "RemoveFirewall");
}

/// From here on nobody else has a list.
void applyList(ServiceClient& client, const std::vector<NetworkText>& networks) {
    fs::remove(storePath);
    expectSuccess(client.call("ApplyFirewall", "ay", {policyText(networks)}), "ApplyFirewall");
}

/// The same, but for a list of an administrator's.
void applyListBesideAnother(ServiceClient& client) {
    const NetworkText farm{.number = 65, .name = "Farm"};
    put(storePath, storeText({{.key = std::to_string(administrator), .networks = {farm}}}));
    expectSuccess(client.call("ApplyFirewall", "ay", {policyText(oneNetwork())}), "ApplyFirewall");
}

/// The store has a list, which is not in force.
void forgetRules(ServiceClient& client) {
    applyList(client, oneNetwork());
    flushRules();
}

/// The same after the machine has been started anew.
void forgetRulesAndPf(ServiceClient& client) {
    forgetRules(client);
    fs::remove_all(pfctlsFolder);
}

/// As on a machine on which the helper has just been installed.
void removeEverything(ServiceClient& client) {
    removeLists(client);
    fs::remove_all(supportFolder);
    fs::remove_all(pfctlsFolder);
}

/// A list is in force, but can't be read any more.
void damageStore(ServiceClient& client) {
    applyList(client, oneNetwork());
    fs::remove(storePath + ".unreadable");
    put(storePath, damagedStore);
}

/// What an older version of the application left.
void layOutLegacyFiles(ServiceClient& client) {
    removeLists(client);
    fs::remove(backupPath);
    put(pfConfPath, oldPfConf);
    put(legacyAnchorPath, "pass\n");
}

void setResolver(ServiceClient& client, const std::string& enabled) {
    expectSuccess(client.call("SetTarnvaleResolver", "b", {enabled}), "SetTarnvaleResolver");
}

constexpr std::array currentLinks = {"/usr/local/bin/tarnvale", "/usr/local/bin/tvx"};
constexpr const char* legacyLink = "/usr/local/bin/tx";
constexpr const char* vlan = "/sys/class/net/vlan0";

void installLinks(ServiceClient& client) {
    expectSuccess(client.call("InstallCLISymlink"), "InstallCLISymlink");
}

/// Leaves none but one that the application once made.
void removeLinks(ServiceClient& client) {
    expectSuccess(client.call("RemoveCLISymlink"), "RemoveCLISymlink");
    fs::create_directories(fs::path(legacyLink).parent_path());
    fs::create_symlink("/Applications/Tarnvale.app/Contents/Helpers/tx", legacyLink);
}

/// Whoever made it, and whether that is recorded or not.
void removeVLAN() {
    if (exists(vlan) && run({"/sbin/ip", "link", "delete", "dev", "vlan0"}).status != 0) {
        throw std::runtime_error("vlan0 can't be deleted");
    }
    fs::remove(vlanRecordPath);
}

Texts vlanArguments() {
    return {"Office", "5", "en0"};
}

void createVLAN(ServiceClient& client) {
    removeVLAN();
    expectSuccess(client.call("CreateVLAN", "sxs", vlanArguments()), "CreateVLAN");
}

std::string targetOf(const char* link) {
    std::error_code none;
    const std::string target = fs::read_symlink(link, none);
    return none ? "absent" : target;
}

/// The file without the times in it.
std::string timelessContentOf(const std::string& path) {
    if (!exists(path)) {
        return "absent";
    }
    static const Pattern time("\"appliedAt\" : [0-9.]+|[0-9-]+T[0-9:]+Z");
    return time.replaceAll(contentOf(path), "TIME");
}

/// Where one of the files has this content.
std::string whereIs(std::string_view content, const std::vector<std::string>& paths) {
    const bool isThere = std::ranges::any_of(
        paths, [&](const auto& path) { return exists(path) && contentOf(path) == content; });
    return isThere ? "kept" : "lost";
}

/// The files under names that are given up when a file is whole.
std::vector<fs::path> temporaryFiles() {
    std::vector<fs::path> files;
    std::error_code none;
    for (const auto& folder :
         {supportFolder,
          std::string("/etc/resolver"),
          std::string("/etc"),
          std::string("/run"),
          std::string(pfctlsFolder)}) {
        for (const auto& entry : fs::directory_iterator(folder, none)) {
            static const Pattern name(
                R"(\..*\.[0-9a-f]{16}|enabled\.new|.*adminhelper\.socket\.[0-9]+)");
            if (name.matches(entry.path().filename())) {
                files.push_back(entry.path());
            }
        }
    }
    return files;
}

/// The VLAN itself, and whether it is one that only its maker may leave, or the next helper.
void putVLAN(MachineState& state) {
    const std::string folder = vlan;
    const bool isThere = exists(folder);
    const bool isWhole = isThere && contentOf(folder + "/netdev_group") == "0\n";
    state[vlan] =
        isWhole ? contentOf(folder + "/ifalias") + contentOf(folder + "/flags") : "absent";
    state[unfinishedVLAN] = isThere && !isWhole ? "there" : "";
}

std::vector<Path> pathsOfStart() {
    // The first allocation of a program is the C++ library's reserve for exceptions. Without that,
    // the library itself ends the program where there is no memory for one.
    constexpr std::uint64_t ownStart = 2;
    return {
        {.name = "start",
         .prepare = forgetRules,
         .method = "HelperVersion",
         .isStart = true,
         .bestEffort = {rulesInForce},
         .firstPoint = ownStart},
        {.name = "start-damaged",
         .prepare = damageStore,
         .method = "HelperVersion",
         .isStart = true,
         .firstPoint = ownStart},
        {.name = "reapply",
         .prepare = forgetRulesAndPf,
         .isReapply = true,
         .bestEffort = {rulesInForce, "pf"},
         .firstPoint = ownStart}};
}

/// They change nothing, but for the firsts of their kind.
std::vector<Path> pathsOfConnections() {
    return {
        {.name = "first-connection",
         .prepare = [](ServiceClient&) {},
         .method = "HelperVersion",
         .isFirstRequest = true},
        {.name = "first-apply",
         .prepare = [](ServiceClient&) {},
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(oneNetwork())},
         .isFirstRequest = true},
        versionRequest(),
        {.name = "connection",
         .prepare = [](ServiceClient&) {},
         .method = "HelperVersion",
         .isFirstOfClient = true},
        {.name = "misfit",
         .prepare = [](ServiceClient&) {},
         .method = "HelperVersion",
         .types = "s",
         .arguments = {"which"},
         .isFirstOfClient = true},
        {.name = "report", .prepare = [](ServiceClient&) {}, .method = "FirewallReport"}};
}

std::vector<Path> pathsOfFirewall() {
    return {
        {.name = "apply-fresh",
         .prepare = removeEverything,
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(oneNetwork())},
         .bestEffort = {"pf"}},
        {.name = "apply-new",
         .prepare = removeLists,
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(oneNetwork())}},
        {.name = "apply-changed",
         .prepare = [](ServiceClient& client) { applyList(client, oneNetwork()); },
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(twoNetworks())}},
        {.name = "apply-same",
         .prepare = [](ServiceClient& client) { applyList(client, oneNetwork()); },
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(oneNetwork())}},
        {.name = "apply-damaged",
         .prepare = damageStore,
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(twoNetworks())}},
        {.name = "clean-up",
         .prepare = layOutLegacyFiles,
         .method = "ApplyFirewall",
         .types = "ay",
         .arguments = {policyText(oneNetwork())},
         .bestEffort = {pfConfPath, backupPath, legacyAnchorPath, oldPfConfKey},
         .mayLose = {oldPfConfKey}},
        {.name = "remove-one", .prepare = applyListBesideAnother, .method = "RemoveFirewall"},
        {.name = "remove-last",
         .prepare = [](ServiceClient& client) { applyList(client, oneNetwork()); },
         .method = "RemoveFirewall",
         .bestEffort = {rulesInForce, storePath}},
        {.name = "remove-damaged",
         .prepare = damageStore,
         .method = "RemoveFirewall",
         .bestEffort = {rulesInForce, storePath}}};
}

std::vector<Path> otherPaths() {
    return {
        {.name = "links-on",
         .prepare = removeLinks,
         .method = "InstallCLISymlink",
         .bestEffort = {legacyLink}},
        {.name = "links-off", .prepare = installLinks, .method = "RemoveCLISymlink"},
        {.name = "resolver-on",
         .prepare = [](ServiceClient& client) { setResolver(client, "false"); },
         .method = "SetTarnvaleResolver",
         .types = "b",
         .arguments = {"true"}},
        {.name = "resolver-off",
         .prepare = [](ServiceClient& client) { setResolver(client, "true"); },
         .method = "SetTarnvaleResolver",
         .types = "b",
         .arguments = {"false"}},
        {.name = "vlan-create",
         .prepare = [](ServiceClient&) { removeVLAN(); },
         .method = "CreateVLAN",
         .types = "sxs",
         .arguments = vlanArguments(),
         .bestEffort = {vlanRecordPath},
         .doneOnce = vlan,
         .mayLag = {vlanRecordPath},
         .needsVLANs = true},
        {.name = "vlan-delete",
         .prepare = createVLAN,
         .method = "DeleteVLAN",
         .types = "s",
         .arguments = {"vlan0"},
         .bestEffort = {vlanRecordPath},
         .doneOnce = vlan,
         .mayLag = {vlanRecordPath},
         .needsVLANs = true}};
}

}  // namespace

MachineState machineState() {
    MachineState state;
    for (const auto& path :
         {storePath,
          vlanRecordPath,
          backupPath,
          std::string(pfConfPath),
          std::string(legacyAnchorPath),
          std::string("/etc/resolver/tvx"),
          std::string("/etc/resolver/tarnvale")}) {
        state[path] = timelessContentOf(path);
    }
    state[rulesInForce] = listedRules();
    for (const char* const link : currentLinks) {
        state[link] = targetOf(link);
    }
    state[legacyLink] = targetOf(legacyLink);
    putVLAN(state);
    state["pf"] = exists(enabledPath) ? "enabled" : "disabled";
    state["what could not be read"] = whereIs(damagedStore, {storePath, storePath + ".unreadable"});
    state[oldPfConfKey] = whereIs(oldPfConf, {pfConfPath, backupPath});
    state["left over"];
    for (const auto& file : temporaryFiles()) {
        state["left over"] += file.string() + " ";
    }
    return state;
}

bool contradicts(const MachineState& now, const MachineState& known) {
    const auto& store = now.at(storePath);
    return store != "absent" && store != damagedStore && store == known.at(storePath) &&
           now.at(rulesInForce) != known.at(rulesInForce);
}

void removeTemporaryFiles() {
    for (const auto& file : temporaryFiles()) {
        fs::remove(file);
    }
}

const Path& versionRequest() {
    static const Path request = {
        .name = "version", .prepare = [](ServiceClient&) {}, .method = "HelperVersion"};
    return request;
}

bool hasVLANs() {
    return exists("/proc/net/vlan") && exists("/sys/class/net/en0");
}

const std::vector<Path>& allPaths() {
    static const auto paths = [] {
        auto joined = pathsOfStart();
        for (auto&& more : {pathsOfConnections(), pathsOfFirewall(), otherPaths()}) {
            joined.insert(joined.end(), more.begin(), more.end());
        }
        return joined;
    }();
    return paths;
}

const Path& pathNamed(std::string_view name) {
    // By the text of the name: whether equal literals share an address is up to the compiler.
    return *std::ranges::find_if(allPaths(), [&](const Path& path) { return path.name == name; });
}

std::optional<Texts> callInTime(
    ServiceClient& client, const Path& path, std::chrono::seconds limit) {
    auto reply = std::async(std::launch::async, [&]() -> std::optional<Texts> {
        try {
            return client.call(path.method, path.types, path.arguments);
        } catch (const std::exception&) {
            return std::nullopt;  // it was killed
        }
    });
    if (reply.wait_for(limit) != std::future_status::ready) {
        client.signal(SIGKILL);
    }
    return reply.get();
}

bool isSuccess(const Texts& reply) {
    static const Texts misfit = {"error", "org.freedesktop.DBus.Error.InvalidArgs"};
    return reply.back() == "nil" || reply == Texts{helperVersion()} || reply == misfit;
}

}  // namespace tarnvale::test
