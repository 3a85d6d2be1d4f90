// The native interface as a caller sees it, through libtarn.so and the C++
// wrapper: what the legacy records could not say (texts by raw value, every
// signal, full texts), multiplexing, errors, and sharing across threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/ref_packer.h"
#include "tarn/tarn.hpp"

namespace {

constexpr const char* kHeader = "VERSION \"\"\nNS_ :\nBS_:\nBU_: ECU\n";

tarn::Database Open(const std::string& body) {
    return tarn::Database::from_text(kHeader + body);
}

// One frame decoded, in message order: "Name=physical'text'", then what the
// identifier and a short frame told.
std::string Decode(const tarn::Database& db, uint32_t id, bool ext, std::vector<uint8_t> data) {
    tarn::Decoder dec(db);
    if (!dec.decode(id, ext, data.data(), data.size())) return "not found";
    std::string out;
    char buf[80];
    for (const tarn_value& v : dec) {
        snprintf(buf, sizeof buf, "=%g", v.physical);
        out += std::string(dec.signal(v).name()) + buf +
               (v.text ? "'" + std::string(v.text) + "' " : " ");
    }
    const tarn_decoded& r = dec.result();
    snprintf(buf, sizeof buf, "absent=%u", r.absent);
    out += buf;
    if (r.j1939) {
        snprintf(buf, sizeof buf, " pgn=%X prio=%u src=%X", r.pgn, r.priority, r.source);
        out += buf;
    }
    return out;
}

const char* const kTexts =
    "BO_ 1 M: 8 ECU\n"
    " SG_ Temp : 0|8@1+ (0.5,15) [15|50] \"degC\" ECU\n"
    " SG_ Mode : 8|8@1- (1,0) [-128|127] \"\" ECU\n"
    "VAL_ 1 Temp 0 \"LO\" 26 \"HI\" ;\n"
    "VAL_ 1 Mode -5 \"minus five\" 3 \"three\" ;\n";
const char* const kCascade =
    "BO_ 2147483649 Ext: 8 ECU\n"
    " SG_ B1 m1 : 24|8@1+ (1,0) [0|0] \"\" ECU\n"
    " SG_ A2SwB m2M : 8|8@1+ (1,0) [0|0] \"\" ECU\n"
    " SG_ A1 m1 : 8|8@1+ (1,0) [0|0] \"\" ECU\n"
    " SG_ SwA M : 0|8@1+ (1,0) [0|0] \"\" ECU\n"
    "SG_MUL_VAL_ 2147483649 B1 A2SwB 1-1;\n"
    "SG_MUL_VAL_ 2147483649 A2SwB SwA 2-2;\n"
    "SG_MUL_VAL_ 2147483649 A1 SwA 1-1;\n";
const char* const kJ1939 =
    "BO_ 2364540158 EEC1: 8 ECU\n"
    " SG_ Torque : 16|8@1+ (1,-125) [-125|125] \"%\" ECU\n"
    " SG_ Speed : 24|16@1+ (0.125,0) [0|8031.875] \"rpm\" ECU\n"
    "BA_DEF_ \"ProtocolType\" STRING ;\nBA_DEF_DEF_ \"ProtocolType\" \"J1939\";\n";

TEST(NativeDb, DecodesFramesAsTheFileSays) {
    struct Row {
        const char* body;
        uint32_t id;
        bool ext;
        std::vector<uint8_t> data;
        std::string expect;
    };
    const Row rows[] = {
        // Texts are keyed by the raw value, signed ones included.
        {kTexts, 1, false, {0, 0xFB, 0, 0, 0, 0, 0, 0}, "Temp=15'LO' Mode=-5'minus five' absent=0"},
        {kTexts, 1, false, {26, 3, 0, 0, 0, 0, 0, 0}, "Temp=28'HI' Mode=3'three' absent=0"},
        {kTexts, 1, false, {22, 4, 0, 0, 0, 0, 0, 0}, "Temp=26 Mode=4 absent=0"},
        {kTexts, 2, false, {0}, "not found"},
        // A signal is present only when every switch above it selects it.
        {kCascade, 1, true, {1, 7, 0, 9, 0, 0, 0, 0}, "A1=7 SwA=1 absent=0"},
        {kCascade, 1, true, {2, 1, 0, 9, 0, 0, 0, 0}, "B1=9 A2SwB=1 SwA=2 absent=0"},
        {kCascade, 1, true, {2, 2, 0, 9, 0, 0, 0, 0}, "A2SwB=2 SwA=2 absent=0"},
        {kCascade, 1, false, {1, 7, 0, 9, 0, 0, 0, 0}, "not found"},
        // The same PGN from another source and priority; a short frame keeps what fits.
        {kJ1939, 0x0CF00417, true, {0, 0, 200, 0x80}, "Torque=75 absent=1 pgn=F004 prio=3 src=17"},
    };
    for (const Row& r : rows) EXPECT_EQ(Decode(Open(r.body), r.id, r.ext, r.data), r.expect);
}

TEST(NativeDb, WideMultiplexedMessageKeepsEverySignal) {
    // 600 plain signals with 21 multiplexed ones among them and the switch
    // last: a fixed record would drop it; decode must keep message order.
    std::string body = "BO_ 2 Wide: 64 ECU\n", expect;
    for (int i = 0; i < 600; ++i) {
        body += " SG_ P" + std::to_string(i) + " : " + std::to_string(16 + i % 400) +
                "|1@1+ (1,0) [0|1] \"\" ECU\n";
        expect += "P" + std::to_string(i) + "=0 ";
        if (i % 30 != 0) continue;
        const std::string q = std::to_string(i / 30);
        body +=
            " SG_ Q" + q + " m" + std::to_string(i / 30 % 4) + " : 8|8@1+ (1,0) [0|0] \"\" ECU\n";
        if (i / 30 % 4 == 2) expect += "Q" + q + "=7 ";
    }
    body += " SG_ R m1 : 8|8@1+ (1,0) [0|0] \"\" ECU\n";  // selected by a range, 1 to 3
    body += " SG_ Sel M : 0|8@1+ (1,0) [0|0] \"percent duty cycle\" ECU\n";
    body += "SG_MUL_VAL_ 2 R Sel 1-3;\n";
    auto db = Open(body);
    std::vector<uint8_t> data(64, 0);
    data[0] = 2;
    data[1] = 7;
    EXPECT_EQ(Decode(db, 2, false, data), expect + "R=7 Sel=2 absent=0");
    EXPECT_EQ(db.find(2, false)->find_signal("Sel")->unit(), "percent duty cycle");
}

// Limits bind only strict encodes; what does not fit never does, and the
// error names the signal.
TEST(NativeDb, EncodeNamesTheOffendingSignal) {
    auto db = Open(
        "BO_ 5 M: 4 ECU\n SG_ Rpm : 0|16@1+ (0.125,0) [0|8000] \"rpm\" ECU\n"
        " SG_ Gear : 16|8@1- (1,0) [-1|8] \"\" ECU\n");
    const tarn::Message m = *db.find("M");
    EXPECT_EQ(m.encode({{"Rpm", 8001}, {"Gear", -1}}),
              (std::vector<uint8_t>{0x08, 0xFA, 0xFF, 0x00}));
    struct Row {
        std::string signal;
        double value;
        bool strict;
        int status;
    };
    for (const Row& r :
         {Row{"Rpm", 99999, false, TARN_ERR_RANGE}, Row{"Rpm", 8001, true, TARN_ERR_RANGE},
          Row{"Nope", 1, false, TARN_ERR_NOT_FOUND}}) {
        try {
            m.encode({{r.signal, r.value}}, r.strict);
            ADD_FAILURE() << r.signal << " " << r.value;
        } catch (const tarn::Error& e) {
            EXPECT_EQ(e.status(), r.status);
            EXPECT_NE(std::string(e.what()).find(r.signal), std::string::npos) << e.what();
        }
    }
}

TEST(NativeDb, OpenFailuresAreStatusesWithReasons) {
    for (const std::string text : {"just some text\nnot a database\n", ""}) {
        tarn_db* db = nullptr;
        char err[128] = "";
        EXPECT_EQ(tarn_db_open_buffer(text.data(), text.size(), 0, &db, err, sizeof err),
                  TARN_ERR_NOT_DBC);
        EXPECT_EQ(db, nullptr);
        EXPECT_STRNE(err, "");
    }
    tarn_db* db = nullptr;
    EXPECT_EQ(tarn_db_open("/nonexistent/x.dbc", 0, &db, nullptr, 0), TARN_ERR_IO);
    EXPECT_EQ(tarn_db_open(nullptr, 0, &db, nullptr, 0), TARN_ERR_ARGUMENT);
}

// A malformed line costs only itself, reaches the log handler and the
// diagnostics, and refuses the whole file when opening strictly.
TEST(NativeDb, MalformedSignalIsReportedOrRefusedWhenStrict) {
    const std::string text = std::string(kHeader) +
                             "BO_ 1 M: 8 ECU\n SG_ A : 0|8@1+ (1,0) [0|0] \"\" ECU\n"
                             " SG_ Bad 8|8@1+ (1,0) [0|0] \"\" ECU\n"
                             " SG_ C : 16|8@1+ (1,0) [0|0] \"\" ECU\n";
    std::vector<std::string> logged;
    tarn_set_log_handler(
        [](void* user, int, const char* line) {
            static_cast<std::vector<std::string>*>(user)->push_back(line);
        },
        &logged);
    auto db = tarn::Database::from_text(text);
    tarn_set_log_handler(nullptr, nullptr);
    EXPECT_EQ(db.find("M")->signals().size(), 2u);
    const auto diags = db.diagnostics();
    ASSERT_EQ(diags.size(), 1u);
    EXPECT_EQ(diags[0].line, 7u);
    EXPECT_STREQ(diags[0].section, "SG_");
    EXPECT_EQ(logged.size(), 1u);
    tarn_db* strict = nullptr;
    EXPECT_EQ(tarn_db_open_buffer(text.data(), text.size(), TARN_OPEN_STRICT, &strict, nullptr, 0),
              TARN_ERR_PARSE);
    EXPECT_EQ(strict, nullptr);
}

// One database, several threads, different frames: every result is what a
// lone thread gets (run under ThreadSanitizer in CI).
TEST(NativeDb, ThreadsShareOneDatabase) {
    auto db = Open(
        "BO_ 1 M: 8 ECU\n SG_ A : 0|32@1+ (1,0) [0|0] \"\" ECU\n"
        " SG_ B : 39|32@0+ (1,0) [0|0] \"\" ECU\n");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            tarn::Decoder dec(db);
            for (uint32_t i = 0; i < 20000; ++i) {
                const uint32_t a = t * 100000 + i;
                uint8_t data[8] = {};
                refpack::Pack(data, 0, 32, false, a);
                refpack::Pack(data, 39, 32, true, ~a);
                if (!dec.decode(1, false, data, 8) || dec.size() != 2 ||
                    dec.begin()[0].raw.u != a || dec.begin()[1].raw.u != uint32_t(~a))
                    ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
