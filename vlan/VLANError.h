// SPDX-License-Identifier: MIT
//
// Why a VLAN interface was not created or not deleted.

#pragma once

#include <string>
#include <string_view>

#include "support/DescribedError.h"

namespace tarnvale::HelperVLAN {

class VLANError : public support::DescribedError {
public:
    enum class Case {
        noSuchPhysicalInterface,
        notFound,
        preferences,
        createFailed,
        notCreatedByHelper,
        commitFailed,
    };

    /// No interface of that name can carry a VLAN.
    static VLANError noSuchPhysicalInterface(std::string_view parentBSD);

    /// No VLAN interface has the name.
    static VLANError notFound(std::string_view bsdName);

    static VLANError preferences();
    static VLANError createFailed();
    static VLANError notCreatedByHelper();
    static VLANError commitFailed();

    Case errorCase() const noexcept { return case_; }

private:
    VLANError(Case errorCase, std::string description);

    Case case_;
};

}  // namespace tarnvale::HelperVLAN
