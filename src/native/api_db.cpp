// Opening and closing databases, and the diagnostics of a load.
#include <cstring>
#include <new>
#include <string>

#include "dbc/network_writer.h"
#include "native/handles.h"
#include "native/log.h"

namespace tarn::native {

void SetError(char* buffer, size_t size, const std::string& text) {
    if (!buffer || size == 0) return;
    const size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

namespace {

std::string Describe(const net::Diagnostic& d) {
    std::string s = "line " + std::to_string(d.line) + ": ";
    if (!d.section.empty()) s.append(d.section).append(": ");
    return s.append(d.reason);
}

int StatusOf(net::ReadStatus rs) {
    switch (rs) {
        case net::ReadStatus::Ok:
            return TARN_OK;
        case net::ReadStatus::NotDbc:
            return TARN_ERR_NOT_DBC;
        case net::ReadStatus::Strict:
            return TARN_ERR_PARSE;
        case net::ReadStatus::TooLarge:
            return TARN_ERR_TOO_LARGE;
        case net::ReadStatus::Io:
            return TARN_ERR_IO;
    }
    return TARN_ERR_PARSE;
}

void MakeHandles(tarn_db& db) {
    db.messages.reserve(db.net.messages.size());
    db.signals.reserve(db.net.signals.size());
    for (uint32_t m = 0; m < db.net.messages.size(); ++m) {
        db.messages.push_back(tarn_message{&db, m});
        const net::Range r = db.net.messages[m].signals;
        for (uint32_t s = r.first; s < r.end(); ++s) db.signals.push_back(tarn_signal{&db, m, s});
    }
}

// Shared tail of both open calls: reports, then plans or fails.
int Finish(std::unique_ptr<tarn_db> db, net::ReadStatus rs, const std::string& origin,
           const std::string& ioError, tarn_db** out, char* error, size_t errorSize) {
    for (const net::Diagnostic& d : db->net.diagnostics)
        Log(TARN_LOG_WARNING, "%s: %s", origin.c_str(), Describe(d).c_str());
    const int status = StatusOf(rs);
    if (status != TARN_OK) {
        std::string why = tarn_status_text(status);
        if (rs == net::ReadStatus::Strict && !db->net.diagnostics.empty())
            why = Describe(db->net.diagnostics.back());
        else if (rs == net::ReadStatus::Io && !ioError.empty())
            why = ioError;
        SetError(error, errorSize, why);
        Log(TARN_LOG_ERROR, "%s: %s", origin.c_str(), why.c_str());
        return status;
    }
    db->plan.Build(db->net);
    MakeHandles(*db);
    *out = db.release();
    return TARN_OK;
}

unsigned kKnownFlags = TARN_OPEN_STRICT | TARN_OPEN_J1939;

net::ReadOptions OptionsOf(unsigned flags) {
    net::ReadOptions o;
    o.strict = flags & TARN_OPEN_STRICT;
    o.j1939 = flags & TARN_OPEN_J1939;
    return o;
}

}  // namespace
}  // namespace tarn::native

using namespace tarn;

extern "C" {

int tarn_db_open(const char* path, unsigned flags, tarn_db** out, char* error, size_t error_size) {
    if (out) *out = nullptr;
    if (!path || !out || (flags & ~native::kKnownFlags)) return TARN_ERR_ARGUMENT;
    try {
        auto db = std::make_unique<tarn_db>();
        std::string ioError;
        const net::ReadStatus rs = net::ReadFile(path, native::OptionsOf(flags), db->net, &ioError);
        return native::Finish(std::move(db), rs, path, ioError, out, error, error_size);
    } catch (const std::bad_alloc&) {
        native::SetError(error, error_size, "out of memory");
        return TARN_ERR_NO_MEMORY;
    }
}

int tarn_db_open_buffer(const char* text, size_t size, unsigned flags, tarn_db** out, char* error,
                        size_t error_size) {
    if (out) *out = nullptr;
    if ((!text && size) || !out || (flags & ~native::kKnownFlags)) return TARN_ERR_ARGUMENT;
    try {
        auto db = std::make_unique<tarn_db>();
        const net::ReadStatus rs =
            net::Read(std::string_view(text ? text : "", size), native::OptionsOf(flags), db->net);
        return native::Finish(std::move(db), rs, "<buffer>", "", out, error, error_size);
    } catch (const std::bad_alloc&) {
        native::SetError(error, error_size, "out of memory");
        return TARN_ERR_NO_MEMORY;
    }
}

void tarn_db_close(tarn_db* db) {
    delete db;
}

int tarn_db_write_dbc(const tarn_db* db, char* buffer, size_t size, size_t* needed) {
    if (!db || !needed || (!buffer && size)) return TARN_ERR_ARGUMENT;
    try {
        const std::string text = net::WriteDbc(db->net);
        *needed = text.size() + 1;
        if (size < *needed) return TARN_ERR_BUFFER;
        std::memcpy(buffer, text.c_str(), text.size() + 1);
        return TARN_OK;
    } catch (const std::bad_alloc&) {
        return TARN_ERR_NO_MEMORY;
    }
}

size_t tarn_db_diagnostic_count(const tarn_db* db) {
    return db ? db->net.diagnostics.size() : 0;
}

int tarn_db_diagnostic(const tarn_db* db, size_t index, tarn_diagnostic* out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (index >= db->net.diagnostics.size()) return TARN_ERR_NOT_FOUND;
    const net::Diagnostic& d = db->net.diagnostics[index];
    out->line = d.line;
    out->section = d.section.data();
    out->reason = d.reason.data();
    return TARN_OK;
}

}  // extern "C"
