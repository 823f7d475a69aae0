// SPDX-License-Identifier: MIT
//
// SourceCheckTest: what the tests of the scripts that read sources share.
#pragma once

#include <map>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

/// A tree of files, and a script that reads the names of sources, looks at these, prints its
/// findings and fails if it has any.
class SourceCheckTest : public testing::Test {
protected:
    /// The script's absolute path.
    explicit SourceCheckTest(std::string script) : script_(std::move(script)) {}

    /// What the script says of the tree. Sources are all files outside of docs.
    Finished check() const {
        std::string sources;
        for (const auto& [name, content] : tree) {
            put("/tmp/tree/" + name, content);
            if (!name.starts_with("docs/")) {
                sources += name + '\n';
            }
        }
        return run({"/bin/sh", "-c", "cd /tmp/tree && exec \"$0\"", script_}, sources);
    }

    void expectProblem(const std::string& sentence) const {
        const Finished checked = check();

        EXPECT_EQ(checked.output, sentence + "\n");
        EXPECT_EQ(checked.error, "");
        EXPECT_EQ(checked.status, 1);
    }

    void expectNoProblem() const {
        const Finished checked = check();

        EXPECT_EQ(checked.output + checked.error, "");
        EXPECT_EQ(checked.status, 0);
    }

    /// The files' contents by their names.
    std::map<std::string, std::string> tree;

private:
    std::string script_;
};

}  // namespace tarnvale::test
