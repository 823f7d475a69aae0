// SPDX-License-Identifier: MIT
//
// `report`: gathers what support needs to know into one archive.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/PolicyStore.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

struct ArchiveFile {
    std::string name;  ///< at most 99 bytes
    std::string content;
};

/// A tar archive, in the form of POSIX, of files that belong to root and only root may read.
std::string tarOf(const std::vector<ArchiveFile>& files, std::int64_t now);

/// The store with "network 1", "network 2" and so on in place of the networks' names.
NetworkFirewall::PolicyStore withoutNames(NetworkFirewall::PolicyStore store);

int report(const Session& session);

inline constexpr std::string_view reportHelp =
    R"(Writes a tar archive for support into a new file, which only its owner may read,
and prints what is in it: this program's version and the helper's, what "doctor"
finds, what "status" prints, the ruleset that was loaded last, what is stored,
and the log. It holds addresses and user IDs; look at it before you send it.

  --redact   without the networks' names: they are replaced in what is stored
             and in the ruleset, and the log is left out, as is what "doctor"
             says of networks

Exit status 1: the file exists already, or could not be written.
)";

}  // namespace tarnvale::helperctl
