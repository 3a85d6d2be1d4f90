// What the native interface's opaque handles are: a database owns its model,
// its plans and one small handle per message and signal, so handles passed
// out stay valid until the database is closed.
#pragma once

#include <vector>

#include "coder/plan.h"
#include "dbc/network.h"
#include "tarn/db.h"

struct tarn_message {
    const tarn_db* db;
    uint32_t index;
};

struct tarn_signal {
    const tarn_db* db;
    uint32_t message;
    uint32_t index;  // into the network's signals
};

struct tarn_db {
    tarn::net::Network net;
    tarn::coder::NetworkPlan plan;
    std::vector<tarn_message> messages;
    std::vector<tarn_signal> signals;

    const tarn::net::Message& Model(const tarn_message* m) const { return net.messages[m->index]; }
    const tarn::net::Signal& Model(const tarn_signal* s) const { return net.signals[s->index]; }
};

namespace tarn::native {

// Writes a one-line explanation into a caller's buffer, when there is one.
void SetError(char* buffer, size_t size, const std::string& text);

}  // namespace tarn::native
