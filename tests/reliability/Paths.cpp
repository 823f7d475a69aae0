// SPDX-License-Identifier: MIT

#include "tests/reliability/Paths.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <future>
#include <regex>
#include <stdexcept>
#include <system_error>

#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* rulesInForce = "rules";

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
    run({"/sbin/pfctl", "-a", "com.apple/900.tarnvale.firewall", "-F", "rules"});
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
    static const std::regex time("\"appliedAt\" : [0-9.]+|[0-9-]+T[0-9:]+Z");
    return std::regex_replace(contentOf(path), time, "TIME");
}

}  // namespace

MachineState machineState() {
    MachineState state;
    for (const auto& path :
         {storePath,
          vlanRecordPath,
          std::string("/etc/resolver/tvx"),
          std::string("/etc/resolver/tarnvale")}) {
        state[path] = timelessContentOf(path);
    }
    state[rulesInForce] = listedRules();
    for (const char* const link : currentLinks) {
        state[link] = targetOf(link);
    }
    state[legacyLink] = targetOf(legacyLink);
    state[vlan] = exists(vlan) ? contentOf(std::string(vlan) + "/ifalias") +
                                     contentOf(std::string(vlan) + "/flags")
                               : "absent";
    std::error_code none;
    for (const char* folder : {supportFolder.c_str(), "/etc/resolver"}) {
        for (const auto& entry : fs::directory_iterator(folder, none)) {
            const std::string name = entry.path().filename();
            if (name.starts_with('.')) {
                state["left over"] += name + " ";
            }
        }
    }
    return state;
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
    // The first allocation of a program is the C++ library's reserve for exceptions. Without that,
    // the library itself ends the program where there is no memory for one.
    constexpr std::uint64_t ownStart = 2;
    static const std::vector<Path> paths = {
        {.name = "start",
         .prepare = forgetRules,
         .method = "HelperVersion",
         .isStart = true,
         .bestEffort = {rulesInForce},
         .firstPoint = ownStart},
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
        {.name = "report", .prepare = [](ServiceClient&) {}, .method = "FirewallReport"},
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
        {.name = "remove-one", .prepare = applyListBesideAnother, .method = "RemoveFirewall"},
        {.name = "remove-last",
         .prepare = [](ServiceClient& client) { applyList(client, oneNetwork()); },
         .method = "RemoveFirewall",
         .bestEffort = {rulesInForce, storePath}},
        {.name = "links-on", .prepare = removeLinks, .method = "InstallCLISymlink"},
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
         .needsVLANs = true},
        {.name = "vlan-delete",
         .prepare = createVLAN,
         .method = "DeleteVLAN",
         .types = "s",
         .arguments = {"vlan0"},
         .bestEffort = {vlanRecordPath},
         .needsVLANs = true}};
    return paths;
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
