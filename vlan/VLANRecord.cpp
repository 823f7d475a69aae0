// SPDX-License-Identifier: MIT

#include "vlan/VLANRecord.h"

#include <exception>

#include <sys/types.h>

#include "core/base/AppSupport.h"
#include "core/base/HelperLog.h"
#include "support/Files.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

namespace tarnvale::HelperVLAN {
namespace {

constexpr mode_t recordMode = 0600;

std::string recordPath() {
    return std::string(appSupportDirectory) + "/vlans.json";
}

}  // namespace

std::vector<Record> loadRecords() {
    const auto bytes = support::readFile(recordPath());
    if (!bytes) {
        return {};
    }
    try {
        return support::decodeJson<std::vector<Record>>(*bytes);
    } catch (const std::exception&) {
        return {};
    }
}

void saveRecords(const std::vector<Record>& records) {
    try {
        support::makeFolders(appSupportDirectory);
        const auto bytes = support::encodeJson(records, support::JsonForm::compact);
        support::writeFileAtomically(recordPath(), bytes, recordMode);
        support::setMode(recordPath(), recordMode);
    } catch (const std::exception& error) {
        helperLog(std::string("Could not record Tarnvale's VLANs: ") + error.what());
    }
}

}  // namespace tarnvale::HelperVLAN
