#pragma once

#include <string>
#include <vector>

namespace Bench {

/// The project's real captures (RAW and ENRICHED) replicated to about `lines` lines. Each copy's
/// serial numbers are shifted so every event stays distinct, as in a long real log.
std::vector<std::string> ReplicatedCaptureLines(size_t lines = 100000);

/// The same lines grouped into events: runs of consecutive lines with one msg=audit stamp.
std::vector<std::vector<std::string>> GroupByStamp(const std::vector<std::string>& lines);

}  // namespace Bench
