// SPDX-License-Identifier: MIT

#include "helperctl/commands/Log.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "support/Json.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using EntryOutcome = LogEntry::Outcome;

constexpr std::chrono::milliseconds pollPeriod{200};

struct EntryRecord {
    std::string time;
    std::string message;
    std::vector<std::string> operations;
    std::string outcome;
    bool known = false;
};

constexpr auto jsonMembers(std::type_identity<EntryRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"time", &EntryRecord::time},
        support::JsonMember{"message", &EntryRecord::message},
        support::JsonMember{"operations", &EntryRecord::operations},
        support::JsonMember{"outcome", &EntryRecord::outcome},
        support::JsonMember{"known", &EntryRecord::known}};
}

std::string wordFor(EntryOutcome outcome) {
    switch (outcome) {
        case EntryOutcome::changed:
            return "done";
        case EntryOutcome::refused:
            return "refused";
        case EntryOutcome::failed:
            return "failed";
        case EntryOutcome::note:
            break;
    }
    return "note";
}

Ink inkFor(const LogEntry& entry) {
    switch (entry.outcome) {
        case EntryOutcome::changed:
            return Ink::green;
        case EntryOutcome::refused:
            return Ink::yellow;
        case EntryOutcome::failed:
            return Ink::red;
        case EntryOutcome::note:
            break;
    }
    return Ink::plain;
}

EntryRecord recordOf(const LogEntry& entry) {
    EntryRecord record{
        .time = entry.time,
        .message = {},
        .operations = {},
        .outcome = wordFor(entry.outcome),
        .known = entry.isOurs};
    for (const auto& line : entry.message) {
        record.message += (record.message.empty() ? "" : "\n") + support::repairedUtf8(line);
    }
    for (const auto operation : support::split(entry.operations, ' ')) {
        if (!operation.empty()) {
            record.operations.emplace_back(operation);
        }
    }
    return record;
}

void print(const LogEntry& entry, const Console& console) {
    const auto ink = inkFor(entry);
    console.output << console.inked(Ink::dim, entry.time) << (entry.isOurs ? " " : " ? ")
                   << console.inked(ink, printable(entry.message.front())) << '\n';
    for (std::size_t i = 1; i < entry.message.size(); ++i) {
        console.output << "    | " << console.inked(ink, printable(entry.message[i])) << '\n';
    }
}

/// Which entries to print.
struct Selection {
    std::string since;
    std::string operation;

    bool takes(const LogEntry& entry) const {
        return entry.time >= since && (operation.empty() || entry.isAbout(operation));
    }
};

std::vector<LogEntry> selected(std::string_view text, const Selection& selection) {
    auto entries = entriesOf(text);
    std::erase_if(entries, [&](const LogEntry& entry) { return !selection.takes(entry); });
    return entries;
}

void printAll(const std::vector<LogEntry>& entries, bool isFollowed, const Console& console) {
    if (!console.wantsJson()) {
        for (const auto& entry : entries) {
            print(entry, console);
        }
        return;
    }
    std::vector<EntryRecord> records;
    for (const auto& entry : entries) {
        records.push_back(recordOf(entry));
        if (isFollowed) {
            console.writeResult("log", records);
            records.clear();
        }
    }
    if (!isFollowed) {
        console.writeResult("log", records);
    }
}

/// Throws `std::invalid_argument` for what the options don't take.
Selection selectionOf(const Arguments& arguments) {
    Selection selection;
    if (arguments.since) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto since = timeSince(
            *arguments.since, std::chrono::duration_cast<std::chrono::seconds>(now).count());
        if (!since) {
            throw std::invalid_argument(
                "--since: it is a time such as 2025-03-14T09:26:53Z, a day, or 10m, 2h or 3d");
        }
        selection.since = *since;
    }
    if (arguments.operation) {
        const auto known = logOperations();
        if (std::ranges::find(known, *arguments.operation) == known.end()) {
            const auto meant = nearestWord(*arguments.operation, known);
            throw std::invalid_argument(
                "--operation: the log knows no \"" + printable(*arguments.operation) + "\"" +
                (meant ? "\nDid you mean " + std::string(*meant) + "?" : ""));
        }
        selection.operation = *arguments.operation;
    }
    return selection;
}

}  // namespace

bool GrowingFile::open() {
    support::UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        if (errno == ENOENT) {
            return false;
        }
        throw std::runtime_error(
            "Could not read \"" + path_ + "\": " + std::generic_category().message(errno) + ".");
    }
    file_ = std::move(file);
    offset_ = 0;
    return true;
}

std::string GrowingFile::readOn() {
    if (file_ && !isReplaced()) {
        return readOpenFile();
    }
    auto text = file_ ? readOpenFile() : "";  // what was last written to the one before
    return open() ? text + readOpenFile() : text;
}

/// Whether there is another file in the place of the open one.
bool GrowingFile::isReplaced() const {
    struct stat there {};
    struct stat ours {};
    return ::stat(path_.c_str(), &there) == 0 && ::fstat(file_.get(), &ours) == 0 &&
           (there.st_ino != ours.st_ino || there.st_dev != ours.st_dev);
}

std::string GrowingFile::readOpenFile() {
    struct stat ours {};
    if (::fstat(file_.get(), &ours) == 0 && ours.st_size < offset_) {
        offset_ = 0;  // emptied
    }
    std::string text;
    std::array<char, 65536> piece{};
    for (;;) {
        const auto count = ::pread(
            file_.get(),
            piece.data(),
            piece.size(),
            static_cast<off_t>(offset_ + static_cast<long long>(text.size())));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw std::runtime_error(
                "Could not read \"" + path_ + "\": " + std::generic_category().message(errno) +
                ".");
        }
        if (count == 0) {
            break;
        }
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
    text.resize(text.rfind('\n') + 1);  // nothing if there is no line feed
    offset_ += static_cast<long long>(text.size());
    return text;
}

int log(const Session& session) {
    const auto& console = session.console;
    const bool follows = session.arguments.follow;
    Selection selection;
    try {
        selection = selectionOf(session.arguments);
    } catch (const std::invalid_argument& error) {
        console.errors << "tarnvale-helperctl: " << error.what()
                       << "\nRun tarnvale-helperctl help log for more.\n";
        return usageError;
    }
    GrowingFile file(logPath);
    auto text = file.readOn();
    if (!file.exists() && !follows) {
        throw std::runtime_error(
            "There is no log yet: \"" + std::string(logPath) + "\" doesn't exist.");
    }
    printAll(selected(text, selection), follows, console);
    while (follows && console.output.flush()) {
        std::this_thread::sleep_for(pollPeriod);
        text = file.readOn();
        printAll(selected(text, selection), true, console);
    }
    return done;
}

}  // namespace tarnvale::helperctl
