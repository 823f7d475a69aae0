// SPDX-License-Identifier: MIT
//
// What the tests of this folder share: a machine with the application, an administrator, a standard
// user and an empty /usr/local/bin, and a helper there that installs and removes links.

#pragma once

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

namespace tarnvale::HelperCLISymlink {

inline constexpr const char* application = "/Applications/Tarnvale.app";
inline constexpr const char* helper =
    "/Applications/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper";
inline constexpr const char* tool = "/Applications/Tarnvale.app/Contents/Helpers/tarnvale";

inline constexpr uid_t administrator = 501;
inline constexpr uid_t standardUser = 502;
inline constexpr uid_t unknownUser = 777;
inline constexpr gid_t staff = 20;

inline constexpr const char* binIsNoFolder =
    "/usr/local/bin isn't a real folder (it's a link or a file), so Tarnvale won't link into it.";
inline constexpr const char* binIsUnsafe =
    "/usr/local/bin can be changed by someone who isn't an administrator, so Tarnvale won't link "
    "into it.";
inline constexpr const char* tarnvaleIsForeign =
    "/usr/local/bin/tarnvale already exists and isn't a Tarnvale link. Move it aside, then try "
    "again.";

/// The sentence about a copy of the application that is not safe to link to.
std::string copyIsUnsafe(const std::string& path);

/// The log's line about a link that was made.
std::string linkedLine(const std::string& name);

/// Entries of a folder: name, and "-> target" of a link, "folder" or "file".
using Entries = std::map<std::string, std::string>;

Entries entriesOf(const std::string& folder);

/// What is in /usr/local/bin.
Entries linked();

/// What is there if both links lead to `tool`.
Entries bothLinks();

/// Makes a link in /usr/local/bin.
void link(const std::string& name, const std::string& target);

void clearLog();

/// Runs the operation by the helper at that path. Returns what it prints: nothing, or the error's
/// sentence.
std::string install(const std::string& program = helper);
std::string remove(const std::string& program = helper);

/// Runs any program. Returns what it prints, without the last line's end.
std::string outputOf(const std::vector<std::string>& arguments);

/// Puts the application's two programs, the helper and the tool, into a folder, as root's.
void placePrograms(const std::string& folder);

void setMode(const std::string& path, mode_t mode);
void setOwner(const std::string& path, uid_t owner, gid_t group = staff);

class CLISymlinkFixture : public testing::Test {
protected:
    void SetUp() override;

    /// Removes the whole /usr/local, the machine's own included.
    static void removeUsrLocal();
};

}  // namespace tarnvale::HelperCLISymlink
