// SPDX-License-Identifier: MIT
//
// Reads and writes whole files. A crash or a power cut at any instant leaves the old content or the
// new, never a part. Failures become sentences for the user.
//
// A file is written under a hidden temporary name in the same folder, ".<name>.<16 hexadecimal
// digits>", and then renamed. If a killed process leaves such a file behind, the next write of the
// same file removes it, once it is older than any write takes.

#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::support {

/// Why a file operation failed; what() is the whole sentence that the user reads.
class FileError : public std::runtime_error {
public:
    enum class Operation {
        write,      ///< creating a file or folder, writing one, setting its mode
        writeInto,  ///< writing a file whose folder may be missing
        remove,     ///< deleting a file
        open,       ///< opening a file that is there
        launch,     ///< starting a program
    };

    /// `errorNumber` is the errno of the call that failed on `path`.
    FileError(Operation operation, std::string_view path, int errorNumber);

    int errorNumber() const noexcept { return errorNumber_; }

private:
    int errorNumber_;
};

/// Whether the error, an errno, may be gone at the next attempt: it is the machine's, not the
/// file's.
bool mayPass(int errorNumber);

/// The result of the call, which is less than 0 after a failure. While the error may pass, the call
/// is made again, some times in a tenth of a second. Leaves the errno.
int persistently(const std::function<int()>& call);

/// All bytes of the regular file at `path`, following links. Nothing, and the errno, if it can't be
/// read, and not only for a moment.
std::optional<std::string> readFile(const std::string& path);

/// Whether the next write of `path` replaces a file. It replaces a link, but not what the link
/// leads to. True if that can't be found out: better too much kept than a file lost.
bool isFileThere(const std::string& path);

/// Keeps the file, which nobody can read, beside the next one: gives it the second name
/// "<path>.unreadable", in place of an older one. Throws `FileError`.
void keepUnreadable(const std::string& path);

/// Makes `bytes` the content of the file at `path`, atomically and durably. Whatever the umask and
/// the mode of an older file are, the new file appears with exactly `mode`; where the mode can't be
/// set, with `mode` less the umask. A link at `path` is replaced, not followed. Throws `FileError`
/// and leaves the old content; only if synchronising the folder failed is the new content in place,
/// and a power cut may still bring the old one back.
void writeFileAtomically(const std::string& path, std::string_view bytes, mode_t mode);

/// Calls the function with pieces of a file, the first one first.
using FileContent = std::function<void(const std::function<void(std::string_view)>& append)>;

/// The same for content that is made while it is written. What `content` throws ends the writing.
void writeFileAtomically(const std::string& path, const FileContent& content, mode_t mode);

/// The same for a file that isn't ours: keeps an existing file's mode, owner and group, or throws,
/// also if these can't be found out. A new file gets 0644.
void replaceFileKeepingAttributes(const std::string& path, std::string_view bytes);

/// Creates the folder and the missing ones above it, each with mode 0755 less the umask, or with
/// exactly `mode` if one is given. Leaves an existing folder as it is. Throws `FileError`.
void makeFolders(const std::string& path, std::optional<mode_t> mode = std::nullopt);

/// Throws `FileError`.
void setMode(const std::string& path, mode_t mode);

/// Deletes the file or link at `path` durably. Throws `FileError`, also if there is none.
void removeFile(const std::string& path);

}  // namespace tarnvale::support
