// SPDX-License-Identifier: MIT
//
// Any bytes as "vlans.json". Another JSON reader finds the same records, or none as we do, and what
// was read is the same after it has been written.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/JsonReader.h"
#include "support/JsonWriter.h"
#include "tests/fuzz/Require.h"
#include "tests/support/JsonOracle.h"
#include "vlan/VLANRecord.h"

namespace tarnvale::HelperVLAN {
namespace {

using test::require;
using Records = std::vector<Record>;

std::optional<Records> recordsIn(std::string_view text) {
    try {
        return support::decodeJson<Records>(text);
    } catch (const support::JsonError& error) {
        require(*error.what() != '\0');
        return std::nullopt;
    }
}

/// Throws any `std::exception` for what isn't a list of records.
Records recordsByOracle(const test::OracleValue& value) {
    Records records;
    for (const auto& item : test::jsonList(value)) {
        records.push_back(
            {.bsdName = test::jsonText(item.at("bsdName")),
             .tag = test::jsonInteger(item.at("tag")),
             .parentBSD = test::jsonText(item.at("parentBSD"))});
    }
    return records;
}

void compareWithOracle(const std::string& text, const std::optional<Records>& read) {
    const test::JsonVerdict verdict = test::jsonVerdict(text);
    if (verdict.isTooLargeForIt || verdict.hasDuplicateKeys) {
        return;
    }
    std::optional<Records> expected;
    try {
        if (verdict.ourReaderTakes) {
            expected = recordsByOracle(verdict.value);
        }
    } catch (const test::CannotTell&) {
        return;
    } catch (const std::exception&) {
        // It holds no records.
    }
    require(read == expected);
}

void check(std::string_view text) {
    const auto read = recordsIn(text);
    compareWithOracle(std::string(text), read);
    if (read) {
        const auto written = support::encodeJson(*read, support::JsonForm::compact);
        require(recordsIn(written) == read);
        require(written.find('\n') == std::string::npos);
    }
}

}  // namespace
}  // namespace tarnvale::HelperVLAN

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::HelperVLAN::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
