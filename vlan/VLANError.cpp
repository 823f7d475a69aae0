// SPDX-License-Identifier: MIT

#include "vlan/VLANError.h"

#include <utility>

namespace tarnvale::HelperVLAN {

VLANError::VLANError(Case errorCase, std::string description)
    : DescribedError(std::move(description)), case_(errorCase) {}

VLANError VLANError::noSuchPhysicalInterface(std::string_view parentBSD) {
    return {
        Case::noSuchPhysicalInterface,
        "No physical interface named " + std::string(parentBSD) + "."};
}

VLANError VLANError::notFound(std::string_view bsdName) {
    return {Case::notFound, "No VLAN interface named " + std::string(bsdName) + "."};
}

VLANError VLANError::preferences() {
    return {Case::preferences, "Could not open the system network preferences."};
}

VLANError VLANError::createFailed() {
    return {Case::createFailed, "macOS refused to create the VLAN interface."};
}

VLANError VLANError::notCreatedByHelper() {
    return {Case::notCreatedByHelper, "Tarnvale's helper only removes VLANs it created."};
}

VLANError VLANError::commitFailed() {
    return {Case::commitFailed, "Could not save the network configuration."};
}

}  // namespace tarnvale::HelperVLAN
