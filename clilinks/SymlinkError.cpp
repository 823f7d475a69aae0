// SPDX-License-Identifier: MIT

#include "clilinks/SymlinkError.h"

namespace tarnvale::HelperCLISymlink {

SymlinkError::SymlinkError(Case errorCase, const std::string& description)
    : std::runtime_error(description), case_(errorCase) {}

SymlinkError SymlinkError::cliMissing(const std::string& path) {
    return {Case::cliMissing, "The bundled 'tarnvale' tool isn't at " + path + "."};
}

SymlinkError SymlinkError::failed(const std::string& message) {
    return {Case::failed, message};
}

}  // namespace tarnvale::HelperCLISymlink
