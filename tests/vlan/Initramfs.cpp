// SPDX-License-Identifier: MIT

#include "tests/vlan/Initramfs.h"

#include <array>
#include <cstdio>

#include <sys/stat.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Libraries.h"

namespace tarnvale::test {
namespace {

constexpr mode_t programMode = S_IFREG | 0755;
constexpr mode_t folderMode = S_IFDIR | 0755;

void padToFour(std::string& text) {
    text.append((4 - text.size() % 4) % 4, '\0');
}

/// One file as the archive holds it. Everything belongs to root.
std::string entry(std::string_view path, mode_t mode, std::string_view content) {
    const auto nameSize = static_cast<unsigned>(path.size() + 1);
    const auto size = static_cast<unsigned>(content.size());
    // Inode, mode, user, group, links, time, size, four device numbers, the name's size, checksum.
    const std::array<unsigned, 13> fields{0, mode, 0, 0, 1, 0, size, 0, 0, 0, 0, nameSize, 0};
    std::string text = "070701";
    for (const unsigned field : fields) {
        std::array<char, 9> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", field);
        text += digits.data();
    }
    text.append(path).push_back('\0');
    padToFour(text);
    text += content;
    padToFour(text);
    return text;
}

}  // namespace

void Initramfs::add(const std::string& path, const std::string& file) {
    if (paths_.insert(path).second) {
        addFolder(path.substr(0, path.rfind('/')));
        entries_ += entry(path.substr(1), programMode, contentOf(file));
    }
}

void Initramfs::addProgram(const std::string& path, const std::string& program) {
    add(path, program);
    for (const auto& library : librariesOf(program)) {
        add(library, library);
    }
}

void Initramfs::addFolder(const std::string& path) {
    if (!path.empty() && paths_.insert(path).second) {
        addFolder(path.substr(0, path.rfind('/')));
        entries_ += entry(path.substr(1), folderMode, {});
    }
}

std::string Initramfs::archive() const {
    return entries_ + entry("TRAILER!!!", 0, {});
}

}  // namespace tarnvale::test
