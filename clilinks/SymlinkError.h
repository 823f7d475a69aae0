// SPDX-License-Identifier: MIT
//
// Why the command-line tool was not linked or its links were not removed.

#pragma once

#include <stdexcept>
#include <string>

namespace tarnvale::HelperCLISymlink {

/// what() is the whole sentence for the user.
class SymlinkError : public std::runtime_error {
public:
    enum class Case { cliMissing, failed };

    /// This copy of the application has no tool at the path.
    static SymlinkError cliMissing(const std::string& path);

    static SymlinkError failed(const std::string& message);

    Case errorCase() const noexcept { return case_; }

private:
    SymlinkError(Case errorCase, const std::string& description);

    Case case_;
};

}  // namespace tarnvale::HelperCLISymlink
