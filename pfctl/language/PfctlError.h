// SPDX-License-Identifier: MIT
//
// Why a command of pfctl failed.

#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

namespace tarnvale::pfctl {

/// what() is the sentence after "pfctl: ".
class PfctlError : public std::runtime_error {
public:
    explicit PfctlError(const std::string& text) : std::runtime_error(text) {}

    /// "SUBJECT: " and the system's own text for the error number.
    PfctlError(const std::string& subject, int errorNumber)
        : std::runtime_error(subject + ": " + std::generic_category().message(errorNumber)) {}
};

}  // namespace tarnvale::pfctl
