// Normalised DBC text of a native model.
#pragma once

#include <string>

#include "dbc/network.h"

namespace tarn::net {

std::string WriteDbc(const Network& network);

}  // namespace tarn::net
