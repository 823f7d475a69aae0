// SPDX-License-Identifier: MIT
//
// SystemConfiguration, as far as platform/macos calls it: who has the console, and VLANs in the
// network preferences.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include <SystemConfiguration/SystemConfiguration.h>

#include "tests/macos/standin/StandIn.h"

using tarnvale::test::Call;
using tarnvale::test::StandIn;
using namespace tarnvale::test::standin;  // NOLINT(google-build-using-namespace): it is its parts

namespace {

using VLAN = StandIn::VLAN;

/// The VLANs as a session has them. Their addresses identify them.
struct Preferences final : Object {
    explicit Preferences(const std::vector<VLAN>& saved) : Object(Kind::preferences) {
        for (const VLAN& vlan : saved) {
            vlans.push_back(std::make_shared<VLAN>(vlan));
        }
    }

    std::vector<std::shared_ptr<VLAN>> vlans;
};

/// An interface as the program has it. Of a physical one only the name counts.
struct Interface final : Object {
    Interface(
        std::shared_ptr<VLAN> itsVLAN,
        String* itsName,
        Number* itsTag,
        Interface* itsParent,
        Preferences* itsSession)
        : Object(Kind::interface),
          vlan(std::move(itsVLAN)),
          name(itsName),
          tag(itsTag),
          parent(itsParent),
          preferences(itsSession) {}

    std::string description() const override {
        return "the interface " + (vlan->bsdName ? *vlan->bsdName : "without a name");
    }

    std::vector<Object*> parts() const override {
        std::vector<Object*> parts = {name, tag, parent};
        std::erase(parts, nullptr);
        return parts;
    }

    const Object* session() const override { return preferences; }

    std::shared_ptr<VLAN> vlan;
    String* name;
    Number* tag;
    Interface* parent;
    Preferences* preferences;  ///< null for a physical interface without a session
};

String* nameOf(Call& call, const std::optional<std::string>& name) {
    return name ? &call.heap().makePart<String>(utf16(*name)) : nullptr;
}

Interface& makePhysical(Call& call, const std::optional<std::string>& name, Preferences* session) {
    return call.heap().makePart<Interface>(
        std::make_shared<VLAN>(VLAN{.bsdName = name, .tag = {}, .parent = {}, .displayName = {}}),
        nameOf(call, name),
        nullptr,
        nullptr,
        session);
}

Interface& makeVLAN(Call& call, std::shared_ptr<VLAN> vlan, Preferences& session) {
    Number* const tag =
        vlan->tag ? &call.heap().makePart<Number>(*vlan->tag, CFNumberType{kCFNumberSInt64Type})
                  : nullptr;
    // An empty name stands for a parent without a name.
    const auto parentName = vlan->parent && vlan->parent->empty() ? std::nullopt : vlan->parent;
    Interface* const parent = vlan->parent ? &makePhysical(call, parentName, &session) : nullptr;
    String* const name = nameOf(call, vlan->bsdName);
    return call.heap().makePart<Interface>(std::move(vlan), name, tag, parent, &session);
}

std::string lowestFreeName(const Preferences& session) {
    for (int number = 0;; ++number) {
        auto name = "vlan" + std::to_string(number);
        if (std::ranges::none_of(
                session.vlans, [&](const auto& vlan) { return vlan->bsdName == name; })) {
            return name;
        }
    }
}

/// The interface that the program passes to a function that takes only VLANs of open sessions.
Interface* vlanOf(Call& call, SCVLANInterfaceRef reference) {
    auto* const found = call.find<Interface>(reference);
    const bool isVLAN = found != nullptr && found->vlan->parent.has_value();
    return isVLAN ? found : nullptr;
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): Apple's names

CFStringRef SCDynamicStoreCopyConsoleUser(
    SCDynamicStoreRef store,
    uid_t* uid,
    gid_t* gid) {  // NOLINT(readability-non-const-parameter): Apple's type
    Call call("SCDynamicStoreCopyConsoleUser");
    call.demand(store == nullptr, "a session is given");
    call.demand(uid != nullptr && gid == nullptr, "the user ID alone is wanted");
    const auto& console = call.machine().console;
    if (call.fails() || !console) {
        return nullptr;
    }
    if (console->uid && uid != nullptr) {
        *uid = *console->uid;
    }
    return referenceTo<CFStringRef>(call.heap().make<String>(console->name));
}

SCPreferencesRef SCPreferencesCreate(
    CFAllocatorRef allocator, CFStringRef name, CFStringRef prefsID) {
    Call call("SCPreferencesCreate");
    call.demand(
        allocator == nullptr && prefsID == nullptr, "these are not the system's own preferences");
    const auto* const found = call.find<String>(name);
    if (call.fails() || found == nullptr) {
        return nullptr;
    }
    call.machine().sessionNames.push_back(utf8(found->text));
    return referenceTo<SCPreferencesRef>(call.heap().make<Preferences>(call.machine().saved));
}

Boolean SCPreferencesCommitChanges(SCPreferencesRef preferences) {
    Call call("SCPreferencesCommitChanges");
    const auto* const session = call.find<Preferences>(preferences);
    if (call.fails() || session == nullptr) {
        return 0;
    }
    call.machine().saved.clear();
    for (const auto& vlan : session->vlans) {
        call.machine().saved.push_back(*vlan);
    }
    return 1;
}

Boolean SCPreferencesApplyChanges(SCPreferencesRef preferences) {
    Call call("SCPreferencesApplyChanges");
    const auto* const session = call.find<Preferences>(preferences);
    if (call.fails() || session == nullptr) {
        return 0;
    }
    call.machine().inEffect = call.machine().saved;
    return 1;
}

CFStringRef SCNetworkInterfaceGetBSDName(SCNetworkInterfaceRef interface) {
    Call call("SCNetworkInterfaceGetBSDName");
    const auto* const found = call.find<Interface>(interface);
    return call.fails() || found == nullptr || found->name == nullptr
               ? nullptr
               : referenceTo<CFStringRef>(*found->name);
}

CFArrayRef SCVLANInterfaceCopyAll(SCPreferencesRef preferences) {
    Call call("SCVLANInterfaceCopyAll");
    auto* const session = call.find<Preferences>(preferences);
    if (call.fails() || session == nullptr) {
        return nullptr;
    }
    std::vector<Object*> interfaces;
    for (const auto& vlan : session->vlans) {
        interfaces.push_back(&makeVLAN(call, vlan, *session));
    }
    return referenceTo<CFArrayRef>(call.heap().make<Array>(std::move(interfaces)));
}

CFArrayRef SCVLANInterfaceCopyAvailablePhysicalInterfaces() {
    Call call("SCVLANInterfaceCopyAvailablePhysicalInterfaces");
    if (call.fails()) {
        return nullptr;
    }
    std::vector<Object*> interfaces;
    for (const auto& name : call.machine().physical) {
        interfaces.push_back(&makePhysical(call, name, nullptr));
    }
    return referenceTo<CFArrayRef>(call.heap().make<Array>(std::move(interfaces)));
}

SCVLANInterfaceRef SCVLANInterfaceCreate(
    SCPreferencesRef preferences, SCNetworkInterfaceRef physical, CFNumberRef tag) {
    Call call("SCVLANInterfaceCreate");
    auto* const session = call.find<Preferences>(preferences);
    const auto* const parent = call.find<Interface>(physical);
    const auto* const number = call.find<Number>(tag);
    if (call.fails() || session == nullptr || parent == nullptr || number == nullptr) {
        return nullptr;
    }

    // As on a Mac, only the lower half of the tag is checked, but all of it is kept.
    const auto judged = static_cast<std::int32_t>(number->value);
    const bool isTaken = std::ranges::any_of(session->vlans, [&](const auto& vlan) {
        return vlan->parent == parent->vlan->bsdName && vlan->tag &&
               static_cast<std::int32_t>(*vlan->tag) == judged;
    });
    if (judged < 1 || judged > 4094 || isTaken || parent->vlan->parent) {
        return nullptr;
    }
    auto vlan = std::make_shared<VLAN>();
    if (call.machine().namesNewVLANs) {
        vlan->bsdName = lowestFreeName(*session);
    }
    vlan->tag = number->value;
    vlan->parent = parent->vlan->bsdName.value_or("");
    session->vlans.push_back(vlan);

    Interface& made = makeVLAN(call, std::move(vlan), *session);
    made.owned = 1;
    return referenceTo<SCVLANInterfaceRef>(made);
}

Boolean SCVLANInterfaceRemove(SCVLANInterfaceRef vlan) {
    Call call("SCVLANInterfaceRemove");
    const auto* const found = vlanOf(call, vlan);
    return !call.fails() && found != nullptr &&
                   std::erase(found->preferences->vlans, found->vlan) == 1
               ? 1
               : 0;
}

SCNetworkInterfaceRef SCVLANInterfaceGetPhysicalInterface(SCVLANInterfaceRef vlan) {
    Call call("SCVLANInterfaceGetPhysicalInterface");
    const auto* const found = vlanOf(call, vlan);
    return call.fails() || found == nullptr ? nullptr
                                            : referenceTo<SCNetworkInterfaceRef>(*found->parent);
}

CFNumberRef SCVLANInterfaceGetTag(SCVLANInterfaceRef vlan) {
    Call call("SCVLANInterfaceGetTag");
    const auto* const found = call.find<Interface>(vlan);
    return call.fails() || found == nullptr || found->tag == nullptr
               ? nullptr
               : referenceTo<CFNumberRef>(*found->tag);
}

Boolean SCVLANInterfaceSetLocalizedDisplayName(SCVLANInterfaceRef vlan, CFStringRef name) {
    Call call("SCVLANInterfaceSetLocalizedDisplayName");
    const auto* const found = vlanOf(call, vlan);
    const auto* const text = call.find<String>(name);
    if (call.fails() || found == nullptr || text == nullptr || text->text.empty()) {
        return 0;
    }
    found->vlan->displayName = utf8(text->text);
    return 1;
}

// NOLINTEND(readability-identifier-naming)
