// SPDX-License-Identifier: MIT
//
// Any bytes as a signed executable, as its CMS message and as its signed text. Without roots
// nothing is trusted, whatever it says.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/SignedData.h"
#include "support/UniqueFd.h"

namespace {

using namespace tarnvale;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void readMessage(std::string_view message) {
    const auto claims = platform::readClaims(message);
    require(!claims || claims->content.sha256.size() == 64);
    require(!platform::verify(message, ""));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const support::UniqueFd file(::memfd_create("executable", MFD_CLOEXEC));
    require(::pwrite(file.get(), data, size, 0) == static_cast<ssize_t>(size));

    if (const auto trailer = platform::readTrailer(file.get(), static_cast<off_t>(size))) {
        require(static_cast<std::size_t>(trailer->programSize) + trailer->message.size() < size);
        readMessage(trailer->message);
    }
    readMessage(bytes);
    if (const auto content = platform::parseSignedContent(bytes)) {
        require(
            "tarnvale-code-signature 1\nidentifier " + content->identifier + "\nsha256 " +
                content->sha256 + "\n" ==
            bytes);
    }
    return 0;
}
