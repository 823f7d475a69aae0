// SPDX-License-Identifier: MIT

#include "tests/support/HelperFiles.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <sys/stat.h>

namespace tarnvale::test {

namespace fs = std::filesystem;

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("no file " + path);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void put(const std::string& path, std::string_view content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush()) {
        throw std::runtime_error("can't write " + path);
    }
}

bool exists(const std::string& path) {
    return fs::exists(fs::symlink_status(path));
}

mode_t modeOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        throw std::runtime_error("nothing at " + path);
    }
    constexpr mode_t permissions = 07777;
    return info.st_mode & permissions;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> messagesOf(const std::string& log) {
    static const std::regex form(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ) (.*))");
    std::vector<std::string> messages;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, form)) {
            throw std::runtime_error("a log line of another form: " + line);
        }
        messages.push_back(parts[2]);
    }
    return messages;
}

std::vector<std::string> logMessages() {
    return exists(logPath) ? messagesOf(contentOf(logPath)) : std::vector<std::string>();
}

}  // namespace tarnvale::test
