// SPDX-License-Identifier: MIT
//
// VLAN interfaces in the system's network preferences, through SystemConfiguration.

#include <cstddef>
#include <memory>
#include <utility>

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

#include "platform/NetworkPreferences.h"
#include "platform/macos/CFRef.h"
#include "platform/macos/CFText.h"

namespace tarnvale::platform {
namespace {

class SCSession final : public NetworkPreferencesSession {
public:
    explicit SCSession(CFRef<SCPreferencesRef> preferences)
        : preferences_(std::move(preferences)) {}

    std::vector<InterfaceID> physicalInterfaces() override {
        return kept(CFRef<CFArrayRef>::adopt(::SCVLANInterfaceCopyAvailablePhysicalInterfaces()));
    }

    std::vector<InterfaceID> vlanInterfaces() override {
        return kept(CFRef<CFArrayRef>::adopt(::SCVLANInterfaceCopyAll(preferences_.get())));
    }

    std::optional<std::string> bsdName(InterfaceID interface) override {
        return textOf(::SCNetworkInterfaceGetBSDName(at(interface)));
    }

    std::optional<std::int64_t> tag(InterfaceID vlan) override {
        const CFNumberRef number = ::SCVLANInterfaceGetTag(at(vlan));
        std::int64_t value = 0;
        if (number == nullptr || ::CFNumberGetValue(number, kCFNumberSInt64Type, &value) == 0) {
            return std::nullopt;
        }
        return value;
    }

    std::optional<InterfaceID> parent(InterfaceID vlan) override {
        const SCNetworkInterfaceRef physical = ::SCVLANInterfaceGetPhysicalInterface(at(vlan));
        if (physical == nullptr) {
            return std::nullopt;
        }
        return keep(CFRef<SCNetworkInterfaceRef>::retain(physical));
    }

    std::optional<InterfaceID> createVLAN(InterfaceID parent, std::int64_t tag) override {
        const auto number =
            CFRef<CFNumberRef>::adopt(::CFNumberCreate(nullptr, kCFNumberSInt64Type, &tag));
        if (!number) {
            return std::nullopt;
        }
        auto vlan = CFRef<SCNetworkInterfaceRef>::adopt(
            ::SCVLANInterfaceCreate(preferences_.get(), at(parent), number.get()));
        if (!vlan) {
            return std::nullopt;
        }
        return keep(std::move(vlan));
    }

    bool setDisplayName(InterfaceID vlan, std::string_view name) override {
        const auto text = makeCFString(name);
        return text && ::SCVLANInterfaceSetLocalizedDisplayName(at(vlan), text.get()) != 0;
    }

    bool remove(InterfaceID vlan) override { return ::SCVLANInterfaceRemove(at(vlan)) != 0; }

    bool commit() override { return ::SCPreferencesCommitChanges(preferences_.get()) != 0; }

    bool apply() override { return ::SCPreferencesApplyChanges(preferences_.get()) != 0; }

private:
    SCNetworkInterfaceRef at(InterfaceID interface) const {
        return interfaces_.at(static_cast<std::size_t>(interface)).get();
    }

    InterfaceID keep(CFRef<SCNetworkInterfaceRef> interface) {
        interfaces_.push_back(std::move(interface));
        return InterfaceID{interfaces_.size() - 1};
    }

    /// Keeps the interfaces of a list beyond its life; without a list there are none.
    std::vector<InterfaceID> kept(const CFRef<CFArrayRef>& list) {
        std::vector<InterfaceID> interfaces;
        const CFIndex count = list ? ::CFArrayGetCount(list.get()) : 0;
        for (CFIndex i = 0; i < count; ++i) {
            const auto* const interface =
                static_cast<SCNetworkInterfaceRef>(::CFArrayGetValueAtIndex(list.get(), i));
            interfaces.push_back(keep(CFRef<SCNetworkInterfaceRef>::retain(interface)));
        }
        return interfaces;
    }

    CFRef<SCPreferencesRef> preferences_;
    std::vector<CFRef<SCNetworkInterfaceRef>> interfaces_;  ///< by `InterfaceID`
};

class SCNetworkPreferences final : public NetworkPreferences {
public:
    std::unique_ptr<NetworkPreferencesSession> open(std::string_view processName) override {
        const auto name = makeCFString(processName);
        if (!name) {
            return nullptr;
        }
        auto preferences =
            CFRef<SCPreferencesRef>::adopt(::SCPreferencesCreate(nullptr, name.get(), nullptr));
        if (!preferences) {
            return nullptr;
        }
        return std::make_unique<SCSession>(std::move(preferences));
    }
};

}  // namespace

std::unique_ptr<NetworkPreferences> makeNetworkPreferences() {
    return std::make_unique<SCNetworkPreferences>();
}

}  // namespace tarnvale::platform
