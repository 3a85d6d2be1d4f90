// Shared by the exported entry points: handle lookup and the exception fence
// that keeps every failure on this side of the C boundary.
#pragma once

#include <exception>

#include "common/log.h"
#include "legacy/dbc_control.h"
#include "legacy/dbc_control_set.h"

namespace tarn {

// Call only from a catch block: logs the exception being handled.
inline void LogEscaped(const char* function) noexcept {
    try {
        try {
            throw;
        } catch (const std::exception& e) {
            KQ_LOG(kq::LOG_ERROR, "%s--%s\n", function, e.what());
        } catch (...) {
            KQ_LOG(kq::LOG_ERROR, "%s--unknown exception\n", function);
        }
    } catch (...) {
    }
}

// Runs body(controller) for a live handle, holding the controller so that a
// concurrent TARN_Release waits for the body to return; `none` for an unknown handle or
// when the body throws.
template <class R, class Body>
R WithControl(const char* function, uint32_t h, R none, Body&& body) {
    try {
        CDBCControlSet::Ref ctrl = g_dbc_ctrl_set.Acquire(h);
        if (!ctrl) return none;
        return body(*ctrl);
    } catch (...) {
        LogEscaped(function);
        return none;
    }
}

template <class Body>
void WithControl(const char* function, uint32_t h, Body&& body) {
    try {
        CDBCControlSet::Ref ctrl = g_dbc_ctrl_set.Acquire(h);
        if (ctrl) body(*ctrl);
    } catch (...) {
        LogEscaped(function);
    }
}

}  // namespace tarn
