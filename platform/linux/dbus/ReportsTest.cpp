// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/Reports.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeHelper.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;

/// Makes reports that say which one they are.
class Maker final : public test::FakeHelper {
public:
    std::atomic<int> begun = 0;
    std::atomic<int> underWay = 0;
    std::atomic<int> mayEnd = 0;  ///< the number of the last report that doesn't wait
    std::atomic<bool> fails = false;

private:
    ResultReply asked(std::string /*call*/) override {
        EXPECT_EQ(++underWay, 1) << "side by side";
        const int number = ++begun;
        while (number > mayEnd) {
            std::this_thread::sleep_for(1ms);
        }
        --underWay;
        if (fails) {
            throw std::runtime_error("no report");
        }
        return {.result = std::to_string(number), .error = std::nullopt};
    }
};

class ReportsTest : public testing::Test {
protected:
    using Answer = std::future<std::string>;

    /// Asks for a report on a thread of its own, and gives it the time to wait for one.
    Answer ask() {
        auto answer = std::async(std::launch::async, [this] {
            Reports::Request request(reports);
            return request.get(maker)->result.value();
        });
        std::this_thread::sleep_for(50ms);
        return answer;
    }

    Maker maker;
    Reports reports;
};

TEST_F(ReportsTest, OneServesAllWhoWaitForOne) {
    auto first = ask();
    std::vector<Answer> others;
    others.reserve(20);
    for (int count = 0; count < 20; ++count) {
        others.push_back(ask());
    }
    maker.mayEnd = 1000;

    EXPECT_EQ(first.get(), "1");
    for (auto& other : others) {
        EXPECT_EQ(other.get(), "2") << "the one under way may not show what was done meanwhile";
    }
    EXPECT_EQ(maker.begun, 2);
}

TEST_F(ReportsTest, ShowsWhatWasDoneBeforeTheRequest) {
    maker.mayEnd = 1000;
    Reports::Request before(reports);
    const auto old = before.get(maker);

    Reports::Request after(reports);

    EXPECT_EQ(old->result, "1");
    EXPECT_EQ(after.get(maker)->result, "2");
    EXPECT_EQ(before.get(maker)->result, "2") << "a later one will do as well";
}

TEST_F(ReportsTest, WhoeverStillWaitsFindsTheLastOneAgain) {
    maker.mayEnd = 1000;
    std::optional<Reports::Request> request(reports);
    const auto report = request->get(maker);

    EXPECT_EQ(request->get(maker), report);

    const std::weak_ptr<const ResultReply> kept = report;
    EXPECT_EQ(kept.use_count(), 2);
    request.reset();
    EXPECT_EQ(kept.use_count(), 1) << "it is kept for nobody";
}

TEST_F(ReportsTest, AFailureIsThatOfTheOneWhoMadeIt) {
    maker.fails = true;
    auto first = ask();
    auto second = ask();
    maker.mayEnd = 1;
    EXPECT_THROW(first.get(), std::runtime_error);
    while (maker.begun < 2) {
        std::this_thread::sleep_for(1ms);
    }

    maker.fails = false;
    maker.mayEnd = 2;

    EXPECT_EQ(second.get(), "2");
}

}  // namespace
}  // namespace tarnvale::platform
