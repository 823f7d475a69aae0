// SPDX-License-Identifier: MIT
//
// Installs and removes the files in /etc/resolver that send queries for our two domains to the
// application's DNS proxy. A marker in its text identifies a file as ours; without it, a file stays
// as it is.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::HelperResolver {

inline constexpr const char* resolverDirectory = "/etc/resolver";
inline constexpr std::array domains = {"tvx", "tarnvale"};

/// Where the application's DNS proxy listens on the loopback address.
inline constexpr std::uint16_t dnsProxyPort = 5380;

/// One file for each domain.
std::vector<std::string> resolverFilePaths();

/// Whose a file is, by its content.
enum class Standing {
    current,   ///< ours, and as we would write it now
    outdated,  ///< ours, but of another version
    foreign,
};
Standing standingOf(std::string_view domain, std::string_view content);

/// Writes the files that are missing or outdated. Throws `support::FileError`; a file that was
/// written before the error stays.
void installResolverFiles();

/// Removes our files, if any. Throws `support::FileError`.
void removeResolverFiles();

}  // namespace tarnvale::HelperResolver
