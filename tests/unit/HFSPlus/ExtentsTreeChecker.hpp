#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "HFSPlus/HFSPlusFormat.hpp"
#include "unit/HFSPlus/MemoryTree.hpp"

/// What a tree should hold: records by file, fork type and start block.
using ExtentsModel = std::map<std::tuple<uint32_t, uint8_t, uint32_t>, HFSPlusExtentRecord>;

/// Reads a whole extents tree byte by byte from the volume, trusting none of the program's own
/// code, and compares it with the model: node kinds, heights, links both ways, key order, index
/// keys, leaf count, first and last leaf, depth, and which nodes are in use. The first thing that
/// is wrong; empty if nothing is.
std::string checkExtentsTree(MemoryTreeVolume& volume, const ExtentsModel& model);
