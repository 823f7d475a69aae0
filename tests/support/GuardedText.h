// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

namespace tarnvale::test {

/// Memory in which a text ends where nothing may be read any more: whoever looks at the byte behind
/// it ends by a signal. A std::string would hide that, since it has a terminator there.
class GuardedText {
public:
    /// For texts of up to `maxLength` bytes.
    explicit GuardedText(std::size_t maxLength) {
        const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        readable_ = (maxLength + page - 1) / page * page;
        size_ = readable_ + page;
        memory_ = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
        if (memory_ == MAP_FAILED || ::mprotect(end(), page, PROT_NONE) != 0) {
            throw std::runtime_error("no memory for a text with a guard");
        }
    }
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;
    ~GuardedText() { ::munmap(memory_, size_); }

    /// The text, in place of the one before.
    std::string_view hold(std::string_view text) {
        if (text.size() > readable_) {
            throw std::length_error("a text longer than its guard has room for");
        }
        char* const start = end() - text.size();
        std::ranges::copy(text, start);
        return {start, text.size()};
    }

private:
    char* end() const { return static_cast<char*>(memory_) + readable_; }

    void* memory_ = nullptr;
    std::size_t readable_ = 0;
    std::size_t size_ = 0;
};

/// Calls `read` with every beginning of the text, from none of it to all. Each ends at a guard.
template <class Read>
void readEveryBeginning(std::string_view text, const Read& read) {
    GuardedText guard(text.size());
    for (std::size_t length = 0; length <= text.size(); ++length) {
        read(guard.hold(text.substr(0, length)));
    }
}

}  // namespace tarnvale::test
