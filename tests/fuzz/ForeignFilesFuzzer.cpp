// SPDX-License-Identifier: MIT
//
// Any bytes as a file that isn't only ours: /etc/pf.conf, and one in /etc/resolver. What happens to
// it is what a walk over its lines says.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "firewall/enforce/LegacyCleanup.h"
#include "resolver/ResolverFiles.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace tarnvale;
using test::require;

bool contains(const std::string& text, const std::string& part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end()) != text.end();
}

/// Takes the lines one by one; nothing if none names the old anchor.
std::optional<std::string> cleanedByWalk(std::string text) {
    const std::string name = "com.tarnvale.firewall";
    if (!contains(text, name)) {
        return std::nullopt;
    }
    if (text.starts_with("\uFEFF")) {
        text.erase(0, 3);
    }
    // Each kept line comes with the line feed behind it; the last one has none.
    text += '\n';
    std::string kept;
    std::string line;
    for (const char letter : text) {
        line += letter;
        if (letter == '\n') {
            kept += contains(line, name) ? "" : line;
            line.clear();
        }
    }
    if (!kept.empty()) {
        kept.pop_back();
    }
    return kept;
}

void checkPfConf(const std::string& text) {
    const auto cleaned = HelperFirewall::cleanedPfConf(text);
    require(cleaned == (support::isValidUtf8(text) ? cleanedByWalk(text) : std::nullopt));
    // It has nothing more to do the next time.
    require(!cleaned || !HelperFirewall::cleanedPfConf(*cleaned));
}

void checkResolver(const std::string& text) {
    using HelperResolver::Standing;
    for (const std::string domain : HelperResolver::domains) {
        const std::string current = "# Installed by Tarnvale: <vm>." + domain +
                                    " names resolve to its VMs.\nnameserver 127.0.0.1\n"
                                    "port 5380\ntimeout 2\n";
        const auto expected = text == current                           ? Standing::current
                              : contains(text, "Installed by Tarnvale") ? Standing::outdated
                                                                        : Standing::foreign;
        require(HelperResolver::standingOf(domain, text) == expected);
    }
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkPfConf(text);
    checkResolver(text);
    return 0;
}
