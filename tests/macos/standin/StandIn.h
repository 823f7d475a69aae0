// SPDX-License-Identifier: MIT
//
// A Mac for the C++ parts of platform/macos, as far as they look at one: the C interfaces that they
// call, over state that a test sets up. Each call that can fail on a Mac can be made to fail here,
// and each object that changes hands is counted (Heap.h).

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

/// The machine of one test; one at a time. The C interfaces may be called from any thread.
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

    /// The functions that fail each time, and the one call that does, counted from 0.
    std::set<std::string, std::less<>> failing;
    std::optional<std::size_t> failingCall;

    /// Whether a failing function of the Security framework says that all is well, and then has
    /// no object to give.
    bool failsQuietly = false;

    // The Security framework.

    /// A value in a dictionary: a string, given in either form, or a number.
    using Value = std::variant<std::string, std::u16string, std::int64_t>;

    /// A program that runs.
    struct Program {
        std::optional<Value> teamIdentifier;
        std::optional<Value> identifier;
        std::set<std::string, std::less<>> meets;  ///< the requirements that it is valid against
    };

    Program self;
    std::map<std::int64_t, Program> processes;
    std::set<std::string, std::less<>> malformed;  ///< texts that are no requirements

    // The directory and the console.

    struct Console {
        std::u16string name;
        std::optional<uid_t> uid;
    };

    std::map<gid_t, std::set<uid_t>> members;  ///< of the groups that there are
    std::optional<Console> console;

    // The network preferences.

    using VLAN = FakeNetworkPreferences::VLAN;

    std::vector<std::optional<std::string>> physical;  ///< the names of what can carry a VLAN
    std::vector<VLAN> saved;
    std::vector<VLAN> inEffect;
    bool namesNewVLANs = true;
    std::vector<std::string> sessionNames;  ///< under which sessions were opened

    // The program.

    using Information = std::map<std::string, Value>;

    std::optional<Information> information;  ///< its information dictionary
    std::string executablePath = "/Applications/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper";
    bool endsExecutablePath = true;   ///< by a zero byte
    std::vector<int> inheritedFiles;  ///< the descriptors that a child is to inherit

    /// What the program did wrong with objects, and what it has not released.
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

    /// Whether it is to fail.
    bool fails() const { return fails_; }

    StandIn& machine() { return machine_; }
    standin::Heap& heap() { return machine_.heap_; }

    /// The object that the program passes, if it is one of this type.
    template <typename T>
    T* find(CFTypeRef reference) {
        return heap().find<T>(reference, function_);
    }

    /// Complains unless `holds`, which the function's documentation or our use of it demands.
    void demand(bool holds, const std::string& complaint);

    /// Makes what a dictionary has for a value.
    standin::Object& makeValue(const StandIn::Value& value);

    standin::Object*& mainBundle() { return machine_.mainBundle_; }
    standin::Object*& informationDictionary() { return machine_.informationDictionary_; }

private:
    std::string_view function_;
    StandIn& machine_;
    std::lock_guard<std::mutex> lock_;
    bool fails_ = false;
};

/// A test on a Mac. What it makes must be gone by its end: then every object has to be released.
class OnAMac : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_THAT(mac.complaints(), testing::IsEmpty());
        EXPECT_THAT(mac.stillOwned(), testing::IsEmpty());
    }

    StandIn mac;
};

}  // namespace tarnvale::test
