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

/// As best it can: a VLAN that isn't recorded could never be deleted again.
void keepUnreadableRecord() {
    try {
        support::keepUnreadable(recordPath());
    } catch (const support::FileError&) {
        // Something else has the name.
    }
}

}  // namespace

std::vector<Record> loadRecords() {
    return readRecordFile().records;
}

RecordFile readRecordFile() {
    try {
        if (const auto bytes = support::readFile(recordPath())) {
            return {.records = support::decodeJson<std::vector<Record>>(*bytes)};
        }
    } catch (const std::exception&) {
        // Whatever it says, it says nothing of a VLAN. Or nobody could hold all of it.
    }
    return {.records = {}, .isUnreadable = support::isFileThere(recordPath())};
}

void saveRecords(const std::vector<Record>& records, bool isUnreadable) {
    try {
        support::makeFolders(appSupportDirectory);
        const auto bytes = support::encodeJson(records, support::JsonForm::compact);
        if (isUnreadable) {
            keepUnreadableRecord();
        }
        support::writeFileAtomically(recordPath(), bytes, recordMode);
        support::setMode(recordPath(), recordMode);
    } catch (const std::exception& error) {
        helperLog(std::string("Could not record Tarnvale's VLANs: ") + error.what());
    }
}

}  // namespace tarnvale::HelperVLAN
