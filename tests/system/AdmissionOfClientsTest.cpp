// SPDX-License-Identifier: MIT
//
// Whom the service lets in, by how client and helper are signed.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

using testing::ElementsAre;

class AdmissionOfClientsTest : public testing::Test {
protected:
    ServiceLab lab;
};

TEST_F(AdmissionOfClientsTest, AdmitsBothPrograms) {
    const Service service;
    for (const char* identifier : {applicationIdentifier, serviceProcessIdentifier}) {
        ServiceClient client(lab.signedClient(identifier, lab.development));

        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion())) << identifier;
    }
    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage()));
}

TEST_F(AdmissionOfClientsTest, TurnsAnUnsignedClientAway) {
    const Service service;
    ServiceClient client(clientProgram, firstUser);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre("closed"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            listeningMessage(),
            "Rejected XPC client pid=" + std::to_string(client.pid()) +
                " uid=502: not Tarnvale or its service signed by K7PD2QM4TZ."));
}

}  // namespace
}  // namespace tarnvale::test
