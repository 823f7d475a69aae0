// SPDX-License-Identifier: MIT
//
// The system's network preferences, as far as they concern VLAN interfaces. A session sees the
// interfaces as they were when it was opened, and its own changes. Those are staged: the system
// takes them over at commit and apply. Where the system lets several sessions change something, one
// that has made a VLAN lists those of the others, too.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::platform {

/// An interface as one session knows it. It means nothing to another session, nor after its own has
/// ended.
enum class InterfaceID : std::size_t {};

/// One look at the preferences, and changes to them. A change that was not committed and applied
/// ends with its session.
class NetworkPreferencesSession {
public:
    NetworkPreferencesSession() = default;
    NetworkPreferencesSession(const NetworkPreferencesSession&) = delete;
    NetworkPreferencesSession& operator=(const NetworkPreferencesSession&) = delete;
    virtual ~NetworkPreferencesSession() = default;

    /// The interfaces that can carry a VLAN, in the system's order; none if it has no list.
    virtual std::vector<InterfaceID> physicalInterfaces() = 0;

    /// All VLAN interfaces, including those that this session has created; none if the system has
    /// no list.
    virtual std::vector<InterfaceID> vlanInterfaces() = 0;

    /// An interface need not have a name, nor a VLAN interface a tag or a parent.
    virtual std::optional<std::string> bsdName(InterfaceID interface) = 0;
    virtual std::optional<std::int64_t> tag(InterfaceID vlan) = 0;
    virtual std::optional<InterfaceID> parent(InterfaceID vlan) = 0;

    /// Nothing when the system refuses. Any tag is passed to the system as it is.
    virtual std::optional<InterfaceID> createVLAN(InterfaceID parent, std::int64_t tag) = 0;

    /// False when the system refuses.
    virtual bool setDisplayName(InterfaceID vlan, std::string_view name) = 0;
    virtual bool remove(InterfaceID vlan) = 0;

    /// Saves the changes; false when they could not be saved.
    virtual bool commit() = 0;

    /// Makes what was committed take effect; false when it could not.
    virtual bool apply() = 0;
};

/// Safe from any thread; a session belongs to one.
class NetworkPreferences {
public:
    virtual ~NetworkPreferences() = default;

    /// Opens a session, which the system knows by the process's name. Null when that fails.
    virtual std::unique_ptr<NetworkPreferencesSession> open(std::string_view processName) = 0;
};

/// The preferences of this machine. Defined once in platform/macos and once in platform/linux.
std::unique_ptr<NetworkPreferences> makeNetworkPreferences();

}  // namespace tarnvale::platform
