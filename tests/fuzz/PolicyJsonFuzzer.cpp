// SPDX-License-Identifier: MIT
//
// Policy documents and store files. What was read from either comes back after it has been written,
// always in the form of the store's file, and another JSON reader finds the same policies.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "support/JsonProblems.h"
#include "support/JsonWriter.h"
#include "tests/fuzz/Require.h"
#include "tests/support/JsonOracle.h"
#include "tests/support/PolicyOracle.h"

namespace tarnvale::NetworkFirewall {

namespace {

using test::require;

std::optional<std::vector<FirewallNetworkPolicy>> policies(std::string_view text) {
    try {
        return decodePolicies(text);
    } catch (const support::JsonError& error) {
        require(*error.what() != '\0');
        return std::nullopt;
    }
}

/// Whether every problem that is found in the text is harmless.
bool isAccepted(std::string_view text) {
    std::vector<FirewallNetworkPolicy> networks;
    return std::ranges::all_of(
        support::jsonProblems(text, networks), &support::JsonProblem::isIgnored);
}

/// Another reader makes the same of the text.
void compareWithOracle(const std::string& text) {
    const test::JsonVerdict verdict = test::jsonVerdict(text);
    if (!verdict.isTooLargeForIt && !verdict.hasDuplicateKeys) {
        const auto expected =
            verdict.ourReaderTakes ? test::policiesByOracle(verdict.value) : std::nullopt;
        require(policies(text) == expected);
    }
}

void check(std::string_view text) {
    require(isAccepted(text) == policies(text).has_value());
    compareWithOracle(std::string(text));

    const auto store = decodeStore(text);
    if (store) {
        const std::string written = encodeStore(*store);
        require(decodeStore(written) == store);
        require(encodeStore(*decodeStore(written)) == written);
    }

    // A list of networks is the store's older form.
    if (const auto read = policies(text)) {
        using support::JsonForm;
        require(policies(support::encodeJson(*read, JsonForm::compact)) == read);
        require(samePolicies(*read, *read));
        require(store && store->owners.size() == (read->empty() ? 0U : 1U));
        require(read->empty() || store->owners.find(legacyOwner)->second.policies == *read);
    }
}

}  // namespace

}  // namespace tarnvale::NetworkFirewall

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::NetworkFirewall::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
