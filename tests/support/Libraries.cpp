// SPDX-License-Identifier: MIT

#include "tests/support/Libraries.h"

#include <array>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

/// What a command prints.
std::string outputOf(const std::string& command) {
    struct Close {
        void operator()(std::FILE* pipe) const { ::pclose(pipe); }
    };
    // NOLINTNEXTLINE(cert-env33-c): the commands are this file's
    const std::unique_ptr<std::FILE, Close> pipe(::popen((command + " 2>/dev/null").c_str(), "re"));
    std::string output;
    std::array<char, 4096> buffer{};
    while (pipe != nullptr) {
        const auto count = std::fread(buffer.data(), 1, buffer.size(), pipe.get());
        if (count == 0) {
            break;
        }
        output.append(buffer.data(), count);
    }
    return output;
}

}  // namespace

std::vector<fs::path> librariesOf(const fs::path& file) {
    std::istringstream words(outputOf("ldd '" + file.string() + "'"));
    std::vector<fs::path> libraries;
    for (std::string word; words >> word;) {
        if (word.starts_with('/')) {
            libraries.emplace_back(word);
        }
    }
    return libraries;
}

std::optional<fs::path> libraryPath(std::string_view name) {
    std::istringstream lines(outputOf("ldconfig -p || /sbin/ldconfig -p"));
    for (std::string line; std::getline(lines, line);) {
        const auto place = line.find("=> ");
        if (place != std::string::npos && line.find(name) != std::string::npos) {
            return line.substr(place + 3);
        }
    }
    return std::nullopt;
}

}  // namespace tarnvale::test
