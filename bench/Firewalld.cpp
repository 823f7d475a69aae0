// SPDX-License-Identifier: MIT

#include "bench/Firewalld.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* programPath = "/usr/sbin/firewalld";
constexpr const char* unpackedPath = TARNVALE_SOURCE_DIR "/build/firewalld";
constexpr const char* zonesPath = "/etc/firewalld/zones";

constexpr const char* busName = "org.fedoraproject.FirewallD1";
constexpr const char* objectPath = "/org/fedoraproject/FirewallD1";
constexpr const char* zoneInterface = "org.fedoraproject.FirewallD1.zone";
constexpr const char* configPath = "/org/fedoraproject/FirewallD1/config";
constexpr const char* configInterface = "org.fedoraproject.FirewallD1.config";
constexpr const char* configZoneInterface = "org.fedoraproject.FirewallD1.config.zone";

constexpr const char* changedZone = "network0";
constexpr const char* runtimeRule =
    R"(rule family="ipv4" source address="10.9.8.0/24" port port="443" protocol="tcp" accept)";
constexpr const char* storedRule =
    R"(rule family="ipv4" source address="10.9.7.0/24" port port="443" protocol="tcp" accept)";

constexpr std::uint64_t callTimeout = 300'000'000;  ///< microseconds: a reload takes its time
constexpr auto startTimeout = 300s;

/// Moves what scripts/setup has unpacked to where it would be installed: this is a private root.
void install() {
    if (!fs::exists(programPath)) {
        fs::copy(
            unpackedPath, "/", fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    }
}

std::string zoneName(std::size_t number) {
    return "network" + std::to_string(number);
}

std::string zoneText(std::size_t number, std::size_t rules) {
    std::string text = R"(<?xml version="1.0" encoding="utf-8"?>)"
                       "\n<zone><short>" +
                       zoneName(number) + R"(</short><source address="192.168.)" +
                       std::to_string(number) + R"(.0/24"/>)";
    for (std::size_t rule = 0; rule < rules; ++rule) {
        text += R"(<rule family="ipv4"><source address="172.16.)" + std::to_string(rule) +
                R"(.0/24"/><port port=")" + std::to_string(1000 + rule) + R"(" protocol=")" +
                (rule % 2 == 0 ? "tcp" : "udp") + R"("/>)" +
                (rule % 3 == 0 ? "<drop/>" : "<accept/>") + "</rule>";
    }
    return text + "</zone>\n";
}

void configure(std::size_t zones, std::size_t rules) {
    fs::remove_all(zonesPath);
    fs::create_directories(zonesPath);
    for (std::size_t zone = 0; zone < zones; ++zone) {
        std::ofstream(std::string(zonesPath) + "/" + zoneName(zone) + ".xml")
            << zoneText(zone, rules);
    }
}

void check(int result, const sd_bus_error& error, const char* step) {
    if (result < 0) {
        throw std::runtime_error(
            std::string("firewalld, ") + step + ": " +
            (error.message != nullptr ? error.message : std::strerror(-result)));
    }
}

/// The error of a call, which it owns.
class CallError {
public:
    CallError() = default;
    CallError(const CallError&) = delete;
    CallError& operator=(const CallError&) = delete;
    ~CallError() { ::sd_bus_error_free(&error_); }
    sd_bus_error* get() { return &error_; }

private:
    sd_bus_error error_{};
};

struct FreeMessage {
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, FreeMessage>;

template <class... Arguments>
Message call(
    sd_bus* bus,
    const char* path,
    const char* interface,
    const char* method,
    const char* types,
    Arguments... arguments) {
    CallError error;
    sd_bus_message* reply = nullptr;
    const int result = ::sd_bus_call_method(
        bus, busName, path, interface, method, error.get(), &reply, types, arguments...);
    check(result, *error.get(), method);
    return Message(reply);
}

}  // namespace

std::optional<std::string> lackOfFirewalld() {
    if (!fs::exists(programPath) && !fs::exists(std::string(unpackedPath) + programPath)) {
        return "firewalld isn't there; scripts/bench --with-firewalld fetches it";
    }
    if (!fs::exists(MessageBus::daemonPath)) {
        return std::string(MessageBus::daemonPath) + " isn't there";
    }
    return std::nullopt;
}

Firewalld::Firewalld(std::size_t zones, std::size_t rules)
    : program_(
          (install(), configure(zones, rules), std::vector<std::string>{programPath, "--nofork"}),
          {{MessageBus::addressVariable, bus_.address()}}) {
    connect();
    awaitRunning();
    requireRules(zones, rules);
    const Message reply =
        call(connection_.get(), configPath, configInterface, "getZoneByName", "s", changedZone);
    const char* path = nullptr;
    check(::sd_bus_message_read(reply.get(), "o", &path), {}, "getZoneByName");
    zonePath_ = path;
}

Firewalld::~Firewalld() {
    program_.end();
}

void Firewalld::connect() {
    sd_bus* bus = nullptr;
    check(::sd_bus_new(&bus), {}, "sd_bus_new");
    connection_.reset(bus);
    check(::sd_bus_set_address(bus, bus_.address().c_str()), {}, "sd_bus_set_address");
    check(::sd_bus_set_bus_client(bus, 1), {}, "sd_bus_set_bus_client");
    check(::sd_bus_start(bus), {}, "sd_bus_start");
    check(::sd_bus_set_method_call_timeout(bus, callTimeout), {}, "set a timeout");
}

/// It has its name on the bus before it reads its configuration, and answers afterwards.
void Firewalld::awaitRunning() {
    const auto deadline = std::chrono::steady_clock::now() + startTimeout;
    std::string state;
    while (state != "RUNNING") {
        program_.requireRunning();
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("firewalld doesn't get ready: " + state);
        }
        CallError error;
        char* text = nullptr;
        if (::sd_bus_get_property_string(
                connection_.get(), busName, objectPath, busName, "state", error.get(), &text) < 0) {
            std::this_thread::sleep_for(20ms);
            continue;
        }
        state = text;
        std::free(text);
        if (state == "FAILED") {
            throw std::runtime_error("firewalld can't enforce its configuration");
        }
    }
}

void Firewalld::requireRules(std::size_t zones, std::size_t rules) {
    for (std::size_t zone = 0; zone < zones; ++zone) {
        const Message reply = call(
            connection_.get(),
            objectPath,
            zoneInterface,
            "getRichRules",
            "s",
            zoneName(zone).c_str());
        check(::sd_bus_message_enter_container(reply.get(), 'a', "s"), {}, "getRichRules");
        std::size_t count = 0;
        while (::sd_bus_message_skip(reply.get(), "s") > 0) {
            ++count;
        }
        if (count != rules) {
            throw std::runtime_error(
                "firewalld enforces " + std::to_string(count) + " rules of " + zoneName(zone));
        }
    }
}

void Firewalld::changeRuntimeRule(const char* rule, bool add) {
    if (add) {
        call(
            connection_.get(),
            objectPath,
            zoneInterface,
            "addRichRule",
            "ssi",
            changedZone,
            rule,
            0);
    } else {
        call(
            connection_.get(),
            objectPath,
            zoneInterface,
            "removeRichRule",
            "ss",
            changedZone,
            rule);
    }
}

void Firewalld::changePermanentRule(const char* rule, bool add) {
    call(
        connection_.get(),
        zonePath_.c_str(),
        configZoneInterface,
        add ? "addRichRule" : "removeRichRule",
        "s",
        rule);
}

double Firewalld::changeRule() {
    hasRule_ = !hasRule_;
    return microseconds([this] { changeRuntimeRule(runtimeRule, hasRule_); });
}

double Firewalld::changeStoredRule() {
    hasStoredRule_ = !hasStoredRule_;
    return microseconds([this] {
        changeRuntimeRule(storedRule, hasStoredRule_);
        changePermanentRule(storedRule, hasStoredRule_);
    });
}

double Firewalld::reload(std::size_t zones, std::size_t rules) {
    configure(zones, rules);
    hasRule_ = false;
    hasStoredRule_ = false;
    return microseconds([this] { call(connection_.get(), objectPath, busName, "reload", ""); });
}

}  // namespace tarnvale::bench
