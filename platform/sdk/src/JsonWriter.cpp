#include "sdk/JsonWriter.h"

#include <charconv>

namespace SDK {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr std::string_view kHexMarker = "hex:";

// Bytes that a JSON string cannot hold as they are, or that need a closer look.
inline bool Special(unsigned char c)
{
    return c < 0x20 || c == '"' || c == '\\' || c >= 0x80;
}

// The length of the UTF-8 sequence at text[at], or 0 when it is not well formed.
size_t SequenceLength(std::string_view text, size_t at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const size_t left = text.size() - at;
    const auto cont = [&](size_t i) { return (byte(at + i) & 0xC0) == 0x80; };
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return left >= 2 && cont(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (left < 3 || !cont(1) || !cont(2)) {
            return 0;
        }
        const unsigned char second = byte(at + 1);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F)) {
            return 0;  // overlong, or a surrogate
        }
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (left < 4 || !cont(1) || !cont(2) || !cont(3)) {
            return 0;
        }
        const unsigned char second = byte(at + 1);
        if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
            return 0;  // overlong, or past U+10FFFF
        }
        return 4;
    }
    return 0;
}

void AppendHex(std::string& out, std::string_view text)
{
    out += '"';
    out += kHexMarker;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0F];
    }
    out += '"';
}

template <typename T>
void AppendNumber(std::string& out, T value)
{
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    out.append(buffer, result.ptr);
}

}  // namespace

bool JsonWriter::IsUtf8(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t length = SequenceLength(text, at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

void JsonWriter::AppendString(std::string& out, std::string_view text)
{
    size_t first = 0;
    while (first < text.size() && !Special(static_cast<unsigned char>(text[first]))) {
        ++first;
    }
    if (first == text.size() && text.substr(0, kHexMarker.size()) != kHexMarker) {
        out += '"';  // the common case: nothing to escape
        out += text;
        out += '"';
        return;
    }
    if (text.substr(0, kHexMarker.size()) == kHexMarker || !IsUtf8(text.substr(first))) {
        AppendHex(out, text);
        return;
    }
    out.reserve(out.size() + text.size() + 8);
    out += '"';
    out.append(text.data(), first);
    for (size_t at = first; at < text.size(); ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                out += "\\u00";
                out += kHex[c >> 4];
                out += kHex[c & 0x0F];
            } else {
                out += static_cast<char>(c);  // validated above
            }
        }
    }
    out += '"';
}

void JsonWriter::Separate()
{
    if (needComma_ && !afterKey_) {
        out_ += ',';
    }
    afterKey_ = false;
}

void JsonWriter::Open(char bracket)
{
    Separate();
    out_ += bracket;
    needComma_ = false;
}

void JsonWriter::Close(char bracket)
{
    out_ += bracket;
    needComma_ = true;
}

void JsonWriter::Key(std::string_view name)
{
    if (needComma_) {
        out_ += ',';
    }
    AppendString(out_, name);
    out_ += ':';
    afterKey_ = true;
}

void JsonWriter::String(std::string_view text)
{
    Separate();
    AppendString(out_, text);
    needComma_ = true;
}

void JsonWriter::Int(int64_t value)
{
    Separate();
    AppendNumber(out_, value);
    needComma_ = true;
}

void JsonWriter::UInt(uint64_t value)
{
    Separate();
    AppendNumber(out_, value);
    needComma_ = true;
}

void JsonWriter::Bool(bool value)
{
    Separate();
    out_ += value ? "true" : "false";
    needComma_ = true;
}

}  // namespace SDK
