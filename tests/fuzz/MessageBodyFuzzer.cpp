// SPDX-License-Identifier: MIT
//
// Any bytes as a call: whatever is handed out lies in them, and a text is one that D-Bus allows.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "platform/linux/dbus/MessageBody.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"

namespace {

using tarnvale::platform::MessageBody;
using tarnvale::test::require;

void checkText(std::string_view message, MessageBody& body) {
    const auto text = body.nextText();
    require(message.data() <= text.data());
    require(text.data() + text.size() < message.data() + message.size());
    require(text.find('\0') == std::string_view::npos && tarnvale::support::isValidUtf8(text));
}

template <typename Arguments>
void takeFrom(std::string_view message, Arguments arguments) {
    try {
        MessageBody body(message);
        arguments(body);
    } catch (const std::system_error&) {
        // It isn't such a call.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view message(reinterpret_cast<const char*>(data), size);
    takeFrom(message, [&](MessageBody& body) {
        checkText(message, body);
        body.nextInteger();
        checkText(message, body);
        body.end();
    });
    takeFrom(message, [](MessageBody& body) {
        body.nextBool();
        body.end();
    });
    return 0;
}
