// SPDX-License-Identifier: MIT

#include "helperctl/commands/Report.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "core/base/HelperVersion.h"
#include "helperctl/Answer.h"
#include "helperctl/LogEntries.h"
#include "helperctl/StatusPage.h"
#include "helperctl/StoredNetworks.h"
#include "helperctl/commands/Doctor.h"
#include "platform/CodeSigning.h"
#include "platform/HostAddresses.h"
#include "support/Files.h"
#include "support/SystemCalls.h"
#include "support/Text.h"
#include "support/UniqueFd.h"

namespace tarnvale::helperctl {
namespace {

constexpr std::size_t blockSize = 512;

/// Puts the number's octal digits into a field of a header, which ends in a NUL.
void putOctal(std::string& header, std::size_t place, std::size_t width, std::uint64_t number) {
    header[place + width - 1] = '\0';
    for (std::size_t i = width - 1; i > 0; --i) {
        header[place + i - 1] = static_cast<char>('0' + (number & 7U));
        number >>= 3U;
    }
}

/// A POSIX header: 100 bytes of name, mode, owner, group, size, time, checksum, type, …
std::string headerOf(const ArchiveFile& file, std::int64_t now) {
    std::string header(blockSize, '\0');
    header.replace(0, file.name.size(), file.name);
    putOctal(header, 100, 8, 0600);
    putOctal(header, 108, 8, 0);
    putOctal(header, 116, 8, 0);
    putOctal(header, 124, 12, file.content.size());
    putOctal(header, 136, 12, static_cast<std::uint64_t>(now));
    header.replace(148, 8, "        ");  // what the checksum counts in its own place
    header[156] = '0';
    header.replace(
        257,
        8,
        std::string(
            "ustar\0"
            "00",
            8));
    std::uint64_t sum = 0;
    for (const char c : header) {
        sum += static_cast<unsigned char>(c);
    }
    putOctal(header, 148, 7, sum);
    return header;
}

/// The text with the names in the comments of networks replaced.
std::string rulesetWithoutNames(const std::string& ruleset) {
    constexpr std::string_view start = "# --- ";
    std::string text;
    for (const auto line : support::split(ruleset, '\n')) {
        const auto bracket = line.rfind(" (");
        if (line.starts_with(start) && bracket != std::string_view::npos) {
            text.append(start).append("network").append(line.substr(bracket));
        } else {
            text.append(line);
        }
        text += '\n';
    }
    text.pop_back();
    return text;
}

std::string doctorText(const std::vector<Check>& checks) {
    std::string text;
    for (const auto& check : checks) {
        text += check.state + "\t" + check.check + ": " + check.says +
                (check.advice.empty() ? "" : " -> " + check.advice) + "\n";
    }
    return text;
}

/// What the helper replies, or why it doesn't.
template <class Ask>
std::string replyOf(const Connect& connect, const Ask& ask) {
    try {
        return ask(*connect()) + "\n";
    } catch (const std::exception& error) {
        return std::string(error.what()) + "\n";
    }
}

/// What `status` prints of these networks.
std::string statusText(
    platform::HelperClient& helper,
    const std::string& ruleset,
    const std::optional<NetworkFirewall::PolicyStore>& store) {
    const auto report = helper.firewallReport().result.value_or("");
    std::ostringstream text;
    if (const auto firewall = firewallStatus(report, ruleset, store)) {
        printText(*firewall, text);
    }
    return text.str() + "\n" + report;
}

std::vector<ArchiveFile> gather(const Session& session, bool redact) {
    std::vector<ArchiveFile> files;
    const auto codeSigning = platform::makeCodeSigning();
    files.push_back(
        {"version.txt",
         "tarnvale-helperctl " + helperVersionString() + "\nhelper " +
             replyOf(session.connect, [](platform::HelperClient& helper) {
                 return helper.helperVersion().value_or("");
             })});
    auto checks = examine(session.connect, *codeSigning, NetworkFirewall::hostAddresses(), true);
    if (redact) {
        std::erase_if(checks, [](const Check& check) { return check.check == "networks"; });
    }
    files.push_back({"doctor.txt", doctorText(checks)});
    const auto loaded = loadedRulesetText();
    const auto ruleset = redact ? rulesetWithoutNames(loaded) : loaded;
    auto store = readStore();
    if (store && redact) {
        store = withoutNames(*std::move(store));
    }
    files.push_back({"status.txt", replyOf(session.connect, [&](platform::HelperClient& helper) {
                         return statusText(helper, ruleset, store);
                     })});
    files.push_back({"firewall.pf.conf", ruleset});
    if (store) {
        files.push_back({"firewall-policies.json", NetworkFirewall::encodeStore(*store)});
    }
    if (!redact) {
        files.push_back({"tarnvale-adminhelper.log", support::readFile(logPath).value_or("")});
    }
    return files;
}

void write(const std::string& path, const std::string& content) {
    const support::UniqueFd file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    const int error = errno;
    if (!file) {
        throw std::runtime_error(
            "Could not write \"" + printable(path) +
            "\": " + std::generic_category().message(error) + ".");
    }
    if (!support::writeAll(file.get(), content)) {
        ::unlink(path.c_str());
        throw std::runtime_error("Could not write all of \"" + printable(path) + "\".");
    }
}

}  // namespace

std::string tarOf(const std::vector<ArchiveFile>& files, std::int64_t now) {
    std::string archive;
    for (const auto& file : files) {
        archive += headerOf(file, now) + file.content;
        archive.append((blockSize - file.content.size() % blockSize) % blockSize, '\0');
    }
    return archive.append(2 * blockSize, '\0');
}

NetworkFirewall::PolicyStore withoutNames(NetworkFirewall::PolicyStore store) {
    std::size_t number = 0;
    for (auto& [owner, entry] : store.owners) {
        for (auto& network : entry.policies) {
            network.name = "network " + std::to_string(++number);
        }
    }
    return store;
}

int report(const Session& session) {
    const auto files = gather(session, session.arguments.redact);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    write(
        session.arguments.file,
        tarOf(files, std::chrono::duration_cast<std::chrono::seconds>(now).count()));
    std::vector<std::string> names(files.size());
    std::ranges::transform(files, names.begin(), &ArchiveFile::name);
    if (session.console.wantsJson()) {
        session.console.writeResult("archive", names);
    } else {
        for (const auto& name : names) {
            session.console.writeLine(name);
        }
    }
    return done;
}

}  // namespace tarnvale::helperctl
