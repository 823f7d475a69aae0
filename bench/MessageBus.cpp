// SPDX-License-Identifier: MIT

#include "bench/MessageBus.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/UnixSockets.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* socketPath = "/tmp/bus";
constexpr const char* busAddress = "unix:path=/tmp/bus";
constexpr const char* servicesPath = "/tmp/bus-services";
constexpr const char* configurationPath = "/tmp/bus.conf";

/// The path of the bus's configuration, which is written here.
std::string configure(const std::vector<MessageBus::Service>& services) {
    fs::create_directory(servicesPath);
    for (std::size_t i = 0; i < services.size(); ++i) {
        std::ofstream(std::string(servicesPath) + "/" + std::to_string(i) + ".service")
            << "[D-BUS Service]\nName=" << services[i].name << "\nExec=" << services[i].command
            << "\n";
    }
    std::ofstream(configurationPath)
        << "<busconfig><type>session</type><listen>" << busAddress << "</listen>"
        << "<servicedir>" << servicesPath << "</servicedir><policy context=\"default\">"
        << "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
        << "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    return configurationPath;
}

}  // namespace

MessageBus::MessageBus(const std::vector<Service>& services)
    : daemon_(
          {daemonPath, "--nofork", "--config-file=" + configure(services)},
          {{addressVariable, busAddress}}) {
    while (!test::connectTo(socketPath)) {
        daemon_.requireRunning();
        std::this_thread::sleep_for(1ms);
    }
}

std::string MessageBus::address() const {
    return busAddress;
}

}  // namespace tarnvale::bench
