#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace SDK {

/// Writes JSON straight into a text, value by value, without building a tree.
///
/// Whatever bytes a text value holds, the output is valid UTF-8 JSON and the bytes stay
/// recoverable: valid UTF-8 is written as it is (with JSON's escapes for quotes, backslashes and
/// control characters); a value that is not valid UTF-8, or that itself begins with "hex:", is
/// written as "hex:" followed by every byte as two upper-case hexadecimal digits.
class JsonWriter {
public:
    /// Appends to out.
    explicit JsonWriter(std::string& out) : out_(out) {}

    void BeginObject() { Open('{'); }
    void EndObject() { Close('}'); }
    void BeginArray() { Open('['); }
    void EndArray() { Close(']'); }
    /// The name of the next member of an object.
    void Key(std::string_view name);

    void String(std::string_view text);
    void Int(int64_t value);
    void UInt(uint64_t value);
    void Bool(bool value);

    /// A member with its value, for the common case.
    template <typename T>
    void Field(std::string_view name, const T& value)
    {
        Key(name);
        Value(value);
    }

    /// Appends text as a JSON string (quotes included) under the rules above.
    static void AppendString(std::string& out, std::string_view text);
    /// True when text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
    static bool IsUtf8(std::string_view text);

private:
    void Value(std::string_view text) { String(text); }
    void Value(const std::string& text) { String(text); }
    void Value(const char* text) { String(text); }
    void Value(bool value) { Bool(value); }
    template <typename T>
    void Value(T number)
    {
        if constexpr (std::is_signed_v<T>) {
            Int(number);
        } else {
            UInt(number);
        }
    }
    void Separate();
    void Open(char bracket);
    void Close(char bracket);

    std::string& out_;
    bool needComma_ = false;  // a value was written at this level
    bool afterKey_ = false;   // the next value belongs to the key just written
};

}  // namespace SDK
