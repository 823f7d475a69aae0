// SPDX-License-Identifier: MIT

#include "helperctl/commands/Schema.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "support/Json.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

/// Documents of a policy's shape, with a fault here and there.
class Documents {
public:
    explicit Documents(std::uint32_t seed) : random_(seed) {}

    std::string next() {
        return maybe("[" + several([this] { return maybe(network(), "null"); }) + "]", "{}");
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }

    /// The value, or now and then a value of another kind.
    std::string maybe(std::string value, const char* other) {
        if (below(60) > 0) {
            return value;
        }
        const std::vector<std::string> others{
            other, "null", "1", "1.5", "true", "\"x\"", "[]", "{}"};
        return others[below(others.size())];
    }

    template <class Make>
    std::string several(const Make& make) {
        std::string list;
        for (std::size_t count = below(3); count > 0; --count) {
            list += (list.empty() ? "" : ",") + make();
        }
        return list;
    }

    /// The members in any order, now and then without one or with another.
    std::string object(std::vector<std::string> members) {
        std::shuffle(members.begin(), members.end(), random_);
        if (below(40) == 0) {
            members.pop_back();
        }
        if (below(10) == 0) {
            members.emplace_back(R"("comment":[1,{"a":null}])");
        }
        std::string list;
        for (const auto& member : members) {
            list += (list.empty() ? "" : ",") + member;
        }
        return "{" + list + "}";
    }

    std::string member(const char* key, std::string value, const char* other = "[]") {
        return std::string("\"") + key + "\":" + maybe(std::move(value), other);
    }

    std::string uuid() {
        std::string text = "\"6F0C2A51-8E0B-4C55-9c39-0D5B4C7E6401\"";
        switch (below(50)) {
            case 0:
                text[1 + below(36)] = "-gG \n"[below(4)];
                break;
            case 1:
                text.insert(1 + below(37), 1, '0');
                break;
            case 2:
                text.insert(37, "\\n");
                break;
            default:
                break;
        }
        return text;
    }

    std::string word(std::vector<std::string> words) {
        std::string chosen = words[below(words.size())];
        if (below(60) == 0) {
            chosen[0] = static_cast<char>(chosen[0] - 'a' + 'A');
        }
        return "\"" + chosen + "\"";
    }

    std::string boolean() { return below(2) == 0 ? "true" : "false"; }

    std::string text() {
        const std::vector<std::string> texts{
            "\"\"", "\"any\"", "\"10.0.0.0/8\"", "\"80-90\"", R"("B\u00fcro")", R"("\n")"};
        return texts[below(texts.size())];
    }

    std::string rule() {
        return object(
            {member("id", uuid()),
             member("enabled", boolean()),
             member("direction", word({"inbound", "outbound"})),
             member("action", word({"allow", "deny"})),
             member("proto", word({"any", "tcp", "udp", "icmp"})),
             member("remoteCIDR", text()),
             member("ports", text())});
    }

    std::string policy() {
        return object(
            {member("enabled", boolean()),
             member("defaultInbound", word({"allow", "deny"})),
             member("defaultOutbound", word({"allow", "deny"})),
             member("rules", "[" + several([this] { return maybe(rule(), "null"); }) + "]")});
    }

    std::string network() {
        return object(
            {member("networkID", uuid()),
             member("name", text()),
             member("subnetCIDR", text()),
             member("gatewayIPv4", below(3) == 0 ? "null" : text()),
             member("dnsProxyEnabled", boolean()),
             member("policy", policy())});
    }

    std::mt19937 random_;
};

bool isDecoded(const std::string& document) {
    try {
        NetworkFirewall::decodePolicies(document);
        return true;
    } catch (const support::JsonError&) {
        return false;
    }
}

TEST(SchemaTest, IsTheOneInTheDocumentation) {
    EXPECT_EQ(policySchema, test::contentOf(TARNVALE_SOURCE_DIR "/docs/policy.schema.json"));
}

TEST(SchemaTest, TakesTheExamples) {
    std::size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(TARNVALE_SOURCE_DIR "/examples")) {
        if (file.path().extension() == ".json") {
            auto document = test::contentOf(file.path());
            std::erase(document, '\n');
            EXPECT_EQ(test::judgedBySchema("policy", document), "yes") << file.path();
            ++count;
        }
    }
    EXPECT_GE(count, 5U);
}

TEST(SchemaTest, TakesWhatTheHelperReads) {
    Documents generated(12);
    std::vector<std::string> documents(10'000);
    std::ranges::generate(documents, [&] { return generated.next(); });

    const auto verdicts = test::judgedBySchema("policy", documents);

    std::size_t accepted = 0;
    for (std::size_t i = 0; i < documents.size(); ++i) {
        EXPECT_EQ(verdicts[i] == "yes", isDecoded(documents[i])) << documents[i] << verdicts[i];
        accepted += verdicts[i] == "yes" ? 1 : 0;
    }
    EXPECT_GT(accepted, 2'000U);
    EXPECT_LT(accepted, 8'000U);
    EXPECT_THAT(test::untriedConstraints("policy", documents), testing::IsEmpty());
}

}  // namespace
}  // namespace tarnvale::helperctl
