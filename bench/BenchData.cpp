#include "BenchData.h"

#include <fstream>
#include <stdexcept>

namespace Bench {

namespace {

const char* const kCaptures[] = {"kernel-6.18-raw.log", "kernel-6.18-raw-own.log", "kernel-6.18-enriched.log"};

std::string ShiftSerial(const std::string& line, unsigned long shift)
{
    const size_t open = line.find("msg=audit(");
    const size_t colon = open == std::string::npos ? std::string::npos : line.find(':', open);
    const size_t close = colon == std::string::npos ? std::string::npos : line.find(')', colon);
    if (close == std::string::npos) {
        return line;
    }
    const unsigned long serial = std::stoul(line.substr(colon + 1, close - colon - 1));
    return line.substr(0, colon + 1) + std::to_string(serial + shift) + line.substr(close);
}

std::string Stamp(const std::string& line)
{
    const size_t open = line.find("msg=audit(");
    const size_t close = open == std::string::npos ? std::string::npos : line.find(')', open);
    return close == std::string::npos ? std::string() : line.substr(open, close - open);
}

}  // namespace

std::vector<std::string> ReplicatedCaptureLines(size_t lines)
{
    std::vector<std::string> original;
    for (const char* name : kCaptures) {
        std::ifstream in(std::string(HW_SOURCE_DIR) + "/tests/fixtures/" + name);
        if (!in) {
            throw std::runtime_error(std::string("missing capture ") + name);
        }
        for (std::string line; std::getline(in, line);) {
            original.push_back(line);
        }
    }
    std::vector<std::string> out;
    out.reserve(lines + original.size());
    for (unsigned long copy = 0; out.size() < lines; ++copy) {
        for (const std::string& line : original) {
            out.push_back(ShiftSerial(line, copy * 1000000UL));
        }
    }
    return out;
}

std::vector<std::vector<std::string>> GroupByStamp(const std::vector<std::string>& lines)
{
    std::vector<std::vector<std::string>> events;
    std::string current;
    for (const std::string& line : lines) {
        const std::string stamp = Stamp(line);
        if (events.empty() || stamp != current) {
            events.emplace_back();
            current = stamp;
        }
        events.back().push_back(line);
    }
    return events;
}

}  // namespace Bench
