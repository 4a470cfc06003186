// The JSON writer: for any bytes two independent oracles: Poco's JSON parser reads back what it
// wrote, and iconv's strict UTF-8 decoder accepts every line.
#include "sdk/JsonWriter.h"

#include <Poco/HexBinaryDecoder.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

#include <iconv.h>

#include <random>
#include <sstream>

using SDK::JsonWriter;

namespace {

// True when iconv decodes all of text as UTF-8.
bool StrictUtf8(const std::string& text)
{
    iconv_t cd = iconv_open("UTF-32LE", "UTF-8");
    std::string in = text;
    std::string out(text.size() * 4 + 4, '\0');
    char* src = in.data();
    char* dst = out.data();
    size_t srcLeft = in.size();
    size_t dstLeft = out.size();
    const size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
    iconv_close(cd);
    return rc != static_cast<size_t>(-1) && srcLeft == 0;
}

// The original bytes of a value the writer wrote.
std::string Recover(const std::string& value)
{
    if (value.compare(0, 4, "hex:") != 0) {
        return value;
    }
    std::istringstream hex(value.substr(4));
    Poco::HexBinaryDecoder bytes(hex);
    return std::string(std::istreambuf_iterator<char>(bytes), {});
}

}  // namespace

TEST(JsonWriter, AnyBytesGiveValidUtf8FromWhichTheBytesCanBeRecovered)
{
    const std::string cases[] = {
        std::string("/tmp/\xff\xfe", 7),  // the bytes of a hostile file name
        "\xed\xa0\x80",                    // a surrogate
        "\xc0\xaf",                        // an overlong slash
        "\xf4\x90\x80\x80",                // past U+10FFFF
        "\xe2\x82",                        // cut short
        "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91",  // two, three and four bytes: kept as they are
        "hex:414243",                      // a value that looks encoded
        std::string("nul\0inside", 10),
    };
    std::mt19937 random(20261122);
    const int fixed = static_cast<int>(std::size(cases));
    for (int round = 0; round < fixed + 20000; ++round) {
        std::string text = round < fixed ? cases[round] : std::string(random() % 12, '\0');
        for (size_t i = 0; round >= fixed && i < text.size(); ++i) {
            // Mostly ASCII and UTF-8 lead and continuation bytes, so valid sequences occur too.
            const unsigned pick = random() % 4;
            text[i] = static_cast<char>(pick == 0 ? 0x20 + random() % 0x60 : pick == 1 ? 0x80 + random() % 0x40
                                  : pick == 2 ? 0xC0 + random() % 0x40 : random() % 0x100);
        }
        std::string out;
        JsonWriter json(out);
        json.BeginArray();
        json.String(text);
        json.EndArray();
        ASSERT_TRUE(StrictUtf8(out)) << out;
        const Poco::JSON::Array::Ptr parsed = Poco::JSON::Parser().parse(out).extract<Poco::JSON::Array::Ptr>();
        const std::string value = parsed->getElement<std::string>(0);
        ASSERT_EQ(Recover(value), text) << out;
        // Valid UTF-8, as iconv judges it, is written as it is; anything else is encoded.
        ASSERT_EQ(value == text, StrictUtf8(text) && text.rfind("hex:", 0) != 0) << out;
        ASSERT_EQ(JsonWriter::IsUtf8(text), StrictUtf8(text)) << out;
    }
}
