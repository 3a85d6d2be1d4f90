#include "logs/detect.h"

#include "logs/text_scan.h"

namespace tarn::logs {
namespace {

// Header lines that only one format writes.
Format HeaderFormat(std::string_view line) {
    if (line.substr(0, 14) == ";$FILEVERSION=" && line.size() > 14)
        return line[14] == '1' ? Format::Trc1 : line[14] == '2' ? Format::Trc2 : Format::Unknown;
    Cursor c(line);
    std::string_view first = c.Word(), second = c.Word();
    bool asc = (first == "date" && !second.empty()) ||
               (first == "base" && (second == "hex" || second == "dec")) ||
               (first == "internal" && second == "events") ||
               (first == "no" && second == "internal") ||
               (StartsWithNoCase(first, "begin") && StartsWithNoCase(second, "triggerblock"));
    return asc ? Format::Asc : Format::Unknown;
}

}  // namespace

Format DetectFormat(std::string_view line, bool& neutral) {
    Cursor c(line);
    std::string_view text = c.Rest();
    neutral = text.empty() || text[0] == ';' || text.substr(0, 2) == "//";
    Format header = HeaderFormat(text);
    if (header != Format::Unknown || neutral) {
        neutral = neutral && header == Format::Unknown;
        return header;
    }
    // A data line: the first parser that reads a frame from it, on a scratch
    // channel table so that a failed trial leaves no names behind.
    for (Format f : {Format::CandumpLog, Format::CandumpScreen, Format::Asc, Format::Trc1}) {
        ChannelTable scratch;
        tarn_frame frame;
        const char* reason = nullptr;
        if (MakeParser(f, scratch)->Parse(text, frame, reason) == LineResult::Frame) return f;
    }
    return Format::Unknown;
}

}  // namespace tarn::logs
