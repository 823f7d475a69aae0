// SPDX-License-Identifier: MIT

#include "vlan/VLANError.h"

#include <gtest/gtest.h>

namespace tarnvale::HelperVLAN {
namespace {

TEST(VLANErrorTest, SaysWhatTheUserReads) {
    EXPECT_STREQ(
        VLANError::noSuchPhysicalInterface("en7").what(), "No physical interface named en7.");
    EXPECT_STREQ(VLANError::notFound("vlan3").what(), "No VLAN interface named vlan3.");
    EXPECT_STREQ(VLANError::preferences().what(), "Could not open the system network preferences.");
    EXPECT_STREQ(VLANError::createFailed().what(), "macOS refused to create the VLAN interface.");
    EXPECT_STREQ(
        VLANError::notCreatedByHelper().what(), "Tarnvale's helper only removes VLANs it created.");
    EXPECT_STREQ(VLANError::commitFailed().what(), "Could not save the network configuration.");
}

TEST(VLANErrorTest, KnowsItsCase) {
    using Case = VLANError::Case;

    EXPECT_EQ(VLANError::noSuchPhysicalInterface("en7").errorCase(), Case::noSuchPhysicalInterface);
    EXPECT_EQ(VLANError::notFound("vlan3").errorCase(), Case::notFound);
    EXPECT_EQ(VLANError::preferences().errorCase(), Case::preferences);
    EXPECT_EQ(VLANError::createFailed().errorCase(), Case::createFailed);
    EXPECT_EQ(VLANError::notCreatedByHelper().errorCase(), Case::notCreatedByHelper);
    EXPECT_EQ(VLANError::commitFailed().errorCase(), Case::commitFailed);
}

}  // namespace
}  // namespace tarnvale::HelperVLAN
