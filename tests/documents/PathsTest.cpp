// SPDX-License-Identifier: MIT
//
// Files and folders that documents name are there.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/documents/Spans.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

TEST(PathsTest, DocumentsNameFilesThatThereAre) {
    for (const std::string document :
         {"README.md",
          "SECURITY.md",
          "docs/development.md",
          "docs/fleet.md",
          "docs/macos.md",
          "docs/signing.md",
          "packaging/linux/README.md"}) {
        for (const auto& path : pathsOf(contentOf(TARNVALE_SOURCE_DIR "/" + document))) {
            EXPECT_TRUE(std::filesystem::exists(TARNVALE_SOURCE_DIR "/" + path))
                << document << ": " << path;
        }
    }
}

}  // namespace
}  // namespace tarnvale::test
