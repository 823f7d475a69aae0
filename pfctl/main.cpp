// SPDX-License-Identifier: MIT
//
// pfctl for Linux: loads pf rulesets into the kernel's nftables and says what it enforces. Results
// and errors go to standard error, only listings to standard output, as with pf's own tool.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>
#include <vector>

#include "pfctl/Commands.h"
#include "pfctl/language/Arguments.h"
#include "pfctl/language/PfctlError.h"
#include "support/StandardDescriptors.h"

namespace {

void complain(const char* text) {
    for (const char* const part : {"pfctl: ", text, "\n"}) {
        std::fputs(part, stderr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace tarnvale;  // NOLINT(google-build-using-namespace): of this program's own
    try {
        support::openStandardDescriptors();
        const std::vector<std::string_view> words(argv + (argc > 0 ? 1 : 0), argv + argc);
        return pfctl::run(pfctl::parseArguments(words));
    } catch (const pfctl::UsageError& error) {
        complain(error.what());
        std::fputs(pfctl::usageText.data(), stderr);
    } catch (const std::bad_alloc&) {
        complain("Cannot allocate memory");
    } catch (const std::exception& error) {
        complain(error.what());
    }
    return EXIT_FAILURE;
}
