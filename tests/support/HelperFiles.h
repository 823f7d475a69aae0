// SPDX-License-Identifier: MIT
//
// What the helper leaves behind, for tests to look at: its files, their modes, its log.

#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tarnvale::test {

class Program;

// NOLINTBEGIN(cert-err58-cpp): a test program without memory for these may end
inline const std::string supportFolder = "/Library/Application Support/Tarnvale";
inline const std::string storePath = supportFolder + "/firewall-policies.json";
inline const std::string rulesetPath = supportFolder + "/firewall.pf.conf";
inline const std::string backupPath = supportFolder + "/pf.conf.before-tarnvale-cleanup";
inline const std::string vlanRecordPath = supportFolder + "/vlans.json";
inline const std::string logPath = "/var/log/tarnvale-adminhelper.log";
// NOLINTEND(cert-err58-cpp)

/// The whole file; throws `std::runtime_error` when it can't be read.
std::string contentOf(const std::string& path);

/// Writes the file, making its folders.
void put(const std::string& path, std::string_view content);

/// The same, for a script that everybody may run: these commands in a bash that stops at an error.
void putScript(const std::string& path, const std::string& commands);

bool exists(const std::string& path);

/// The permission bits of what is at the path; a link is not followed.
mode_t modeOf(const std::string& path);

/// The names in a folder, sorted.
std::vector<std::string> namesIn(const std::string& folder);

/// The messages in a text of the log's form, each without its timestamp. Throws
/// `std::runtime_error` for a line of another form.
std::vector<std::string> messagesOf(const std::string& log);

/// The messages in the helper's log, each without its timestamp; none when there is no log. Throws
/// `std::runtime_error` for a line of another form.
std::vector<std::string> logMessages();

/// Waits until the log's messages satisfy the condition, and returns them. Throws
/// `std::runtime_error` when that takes longer than a minute, or when the program ends first.
std::vector<std::string> awaitLog(
    const std::function<bool(const std::vector<std::string>&)>& condition,
    Program* program = nullptr);

/// Waits until the log has the message.
std::vector<std::string> awaitMessage(const std::string& message, Program* program = nullptr);

}  // namespace tarnvale::test
