// SPDX-License-Identifier: MIT
//
// A Mac as the C++ parts of platform/macos see it: the C interfaces that they call, over state that
// a test sets up. A test can make each call fail that can fail on a Mac, and each object that
// changes hands is counted (Heap.h).

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/macos/standin/Heap.h"
#include "tests/support/FakeNetworkPreferences.h"

namespace tarnvale::test {

/// The machine of one test; there is one at a time. Any thread may call the C interfaces.
class StandIn {
public:
    StandIn();
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;
    ~StandIn();

    static StandIn& current();

    // What can fail.

    /// The calls so far of the functions that can fail.
    std::vector<std::string> calls;

    /// The functions that always fail, and the one call that does, counted from 0.
    std::set<std::string, std::less<>> failing;
    std::optional<std::size_t> failingCall;

    /// Whether a failing function of the Security framework reports success, but has no object to
    /// give.
    bool failsQuietly = false;

    // The Security framework.

    /// A value in a dictionary: a string, given in either form, or a number.
    using Value = std::variant<std::string, std::u16string, std::int64_t>;

    /// A running program.
    struct Program {
        std::optional<Value> teamIdentifier;
        std::optional<Value> identifier;
        std::set<std::string, std::less<>> meets;  ///< the requirements that it is valid against
    };

    Program self;
    std::map<std::int64_t, Program> processes;
    std::set<std::string, std::less<>> malformed;  ///< texts that are not requirements

    // The directory and the console.

    struct Console {
        std::u16string name;
        std::optional<uid_t> uid;
    };

    std::map<gid_t, std::set<uid_t>> members;  ///< of each existing group
    std::optional<Console> console;

    // The network preferences.

    using VLAN = FakeNetworkPreferences::VLAN;

    std::vector<std::optional<std::string>>
        physical;  ///< the names of interfaces that can carry VLANs
    std::vector<VLAN> saved;
    std::vector<VLAN> inEffect;
    bool namesNewVLANs = true;
    std::vector<std::string> sessionNames;  ///< the names under which sessions were opened

    // The program.

    using Information = std::map<std::string, Value>;

    std::optional<Information> information;  ///< its information dictionary
    std::string executablePath = "/Applications/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper";
    bool endsExecutablePath = true;   ///< with a zero byte
    std::vector<int> inheritedFiles;  ///< the descriptors that a child is to inherit

    /// What the program did wrong with objects, and which ones it has not released.
    const std::vector<std::string>& complaints() const { return heap_.complaints(); }
    std::vector<std::string> stillOwned() const { return heap_.stillOwned(); }

private:
    friend class Call;

    standin::Heap heap_;
    std::mutex mutex_;
    standin::Object* mainBundle_ = nullptr;
    standin::Object* informationDictionary_ = nullptr;
};

/// One call of a C interface, from its first line to its last. Calls take turns.
class Call {
public:
    enum class Outcome { sure, canFail };

    explicit Call(std::string_view function, Outcome outcome = Outcome::canFail);

    /// Whether the call must fail.
    bool fails() const { return fails_; }

    StandIn& machine() { return machine_; }
    standin::Heap& heap() { return machine_.heap_; }

    /// The object that the program passes, if it is of this type.
    template <typename T>
    T* find(CFTypeRef reference) {
        return heap().find<T>(reference, function_);
    }

    /// Complains unless `holds`: the function's documentation or our use of it demands that.
    void demand(bool holds, const std::string& complaint);

    /// Makes the object that a dictionary has for the value.
    standin::Object& makeValue(const StandIn::Value& value);

    standin::Object*& mainBundle() { return machine_.mainBundle_; }
    standin::Object*& informationDictionary() { return machine_.informationDictionary_; }

private:
    std::string_view function_;
    StandIn& machine_;
    std::lock_guard<std::mutex> lock_;
    bool fails_ = false;
};

/// A test on a Mac. By its end everything it made must be gone, and every object released.
class OnAMac : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_THAT(mac.complaints(), testing::IsEmpty());
        EXPECT_THAT(mac.stillOwned(), testing::IsEmpty());
    }

    StandIn mac;
};

}  // namespace tarnvale::test
