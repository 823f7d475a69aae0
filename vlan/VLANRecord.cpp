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
    return readRecordFile().records;
}

RecordFile readRecordFile() {
    if (const auto bytes = support::readFile(recordPath())) {
        try {
            return {.records = support::decodeJson<std::vector<Record>>(*bytes)};
        } catch (const support::JsonError&) {
            // Whatever it says, it says nothing of a VLAN.
        }
    }
    return {.records = {}, .isUnreadable = support::isFileThere(recordPath())};
}

void saveRecords(const std::vector<Record>& records, bool isUnreadable) {
    try {
        support::makeFolders(appSupportDirectory);
        const auto bytes = support::encodeJson(records, support::JsonForm::compact);
        if (isUnreadable) {
            support::keepUnreadable(recordPath());
        }
        support::writeFileAtomically(recordPath(), bytes, recordMode);
        support::setMode(recordPath(), recordMode);
    } catch (const std::exception& error) {
        helperLog(std::string("Could not record Tarnvale's VLANs: ") + error.what());
    }
}

}  // namespace tarnvale::HelperVLAN
