// SPDX-License-Identifier: MIT

#include "tests/reliability/Paths.h"

#include <algorithm>
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

void applyList(ServiceClient& client, const std::vector<NetworkText>& networks) {
    expectSuccess(client.call("ApplyFirewall", "ay", {policyText(networks)}), "ApplyFirewall");
}

void removeList(ServiceClient& client) {
    expectSuccess(client.call("RemoveFirewall"), "RemoveFirewall");
}

void setResolver(ServiceClient& client, const std::string& enabled) {
    expectSuccess(client.call("SetTarnvaleResolver", "b", {enabled}), "SetTarnvaleResolver");
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
         {storePath, std::string("/etc/resolver/tvx"), std::string("/etc/resolver/tarnvale")}) {
        state[path] = timelessContentOf(path);
    }
    state["rules"] = listedRules();
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

const std::vector<Path>& allPaths() {
    static const std::vector<Path> paths = {
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
         .prepare = [](ServiceClient& client) { removeList(client); },
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
        {.name = "remove-last",
         .prepare = [](ServiceClient& client) { applyList(client, oneNetwork()); },
         .method = "RemoveFirewall",
         .isBestEffort = true},
        {.name = "resolver-on",
         .prepare = [](ServiceClient& client) { setResolver(client, "false"); },
         .method = "SetTarnvaleResolver",
         .types = "b",
         .arguments = {"true"}},
        {.name = "resolver-off",
         .prepare = [](ServiceClient& client) { setResolver(client, "true"); },
         .method = "SetTarnvaleResolver",
         .types = "b",
         .arguments = {"false"}}};
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
