// SPDX-License-Identifier: MIT
//
// Remembers which VLANs the helper created, so that it deletes only those: the system itself
// doesn't know who created a VLAN. A list that can't be read counts as empty; then no VLAN is ours.

#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/Json.h"

namespace tarnvale::HelperVLAN {

/// One VLAN that the helper created.
struct Record {
    std::string bsdName;    ///< as the system named it, such as "vlan0"
    std::int64_t tag = 0;   ///< its 802.1Q tag
    std::string parentBSD;  ///< BSD name of the interface that carries it, such as "en0"

    bool operator==(const Record&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Record> /*of*/) {
    return std::tuple{
        support::JsonMember{"bsdName", &Record::bsdName},
        support::JsonMember{"tag", &Record::tag},
        support::JsonMember{"parentBSD", &Record::parentBSD}};
}

/// The records in "vlans.json", oldest first. A missing file, or one with any fault in it, holds
/// none.
std::vector<Record> loadRecords();

/// What "vlans.json" holds, for whoever is about to write it.
struct RecordFile {
    std::vector<Record> records;
    bool isUnreadable = false;  ///< there is a file, but nobody can tell what it holds
};
RecordFile readRecordFile();

/// Writes the records to "vlans.json", which only root can read. If the old file `isUnreadable`,
/// keeps it as "vlans.json.unreadable" where that can be done. Logs a failure instead of throwing:
/// the change to the system has been made and stands.
void saveRecords(const std::vector<Record>& records, bool isUnreadable = false);

}  // namespace tarnvale::HelperVLAN
