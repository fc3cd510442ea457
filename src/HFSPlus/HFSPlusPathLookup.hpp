#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/// Names a file for a diagnostic dump: a catalog node ID's path in UTF-8, none when unknown.
using HFSPlusPathLookup = std::function<std::optional<std::string>(uint32_t cnid)>;
