// Databases shared by the benchmark programs.
#pragma once

#include <string>

namespace bench {

// Sixteen 4-bit signals over the 8 bytes, in both byte orders, some scaled
// and signed and a few with value tables, like an ordinary status message.
inline std::string SixteenSignalDbc() {
    std::string text = "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Ecu\n\nBO_ 418 Status: 8 Ecu\n";
    for (int i = 0; i < 16; ++i) {
        bool motorola = i % 4 == 3;
        int start = motorola ? i * 4 + 3 : i * 4;
        text += " SG_ Sig" + std::to_string(i) + " : " + std::to_string(start) + "|4@" +
                (motorola ? "0" : "1") + (i % 3 == 0 ? "-" : "+") +
                (i % 2 ? " (0.5,-2)" : " (1,0)") + " [0|15] \"unit\" Ecu\n";
    }
    text += "\nBA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 10000;\n";
    text += "BA_ \"GenMsgCycleTime\" BO_ 418 100;\n";
    for (int i = 0; i < 16; i += 5)
        text += "VAL_ 418 Sig" + std::to_string(i) + " 0 \"Off\" 1 \"On\" 2 \"Error\" ;\n";
    return text;
}

}  // namespace bench
