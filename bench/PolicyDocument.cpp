// SPDX-License-Identifier: MIT

#include "bench/PolicyDocument.h"

#include <array>
#include <random>
#include <string_view>

#include "support/Uuid.h"

namespace tarnvale::bench {

namespace {

class Writer {
public:
    std::string document(std::size_t networks, std::size_t rules) {
        text_ = "[";
        for (std::size_t i = 0; i < networks; ++i) {
            text_ += i > 0 ? "," : "";
            network(i, rules);
        }
        return text_ + "]";
    }

private:
    void network(std::size_t number, std::size_t rules) {
        // Blocks of four addresses, of which there are 16,384.
        const std::string address = "192.168." + std::to_string(number / 64 % 256) + ".";
        const std::size_t host = number % 64 * 4;
        text_ += R"({"networkID":")" + uuid() + R"(","name":"Büro )" + std::to_string(number) +
                 R"(","subnetCIDR":")" + address + std::to_string(host) +
                 R"(\/30","gatewayIPv4":")" + address + std::to_string(host + 1) +
                 R"(","dnsProxyEnabled":true,"policy":{"enabled":true,"defaultInbound":"deny",)"
                 R"("defaultOutbound":"allow","rules":[)";
        for (std::size_t i = 0; i < rules; ++i) {
            text_ += i > 0 ? "," : "";
            rule();
        }
        text_ += "]}}";
    }

    void rule() {
        static constexpr std::array<std::string_view, 4> protos{"any", "tcp", "udp", "icmp"};
        const std::size_t proto = below(4);
        text_ += R"({"id":")" + uuid() + R"(","enabled":)" + (below(10) > 0 ? "true" : "false") +
                 R"(,"direction":")" + (below(2) > 0 ? "inbound" : "outbound") + R"(","action":")" +
                 (below(2) > 0 ? "allow" : "deny") + R"(","proto":")";
        text_.append(protos.at(proto)).append(R"(","remoteCIDR":")");
        if (below(4) == 0) {
            text_ += "any";
        } else {
            text_ += std::to_string(below(223) + 1) + "." + std::to_string(below(256)) + "." +
                     std::to_string(below(256)) + R"(.0\/24)";
        }
        text_ += R"(","ports":")";
        if (proto < 3 && below(4) > 0) {
            const std::size_t port = below(60'000) + 1;
            text_ += std::to_string(port);
            if (below(4) == 0) {
                text_ += "-" + std::to_string(port + 100);
            }
        }
        text_ += R"("})";
    }

    std::string uuid() {
        support::Uuid uuid;
        for (auto& byte : uuid.bytes) {
            byte = static_cast<std::uint8_t>(below(256));
        }
        return uuid.text();
    }

    /// The same numbers on every machine, unlike the standard distributions.
    std::size_t below(std::size_t bound) { return random_() % bound; }

    std::mt19937_64 random_{1};  // NOLINT(cert-msc51-cpp): every document is the same
    std::string text_;
};

}  // namespace

std::string policyDocument(std::size_t networks, std::size_t rules) {
    return Writer().document(networks, rules);
}

std::string changedDocument(std::string document, bool everywhere) {
    const std::string_view before = R"("defaultOutbound":"allow")";
    const std::string_view after = R"("defaultOutbound":"deny")";
    std::size_t at = document.find(before);
    while (at != std::string::npos) {
        document.replace(at, before.size(), after);
        at = everywhere ? document.find(before, at) : std::string::npos;
    }
    return document;
}

}  // namespace tarnvale::bench
