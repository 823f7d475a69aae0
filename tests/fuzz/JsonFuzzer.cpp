// SPDX-License-Identifier: MIT
//
// JSON of any shape, and of one that has a field of each kind. What was read and written reads back
// equal, in both forms; whatever a record is read from is valid JSON throughout. Another reader
// takes the same texts and finds the same records in them.

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/JsonReader.h"
#include "support/JsonWriter.h"
#include "tests/fuzz/Require.h"
#include "tests/support/JsonOracle.h"

namespace tarnvale::support {

namespace {

using test::require;

enum class Word : std::uint8_t { one, another };

constexpr const char* rawValue(Word word) {
    return word == Word::one ? "one" : "another";
}

constexpr auto jsonCases(std::type_identity<Word> /*type*/) {
    return std::array{Word::one, Word::another};
}

struct Sample {
    std::optional<std::string> text;
    std::optional<std::int64_t> integer;
    std::optional<double> number;
    std::optional<bool> flag;
    std::optional<Word> word;
    std::optional<Uuid> uuid;
    std::optional<std::vector<Sample>> list;
    std::optional<std::map<std::string, std::string, std::less<>>> named;

    bool operator==(const Sample&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Sample> /*type*/) {
    return std::tuple{
        JsonMember{"text", &Sample::text},
        JsonMember{"integer", &Sample::integer},
        JsonMember{"number", &Sample::number},
        JsonMember{"flag", &Sample::flag},
        JsonMember{"word", &Sample::word},
        JsonMember{"uuid", &Sample::uuid},
        JsonMember{"list", &Sample::list},
        JsonMember{"named", &Sample::named}};
}

bool isJson(std::string_view text) {
    try {
        JsonReader reader(text);
        reader.skip();
        reader.end();
        return true;
    } catch (const JsonError& error) {
        require(*error.what() != '\0');
        return false;
    }
}

std::optional<Sample> sample(std::string_view text) {
    try {
        return decodeJson<Sample>(text);
    } catch (const JsonError& error) {
        require(*error.what() != '\0');
        return std::nullopt;
    }
}

/// Reads the member into the field, if it is there and not null.
template <class Field, class Read>
void readMember(
    const test::OracleValue& object,
    const char* key,
    std::optional<Field>& field,
    const Read& read) {
    if (object.contains(key) && !object.at(key).isNull()) {
        field = read(object.at(key));
    }
}

Uuid uuidOf(const test::OracleValue& value) {
    return Uuid::parse(test::jsonText(value)).value();
}

Word wordOf(const test::OracleValue& value) {
    const std::string word = test::jsonText(value);
    return word == "one"       ? Word::one
           : word == "another" ? Word::another
                               : throw std::invalid_argument(word);
}

/// The record that another reader's value stands for. Throws any exception if it is none.
Sample sampleOf(const test::OracleValue& value) {
    static_cast<void>(test::jsonObject(value));
    Sample sample;
    readMember(value, "text", sample.text, test::jsonText);
    readMember(value, "integer", sample.integer, test::jsonInteger);
    readMember(value, "number", sample.number, test::jsonNumber);
    readMember(value, "flag", sample.flag, test::jsonFlag);
    readMember(value, "word", sample.word, wordOf);
    readMember(value, "uuid", sample.uuid, uuidOf);
    readMember(value, "list", sample.list, [](const test::OracleValue& list) {
        std::vector<Sample> samples;
        for (const auto& item : test::jsonList(list)) {
            samples.push_back(sampleOf(item));
        }
        return samples;
    });
    readMember(value, "named", sample.named, [](const test::OracleValue& object) {
        std::map<std::string, std::string, std::less<>> named;
        for (const auto& [key, item] : test::jsonObject(object)) {
            named[key] = test::jsonText(item);
        }
        return named;
    });
    return sample;
}

void compareWithOracle(const std::string& text, bool valid, const std::optional<Sample>& read) {
    const test::JsonVerdict verdict = test::jsonVerdict(text);
    if (verdict.isTooLargeForIt) {
        return;
    }
    require(valid == verdict.ourReaderTakes);
    if (!valid || verdict.hasDuplicateKeys) {
        return;
    }
    std::optional<Sample> expected;
    try {
        expected = sampleOf(verdict.value);
    } catch (const test::CannotTell&) {
        return;
    } catch (const std::exception&) {
        // It stands for no record.
    }
    require(read == expected);
}

void check(std::string_view text) {
    const bool valid = isJson(text);
    const auto read = sample(text);
    compareWithOracle(std::string(text), valid, read);
    if (!read) {
        return;
    }
    require(valid);
    for (const JsonForm form : {JsonForm::compact, JsonForm::pretty}) {
        const std::string written = encodeJson(*read, form);
        require(isJson(written));
        require(sample(written) == read);
        require(encodeJson(*sample(written), form) == written);
    }
}

}  // namespace

}  // namespace tarnvale::support

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::support::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
