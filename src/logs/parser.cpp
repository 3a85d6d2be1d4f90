#include "logs/parser.h"

#include "logs/text_scan.h"

namespace tarn::logs {

bool ParseDlc(std::string_view word, uint32_t& dlc) {
    if (word.size() == 1) return (dlc = HexValue(word[0])) != kNotHex;
    return ParseDec32(word, dlc) && dlc <= 15;
}

std::unique_ptr<LineParser> MakeParser(Format format, ChannelTable& channels) {
    switch (format) {
        case Format::CandumpLog:
        case Format::CandumpScreen:
            return MakeCandumpParser(format, channels);
        case Format::Asc:
            return MakeAscParser(channels);
        case Format::Trc1:
            return MakeTrcParser(1, channels);
        case Format::Trc2:
            return MakeTrcParser(2, channels);
        default:
            return nullptr;
    }
}

}  // namespace tarn::logs
