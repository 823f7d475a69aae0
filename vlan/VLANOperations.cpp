// SPDX-License-Identifier: MIT

#include "vlan/VLANOperations.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <vector>

#include "core/base/HelperLog.h"
#include "support/Text.h"
#include "vlan/VLANError.h"
#include "vlan/VLANRecord.h"

namespace tarnvale::HelperVLAN {
namespace {

using Session = platform::NetworkPreferencesSession;
using platform::InterfaceID;

std::unique_ptr<Session> openSession(platform::NetworkPreferences& preferences) {
    auto session = preferences.open("TarnvaleAdminHelper");
    if (!session) {
        throw VLANError::preferences();
    }
    return session;
}

/// The first of the interfaces with that name.
std::optional<InterfaceID> interfaceNamed(
    std::string_view bsdName, const std::vector<InterfaceID>& interfaces, Session& session) {
    const auto found =
        std::find_if(interfaces.begin(), interfaces.end(), [&](InterfaceID interface) {
            return session.bsdName(interface) == bsdName;
        });
    return found == interfaces.end() ? std::nullopt : std::optional(*found);
}

/// The record that the interface would have if the helper had created it.
Record recordOf(InterfaceID vlan, std::string_view bsdName, Session& session) {
    const auto parent = session.parent(vlan);
    return {
        .bsdName = std::string(bsdName),
        .tag = session.tag(vlan).value_or(-1),
        .parentBSD = parent ? session.bsdName(*parent).value_or("") : ""};
}

void commitAndApply(Session& session) {
    if (!session.commit() || !session.apply()) {
        throw VLANError::commitFailed();
    }
}

/// Does what follows a change that stands already: a lack of memory must not make it look failed.
template <typename Step>
void asBestItCan(const Step& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        // The change stands.
    }
}

/// Adds the record, replaces an older one of the same name, and forgets VLANs that are gone.
void recordCreation(const Record& created, Session& session) {
    std::set<std::string, std::less<>> existing;
    for (const InterfaceID vlan : session.vlanInterfaces()) {
        if (auto bsdName = session.bsdName(vlan)) {
            existing.insert(std::move(*bsdName));
        }
    }

    auto [records, isUnreadable] = readRecordFile();
    std::erase_if(records, [&](const Record& record) {
        return !existing.contains(record.bsdName) || record.bsdName == created.bsdName;
    });
    if (!created.bsdName.empty()) {
        records.push_back(created);
    }
    saveRecords(records, isUnreadable);
}

}  // namespace

std::string create(
    platform::NetworkPreferences& preferences,
    std::string_view name,
    std::int64_t tag,
    std::string_view parentBSD) {
    const auto session = openSession(preferences);

    const auto parent = interfaceNamed(parentBSD, session->physicalInterfaces(), *session);
    if (!parent) {
        throw VLANError::noSuchPhysicalInterface(parentBSD);
    }
    // The system decides which tags are valid.
    const auto vlan = session->createVLAN(*parent, tag);
    if (!vlan) {
        throw VLANError::createFailed();
    }

    const auto displayName = support::trimWhitespace(name);
    if (!displayName.empty()) {
        // A VLAN that is shown under its BSD name works just as well.
        static_cast<void>(session->setDisplayName(*vlan, displayName));
    }

    commitAndApply(*session);

    const Record created{
        .bsdName = session->bsdName(*vlan).value_or(""),
        .tag = tag,
        .parentBSD = std::string(parentBSD)};
    asBestItCan([&] {
        helperLog(
            "Created VLAN " + created.bsdName + " (tag " + std::to_string(tag) + ") on " +
            created.parentBSD + ".");
    });
    asBestItCan([&] { recordCreation(created, *session); });
    return created.bsdName;
}

void deleteVLAN(platform::NetworkPreferences& preferences, std::string_view bsdName) {
    const auto session = openSession(preferences);

    const auto vlan = interfaceNamed(bsdName, session->vlanInterfaces(), *session);
    if (!vlan) {
        throw VLANError::notFound(bsdName);
    }

    // The name alone proves nothing: the system gives it again to a VLAN that is set up by hand.
    const auto deleted = recordOf(*vlan, bsdName, *session);
    auto records = loadRecords();
    if (std::find(records.begin(), records.end(), deleted) == records.end()) {
        helperLog("Left VLAN " + deleted.bsdName + " alone: Tarnvale's helper didn't create it.");
        throw VLANError::notCreatedByHelper();
    }

    if (!session->remove(*vlan)) {
        throw VLANError::commitFailed();
    }
    commitAndApply(*session);

    std::erase(records, deleted);
    asBestItCan([&] { saveRecords(records); });
    asBestItCan([&] { helperLog("Deleted VLAN " + deleted.bsdName + "."); });
}

}  // namespace tarnvale::HelperVLAN
