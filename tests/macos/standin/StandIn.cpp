// SPDX-License-Identifier: MIT

#include "tests/macos/standin/StandIn.h"

#include <cstdlib>
#include <iostream>

namespace tarnvale::test {
namespace {

StandIn* theMachine = nullptr;

}  // namespace

StandIn::StandIn() {
    theMachine = this;
}

StandIn::~StandIn() {
    theMachine = nullptr;
}

StandIn& StandIn::current() {
    if (theMachine == nullptr) {
        std::cerr << "a Mac's function is called outside a test on a Mac\n";
        std::abort();
    }
    return *theMachine;
}

Call::Call(std::string_view function, Outcome outcome)
    : function_(function), machine_(StandIn::current()), lock_(machine_.mutex_) {
    if (outcome == Outcome::canFail) {
        fails_ =
            machine_.failing.contains(function) || machine_.failingCall == machine_.calls.size();
        machine_.calls.emplace_back(function);
    }
}

void Call::demand(bool holds, const std::string& complaint) {
    if (!holds) {
        heap().complain(function_, complaint);
    }
}

standin::Object& Call::makeValue(const StandIn::Value& value) {
    if (const auto* const number = std::get_if<std::int64_t>(&value)) {
        return heap().makePart<standin::Number>(*number, CFNumberType{kCFNumberSInt64Type});
    }
    const auto* const text = std::get_if<std::string>(&value);
    return heap().makePart<standin::String>(
        text != nullptr ? standin::utf16(*text) : std::get<std::u16string>(value));
}

}  // namespace tarnvale::test
