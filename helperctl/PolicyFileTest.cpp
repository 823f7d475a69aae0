// SPDX-License-Identifier: MIT

#include "helperctl/PolicyFile.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::helperctl {
namespace {

namespace fs = std::filesystem;
using testing::ThrowsMessage;

const char* const filePath = "/tmp/policy.json";

TEST(PolicyFileTest, ReadsAFileAsItIs) {
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 3000000U}) {
        std::string content(size, '\xFF');
        if (size > 0) {
            content[size / 2] = '\0';
        }
        test::put(filePath, content);

        EXPECT_EQ(readPolicyFile(filePath), content) << size;
    }
}

TEST(PolicyFileTest, ReadsOnAfterASignal) {
    test::put(filePath, "[1]");

    const int interrupted =
        test::interruptCalls(SYS_read, [] { EXPECT_EQ(readPolicyFile(filePath), "[1]"); });

    EXPECT_GT(interrupted, 0);
}

TEST(PolicyFileTest, ReadsUpToWhatARequestCarries) {
    test::put(filePath, "");
    fs::resize_file(filePath, maxPolicyFileSize);

    EXPECT_EQ(readPolicyFile(filePath).size(), maxPolicyFileSize);

    fs::resize_file(filePath, maxPolicyFileSize + 1);
    EXPECT_THAT(
        [] { readPolicyFile(filePath); },
        ThrowsMessage<std::runtime_error>(
            "Could not read \"/tmp/policy.json\": it is larger than 64 MiB."));
}

TEST(PolicyFileTest, EndsWithAnEndlessFile) {
    EXPECT_THAT(
        [] { readPolicyFile("/dev/zero"); },
        ThrowsMessage<std::runtime_error>(
            "Could not read \"/dev/zero\": it is larger than 64 MiB."));
}

TEST(PolicyFileTest, ReadsWhatComesInPieces) {
    const char* const pipe = "/tmp/policy.pipe";
    ASSERT_EQ(::mkfifo(pipe, 0600), 0);
    std::thread writer([pipe] {
        const support::UniqueFd fifo(::open(pipe, O_WRONLY | O_CLOEXEC));
        for (const char* piece : {"[", "{}", "]"}) {
            EXPECT_GT(::write(fifo.get(), piece, std::char_traits<char>::length(piece)), 0);
        }
    });

    EXPECT_EQ(readPolicyFile(pipe), "[{}]");

    writer.join();
}

TEST(PolicyFileTest, ReadsStandardInput) {
    test::put(filePath, "[1]");
    const support::UniqueFd file(::open(filePath, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::dup2(file.get(), STDIN_FILENO), STDIN_FILENO);

    EXPECT_EQ(readPolicyFile("-"), "[1]");

    const support::UniqueFd folder(::open("/tmp", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::dup2(folder.get(), STDIN_FILENO), STDIN_FILENO);
    EXPECT_THAT(
        [] { readPolicyFile("-"); },
        ThrowsMessage<std::runtime_error>("Could not read standard input: Is a directory."));
}

TEST(PolicyFileTest, NamesTheFileThatCantBeRead) {
    struct Case {
        const char* path = nullptr;
        const char* problem = nullptr;
    };
    const std::vector<Case> cases{
        {"/tmp/none", "Could not read \"/tmp/none\": No such file or directory."},
        {"", "Could not read \"\": No such file or directory."},
        {"/tmp", "Could not read \"/tmp\": Is a directory."},
        {"/tmp/\xFFx", "Could not read \"/tmp/\uFFFDx\": No such file or directory."}};
    for (const Case& unreadable : cases) {
        EXPECT_THAT(
            [&] { readPolicyFile(unreadable.path); },
            ThrowsMessage<std::runtime_error>(unreadable.problem));
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
