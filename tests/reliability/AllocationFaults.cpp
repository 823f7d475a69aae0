// SPDX-License-Identifier: MIT

#include "tests/reliability/AllocationFaults.h"

#include <algorithm>
#include <limits>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/FailedStep.h"

namespace tarnvale::test {
namespace {

constexpr const char* library = TARNVALE_BIN_DIR "/failed-allocations.so";

}  // namespace

AllocationFaults::AllocationFaults(std::string_view program)
    : path_("/run/failed-allocations-" + std::string(program)) {
    const support::UniqueFd file(
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file || ::ftruncate(file.get(), sizeof(FailedAllocations)) != 0) {
        fail(path_);
    }
    void* const mapped = ::mmap(
        nullptr, sizeof(FailedAllocations), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) {
        fail("mmap");
    }
    shared_ = new (mapped) FailedAllocations{};
    // The kernel keeps 15 characters of a program's name, but this is the name of its file.
    const auto kept = std::min(program.size(), shared_->program.size() - 1);
    std::copy_n(program.begin(), kept, shared_->program.begin());
}

AllocationFaults::~AllocationFaults() {
    ::munmap(shared_, sizeof(FailedAllocations));
    ::unlink(path_.c_str());
}

std::vector<std::string> AllocationFaults::environment() const {
    return {
        std::string("LD_PRELOAD=") + library, std::string(failedAllocationsVariable) + "=" + path_};
}

void AllocationFaults::begin(const ChosenAllocations& chosen) {
    end();
    shared_->made = 0;
    shared_->wasMet = false;
    shared_->until = 0;
    if (chosen.within) {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        shared_->until = std::chrono::nanoseconds(now + *chosen.within).count();
    }
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    shared_->last = chosen.count > most - chosen.first ? most : chosen.first + chosen.count - 1;
    shared_->first = chosen.first;
}

void AllocationFaults::end() {
    shared_->first = 0;
}

}  // namespace tarnvale::test
