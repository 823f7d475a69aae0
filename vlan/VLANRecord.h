// SPDX-License-Identifier: MIT
//
// The list of the VLANs that the helper made. The system does not remember who made a VLAN; the
// helper does, so that it deletes none but its own. A list that cannot be read counts as empty:
// nothing is ours then.

#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/Json.h"

namespace tarnvale::HelperVLAN {

/// One VLAN that the helper made.
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

/// The records in "vlans.json", oldest first; none when there is no such file or when any part of
/// it is not as it should be.
std::vector<Record> loadRecords();

/// Makes the records the content of "vlans.json", readable by root only. A failure is logged: the
/// change that is being recorded has been made and stands.
void saveRecords(const std::vector<Record>& records);

}  // namespace tarnvale::HelperVLAN
