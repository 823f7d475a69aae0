// SPDX-License-Identifier: MIT

#include <filesystem>
#include <stdexcept>

#include "tests/demo/Network.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

/// The network at home, which the machine itself is on.
constexpr const char* printerLink =
    "link add printer type veth peer name socket\n"
    "address add 192.168.1.1/24 dev printer\n"
    "link set printer up\n"
    "link set socket up\n";

class PacketNetwork final : public Network {
public:
    PacketNetwork() {
        const Finished ip = run({"/sbin/ip", "-batch", "-"}, printerLink);
        if (ip.status != 0) {
            throw std::runtime_error("ip: " + ip.error);
        }
        std::filesystem::copy_file(
            TARNVALE_BIN_DIR "/pfctl",
            "/sbin/pfctl",
            std::filesystem::copy_options::overwrite_existing);
    }

    std::vector<Outcome> outcomes(
        const std::vector<Exchange>& exchanges, const std::vector<bool>& answersExpected) override {
        return lab_.run(exchanges, answersExpected);
    }

    RefusedNetwork refusedNetwork() override {
        return {
            .introduction =
                "A network that the machine itself is on (192.168.1.0/24, with the "
                "printer) is refused:",
            .policies = "examples/home.json",
            .refusal =
                "Home: 192.168.1.0/24 overlaps printer (192.168.1.1), one of this Mac's own "
                "networks; rules there would cut the Mac off from it."};
    }

    std::string caveat() override { return {}; }

private:
    NetworkLab lab_;
};

}  // namespace

std::unique_ptr<Network> makePacketNetwork() {
    if (lackOf(Ability::interfaces)) {
        throw LabUnavailable("the sandbox has no network of its own");
    }
    requirePacketFilter();
    return std::make_unique<PacketNetwork>();
}

}  // namespace tarnvale::test
