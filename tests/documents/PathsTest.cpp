// SPDX-License-Identifier: MIT
//
// Files and folders that documents name are there.

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Spans.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

const fs::path& sources() {
    static const auto& path = *new fs::path(TARNVALE_SOURCE_DIR);
    return path;
}

/// The documents among the sources, but for what was built there.
std::vector<fs::path> documents() {
    std::vector<fs::path> found;
    for (auto file = fs::recursive_directory_iterator(sources());
         file != fs::recursive_directory_iterator();
         ++file) {
        const auto name = file->path().filename().string();
        if (file->is_directory() && (name.starts_with('.') || name == "build")) {
            file.disable_recursion_pending();
        } else if (name.ends_with(".md")) {
            found.push_back(file->path());
        }
    }
    return found;
}

TEST(PathsTest, DocumentsNameFilesThatThereAre) {
    std::size_t count = 0;
    for (const auto& document : documents()) {
        for (const auto& path : pathsOf(contentOf(document))) {
            EXPECT_TRUE(fs::exists(sources() / path)) << document << ": " << path;
            ++count;
        }
    }
    EXPECT_GT(count, 200U);
}

TEST(PathsTest, DocumentsRunScriptsThatThereAre) {
    std::size_t count = 0;
    for (const auto& document : documents()) {
        for (const auto& block : blocksOf(contentOf(document))) {
            for (const auto line : support::split(block, '\n')) {
                if (line.starts_with("scripts/")) {
                    EXPECT_TRUE(fs::exists(sources() / line.substr(0, line.find(' '))))
                        << document << ": " << line;
                    ++count;
                }
            }
        }
    }
    EXPECT_GT(count, 20U);
}

}  // namespace
}  // namespace tarnvale::test
