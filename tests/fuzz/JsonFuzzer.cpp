// SPDX-License-Identifier: MIT
//
// JSON of any shape, and of one that has a field of each kind. What was read and written reads back
// equal, in both forms; whatever a record is read from is valid JSON throughout.

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

namespace tarnvale::support {

namespace {

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

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
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

void check(std::string_view text) {
    const bool valid = isJson(text);
    const auto read = sample(text);
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
