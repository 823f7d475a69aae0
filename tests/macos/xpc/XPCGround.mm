// SPDX-License-Identifier: MIT

#include "tests/macos/xpc/XPCGround.h"

#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include <objc/runtime.h>

#include "platform/macos/FoundationText.h"

namespace tarnvale::test {
namespace {

using platform::toNSString;
using platform::toUtf8;

/// A method of the system's that is another's for the length of a test.
class Replacement {
public:
    Replacement(Class type, SEL selector, IMP instead)
        : method_(class_getInstanceMethod(type, selector)),
          before_(method_setImplementation(method_, instead)) {}
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement() { method_setImplementation(method_, before_); }

    IMP before() const { return before_; }

private:
    Method method_;
    IMP before_;
};

struct State {
    std::vector<std::string> offered;
    std::vector<std::string> wanted;
    std::vector<NSXPCConnectionOptions> options;
    NSXPCListener* listener = nil;

    std::mutex mutex;  ///< guards the rest: connections come on queues
    std::vector<std::string> requirements;
    std::string otherRequirement = metRequirement;

    Replacement listenerMaker;
    Replacement connectionMaker;
    Replacement requirementSetter;

    State();
};

State* state = nullptr;

// As with the methods whose place they take, the object is theirs and the result the caller's.
#define TARNVALE_CONSUMED __attribute__((ns_consumed))
#define TARNVALE_RETAINED __attribute__((ns_returns_retained))

/// Leaves the object alone for which it is called: nobody says what becomes of one that was never
/// initialised.
TARNVALE_RETAINED NSXPCListener* offerInstead(
    TARNVALE_CONSUMED NSXPCListener* object, SEL /*selector*/, NSString* name) {
    static auto& unused = *new std::vector<NSXPCListener*>;
    unused.push_back(object);
    state->offered.push_back(toUtf8(name));
    state->listener = [NSXPCListener anonymousListener];
    return state->listener;
}

TARNVALE_RETAINED NSXPCConnection* connectInstead(
    TARNVALE_CONSUMED NSXPCConnection* object,
    SEL /*selector*/,
    NSString* name,
    NSXPCConnectionOptions options) {
    state->wanted.push_back(toUtf8(name));
    state->options.push_back(options);
    return [object initWithListenerEndpoint:state->listener.endpoint];
}

void requireInstead(NSXPCConnection* object, SEL selector, NSString* requirement) {
    auto text = toUtf8(requirement);
    {
        const std::lock_guard lock(state->mutex);
        state->requirements.push_back(text);
        const std::set<std::string> known{metRequirement, unmetRequirement, malformedRequirement};
        if (!known.contains(text)) {
            text = state->otherRequirement;
        }
    }
    reinterpret_cast<void (*)(NSXPCConnection*, SEL, NSString*)>(state->requirementSetter.before())(
        object, selector, toNSString(text));
}

template <typename Function>
IMP implementation(Function* function) {
    return reinterpret_cast<IMP>(function);
}

State::State()
    : listenerMaker(
          [NSXPCListener class],
          @selector(initWithMachServiceName:),
          implementation(&offerInstead)),
      connectionMaker(
          [NSXPCConnection class],
          @selector(initWithMachServiceName:options:),
          implementation(&connectInstead)),
      requirementSetter(
          [NSXPCConnection class],
          @selector(setCodeSigningRequirement:),
          implementation(&requireInstead)) {}

}  // namespace

XPCGround::XPCGround() {
    state = new State;
}

XPCGround::~XPCGround() {
    [state->listener invalidate];
    delete state;
    state = nullptr;
}

const std::vector<std::string>& XPCGround::offered() const {
    return state->offered;
}

const std::vector<std::string>& XPCGround::wanted() const {
    return state->wanted;
}

const std::vector<NSXPCConnectionOptions>& XPCGround::options() const {
    return state->options;
}

std::vector<std::string> XPCGround::requirements() const {
    const std::lock_guard lock(state->mutex);
    return state->requirements;
}

NSXPCListener* XPCGround::listener() const {
    return state->listener;
}

void XPCGround::offer(NSXPCListener* listener) {
    state->listener = listener;
}

void XPCGround::setRequirement(const std::string& requirement) {
    const std::lock_guard lock(state->mutex);
    state->otherRequirement = requirement;
}

bool eventually(const std::function<bool()>& condition) {
    using namespace std::chrono_literals;
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

}  // namespace tarnvale::test
