// SPDX-License-Identifier: MIT
//
// The ten methods as D-Bus carries them: the one table of their names and types, for the service
// and for its client. An optional text is an array of no element or one.

#pragma once

namespace tarnvale::platform::wire {

inline constexpr const char* objectPath = "/com/brackwen/tarnvale/adminhelper";
inline constexpr const char* interfaceName = "com.brackwen.tarnvale.adminhelper";

struct Method {
    const char* name;
    const char* arguments;  ///< their types, as a D-Bus signature
    const char* results;
    const char* names;  ///< of the arguments, then of the results, each ended by a NUL
};

inline constexpr Method helperVersion{"HelperVersion", "", "as", "version\0"};
inline constexpr Method applyFirewall{
    "ApplyFirewall", "ay", "asas", "policyData\0summary\0error\0"};
inline constexpr Method removeFirewall{"RemoveFirewall", "", "as", "error\0"};
inline constexpr Method firewallReport{"FirewallReport", "", "asas", "report\0error\0"};
inline constexpr Method createVLAN{
    "CreateVLAN", "sxs", "asas", "name\0tag\0parentBSD\0bsdName\0error\0"};
inline constexpr Method deleteVLAN{"DeleteVLAN", "s", "as", "bsdName\0error\0"};
inline constexpr Method installCLISymlink{"InstallCLISymlink", "", "as", "error\0"};
inline constexpr Method removeCLISymlink{"RemoveCLISymlink", "", "as", "error\0"};
inline constexpr Method setTarnvaleResolver{"SetTarnvaleResolver", "b", "as", "enabled\0error\0"};
inline constexpr Method shutdownForUpgrade{"ShutdownForUpgrade", "", "", ""};

/// A peer that takes us for a message bus first asks for its name on it.
inline constexpr const char* driverPath = "/org/freedesktop/DBus";
inline constexpr const char* driverInterface = "org.freedesktop.DBus";
inline constexpr Method hello{"Hello", "", "s", "uniqueName\0"};

}  // namespace tarnvale::platform::wire
