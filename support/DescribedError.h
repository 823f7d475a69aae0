// SPDX-License-Identifier: MIT
//
// An error whose description quotes what somebody sent, and so may hold any character. what() ends
// at the first U+0000; the description doesn't.

#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tarnvale::support {

class DescribedError : public std::exception {
public:
    /// The whole sentence for the user.
    const std::string& description() const noexcept { return *description_; }

    const char* what() const noexcept override { return description_->c_str(); }

protected:
    explicit DescribedError(std::string description)
        : description_(std::make_shared<const std::string>(std::move(description))) {}

private:
    // Shared by the error's copies, because copying an error must not throw.
    std::shared_ptr<const std::string> description_;
};

/// What the error says: all of it, if it is a `DescribedError`.
inline std::string_view descriptionOf(const std::exception& error) {
    const auto* const described = dynamic_cast<const DescribedError*>(&error);
    return described != nullptr ? std::string_view(described->description()) : error.what();
}

}  // namespace tarnvale::support
