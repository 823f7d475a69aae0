// SPDX-License-Identifier: MIT

#include "bench/SignedPrograms.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* authority = "/tmp/ca";
constexpr const char* roots = "/etc/tarnvale/code-signing-roots.pem";

/// A verdict on a file that changed a moment ago is not kept.
constexpr std::chrono::seconds freshFileTimeout{4};

void runScript(const std::string& words) {
    // NOLINTNEXTLINE(cert-env33-c): the commands are this file's own
    if (std::system((TARNVALE_SOURCE_DIR "/scripts/" + words).c_str()) != 0) {
        throw std::runtime_error(words);
    }
}

}  // namespace

void signAsApplication(const std::vector<std::string>& programs) {
    const std::string folder = authority;
    runScript("dev-ca " + folder);
    for (const std::string& program : programs) {
        runScript(
            "codesign " + folder + "/leaf.key " + folder + "/chain.pem com.brackwen.tarnvale " +
            program);
    }
    fs::create_directories(fs::path(roots).parent_path());
    fs::remove(roots);
    fs::copy_file(folder + "/root.pem", roots);
    std::this_thread::sleep_for(freshFileTimeout);
}

}  // namespace tarnvale::bench
