// SPDX-License-Identifier: MIT
//
// The files in /etc/resolver that send queries for our two domains to the application's DNS proxy.
// A file of ours is known by the marker in its text. What does not carry it is left as it is.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnvale::HelperResolver {

inline constexpr const char* resolverDirectory = "/etc/resolver";
inline constexpr std::array domains = {"tvx", "tarnvale"};

/// Where the application's DNS proxy listens on the loopback address.
inline constexpr std::uint16_t dnsProxyPort = 5380;

/// One file for each domain.
std::vector<std::string> resolverFilePaths();

/// Writes the files that are missing or outdated. Throws `support::FileError`; a file written
/// before the error stays.
void installResolverFiles();

/// Removes the files; having none is success. Throws `support::FileError`.
void removeResolverFiles();

}  // namespace tarnvale::HelperResolver
