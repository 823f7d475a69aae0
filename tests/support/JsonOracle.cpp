// SPDX-License-Identifier: MIT

#include "tests/support/JsonOracle.h"

#include <algorithm>
#include <exception>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "support/JsonReader.h"

namespace tarnvale::test {

namespace {

using nlohmann::json;

OracleValue::Content contentOf(const json& value);

OracleValue::List listOf(const json& value) {
    OracleValue::List list;
    for (const json& item : value) {
        list.emplace_back(contentOf(item));
    }
    return list;
}

OracleValue::Object objectOf(const json& value) {
    OracleValue::Object object;
    for (const auto& [key, item] : value.items()) {
        object.emplace_back(key, OracleValue(contentOf(item)));
    }
    return object;
}

OracleValue::Content contentOf(const json& value) {
    switch (value.type()) {
        case json::value_t::boolean:
            return value.get<bool>();
        case json::value_t::number_integer:
            return value.get<std::int64_t>();
        case json::value_t::number_unsigned:
            if (value.get<std::uint64_t>() <= INT64_MAX) {
                return value.get<std::int64_t>();
            }
            return value.get<std::uint64_t>();
        case json::value_t::number_float:
            return value.get<double>();
        case json::value_t::string:
            return value.get<std::string>();
        case json::value_t::array:
            return listOf(value);
        case json::value_t::object:
            return objectOf(value);
        default:
            return nullptr;
    }
}

/// Counts and compares what the reader meets.
class Watch {
public:
    explicit Watch(JsonVerdict& verdict) : verdict_(verdict) {}

    std::size_t maxDepth() const { return maxDepth_; }

    void see(json::parse_event_t event, const json& parsed) {
        using Event = json::parse_event_t;
        if (event == Event::object_start || event == Event::array_start) {
            maxDepth_ = std::max(maxDepth_, ++depth_);
        } else if (event == Event::object_end || event == Event::array_end) {
            --depth_;
        }
        if (event == Event::object_start) {
            keys_.emplace_back();
        } else if (event == Event::object_end) {
            keys_.pop_back();
        } else if (event == Event::key) {
            verdict_.hasDuplicateKeys |= !keys_.back().insert(parsed.get<std::string>()).second;
        }
    }

private:
    JsonVerdict& verdict_;
    std::vector<std::set<std::string>> keys_;  ///< of each object that has not ended
    std::size_t depth_ = 0;
    std::size_t maxDepth_ = 0;
};

template <class Type>
const Type& contentAs(const OracleValue& value) {
    return std::get<Type>(value.content());
}

}  // namespace

bool OracleValue::contains(std::string_view key) const {
    const auto* const object = std::get_if<Object>(&content_);
    return object != nullptr &&
           std::ranges::find(*object, key, &Object::value_type::first) != object->end();
}

const OracleValue& OracleValue::at(std::string_view key) const {
    const auto& object = std::get<Object>(content_);
    const auto found = std::ranges::find(object, key, &Object::value_type::first);
    return found != object.end() ? found->second : throw std::out_of_range(std::string(key));
}

JsonVerdict jsonVerdict(const std::string& text) {
    JsonVerdict verdict;
    Watch watch(verdict);
    try {
        const auto value =
            json::parse(text, [&](int /*depth*/, json::parse_event_t event, const json& parsed) {
                watch.see(event, parsed);
                return true;
            });
        // It takes a NUL for the end.
        verdict.ourReaderTakes =
            text.find('\0') == std::string::npos && watch.maxDepth() <= support::maxJsonDepth;
        if (verdict.ourReaderTakes) {
            verdict.value = OracleValue(contentOf(value));
        }
    } catch (const json::out_of_range&) {
        verdict.isTooLargeForIt = true;
    } catch (const json::parse_error&) {
        verdict.ourReaderTakes = false;
    }
    return verdict;
}

OracleValue jsonValue(const std::string& text) {
    return OracleValue(contentOf(json::parse(text)));
}

bool isJson(const std::string& text) {
    return json::accept(text);
}

std::int64_t jsonInteger(const OracleValue& value) {
    if (std::holds_alternative<double>(value.content())) {
        throw CannotTell();
    }
    return contentAs<std::int64_t>(value);
}

double jsonNumber(const OracleValue& value) {
    if (const auto* const integer = std::get_if<std::int64_t>(&value.content())) {
        return static_cast<double>(*integer);
    }
    if (const auto* const large = std::get_if<std::uint64_t>(&value.content())) {
        return static_cast<double>(*large);
    }
    const auto number = contentAs<double>(value);
    return number != 0.0 ? number : throw CannotTell();
}

bool jsonFlag(const OracleValue& value) {
    return contentAs<bool>(value);
}

std::string jsonText(const OracleValue& value) {
    return contentAs<std::string>(value);
}

const OracleValue::List& jsonList(const OracleValue& value) {
    return contentAs<OracleValue::List>(value);
}

const OracleValue::Object& jsonObject(const OracleValue& value) {
    return contentAs<OracleValue::Object>(value);
}

}  // namespace tarnvale::test
