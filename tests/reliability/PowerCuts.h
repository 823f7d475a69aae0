// SPDX-License-Identifier: MIT
//
// Cuts the power while the helper writes, on a real file system: what it wrote to the disk is
// recorded, and every state that the disk can have been left in is mounted and looked at.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarnvale::test {

/// A kind of file system.
struct FileSystem {
    const char* name;
    std::vector<std::string> make;  ///< the command that makes one, without the file
    const char* options;            ///< with which it is mounted
    std::size_t mebibytes;
};

const std::vector<FileSystem>& allFileSystems();

/// Why there can be no such file system on a recorded disk here, and what would help; nothing when
/// there can. Throws when it fails though the machine lacks nothing.
std::optional<std::string> lackOf(const FileSystem& fileSystem);

struct PowerCutPlan {
    /// The roads in their order, or the few that a sample takes.
    bool isSample = false;
    /// At most so many subsets of what isn't flushed, besides those that lack or have one write.
    std::size_t randomSubsets = 16;
    /// Of writes that aren't flushed, one in so many is left out or kept alone.
    std::size_t step = 1;
    std::uint64_t seed = 1;
};

/// The cuts that a request was judged at.
struct RequestCuts {
    std::string request{};
    bool changes = false;      ///< files that are to last
    std::size_t begun = 0;     ///< cuts that came before its reply
    std::size_t answered = 0;  ///< cuts that came after it: all had to be done
};

struct PowerCutFigures {
    std::size_t writes = 0;
    std::size_t flushes = 0;
    std::size_t requests = 0;
    std::size_t cuts = 0;   ///< instants, each with all or some of what wasn't flushed
    std::size_t disks = 0;  ///< different ones that were mounted for that
    std::size_t trees = 0;  ///< different states of the files, on each of which a helper started
    std::vector<RequestCuts> cutsOf{};
    std::vector<std::string> violations{};  ///< a sentence each
};

/// What a measurement of cuts can't do without (Conclusion.h).
std::vector<std::string> missingIn(const PowerCutFigures& figures);

/// In a private root of namespaces. May throw when the machine gives out.
PowerCutFigures cutPower(const FileSystem& fileSystem, const PowerCutPlan& plan);

}  // namespace tarnvale::test
