// SPDX-License-Identifier: MIT
//
// Whole files, written so that a crash or a power cut at any instant leaves the old content or the
// new, never a part; and the sentences in which a failure is told.
//
// A file is written under a hidden name of its own in the same folder, ".<name>.<16 hexadecimal
// digits>", and then renamed. What a killed process left of such names is swept away by the next
// write of the same file, once it is older than any write takes.

#pragma once

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
        writeInto,  ///< writing a file when its folder may be what is missing
        remove,     ///< deleting a file
        launch,     ///< starting a program
    };

    /// `errorNumber` is the errno of the call that failed on `path`.
    FileError(Operation operation, std::string_view path, int errorNumber);

    int errorNumber() const noexcept { return errorNumber_; }

private:
    int errorNumber_;
};

/// All bytes of the regular file at `path`, links followed; nothing when it cannot be read.
std::optional<std::string> readFile(const std::string& path);

/// Makes `bytes` the content of the file at `path`, atomically and durably. The file has exactly
/// `mode` from the first moment, whatever the umask is and whatever mode an older file had. A link
/// at `path` is replaced, not followed. Throws `FileError`: the old content stands then, unless
/// only its folder could not be synchronised, when a power cut may still bring the old content
/// back.
void writeFileAtomically(const std::string& path, std::string_view bytes, mode_t mode);

/// The same for a file that is not ours: an existing file's mode, owner and group are kept, a new
/// one gets 0644.
void replaceFileKeepingAttributes(const std::string& path, std::string_view bytes);

/// Makes the folder and those above it that are missing, each with mode 0777 less the umask, or
/// with exactly `mode` where one is given. An existing folder is success and is left as it is.
/// Throws `FileError`.
void makeFolders(const std::string& path, std::optional<mode_t> mode = std::nullopt);

/// Throws `FileError`.
void setMode(const std::string& path, mode_t mode);

/// Deletes the file or link at `path` for good: its folder is synchronised. Throws `FileError`,
/// also when there is none.
void removeFile(const std::string& path);

}  // namespace tarnvale::support
