// SPDX-License-Identifier: MIT

#include "support/JsonWriter.h"

#include <cmath>

#include "support/JsonText.h"
#include "support/Text.h"

namespace tarnvale::support {

void JsonWriter::write(bool value) {
    text_ += value ? "true" : "false";
}

void JsonWriter::write(std::int64_t value) {
    text_ += std::to_string(value);
}

void JsonWriter::write(double value) {
    if (!std::isfinite(value)) {
        throw JsonError("JSON has no form for a number that is not finite");
    }
    text_ += shortestText(value);
}

void JsonWriter::write(const Uuid& value) {
    text_ += '"';
    value.appendTo(text_);
    text_ += '"';
}

void JsonWriter::begin(char open) {
    text_ += open;
    ++depth_;
    isEmpty_ = true;
}

void JsonWriter::end(char close) {
    --depth_;
    if (form_ == JsonForm::pretty && isEmpty_) {
        text_ += '\n';
    }
    beginLine();
    text_ += close;
    isEmpty_ = false;
}

void JsonWriter::beginElement() {
    if (take_ != nullptr && text_.size() >= pieceSize) {
        (*take_)(text_);
        text_.clear();
    }
    if (!isEmpty_) {
        text_ += ',';
    }
    beginLine();
    isEmpty_ = false;
}

void JsonWriter::beginMember(std::string_view key) {
    beginElement();
    writeString(key);
    text_ += form_ == JsonForm::pretty ? " : " : ":";
}

void JsonWriter::beginLine() {
    if (form_ == JsonForm::pretty) {
        text_ += '\n';
        text_.append(2 * depth_, ' ');
    }
}

void JsonWriter::writeString(std::string_view value) {
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::string_view shortForms = "btn?fr";  // for U+0008 to U+000D
    text_ += '"';
    const char* const end = value.data() + value.size();
    for (const char* next = value.data(); next != end;) {
        const char* const verbatim = next;
        next = std::find(next, plainEnd(next, end), '/');
        text_.append(verbatim, next);
        if (next == end) {
            break;
        }
        const auto byte = static_cast<unsigned char>(*next);
        if (byte >= 0x80) {
            const std::size_t length =
                characterLength({next, static_cast<std::size_t>(end - next)});
            if (length == 0) {
                throw JsonError("JSON has no form for a string that is not UTF-8");
            }
            text_.append(next, length);
            next += length;
            continue;
        }
        text_ += '\\';
        if (byte >= ' ') {
            text_ += *next;
        } else if (byte >= '\b' && byte <= '\r' && byte != '\v') {
            text_ += shortForms[byte - '\b'];
        } else {
            text_ += {'u', '0', '0', digits[byte >> 4], digits[byte & 0xF]};
        }
        ++next;
    }
    text_ += '"';
}

void JsonWriter::writeNull() {
    text_ += "null";
}

}  // namespace tarnvale::support
