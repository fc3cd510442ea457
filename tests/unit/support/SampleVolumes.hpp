#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A small sound volume that has a bit of everything: three levels in the extents tree, two in the
// catalog, hard links, a journal, hot files, bad blocks, an attribute with a fork in pieces.
std::vector<std::uint8_t> sampleVolume();

// The volumes in the directory that XRDEFRAG_REAL_VOLUMES names, which other systems have made;
// none when it is not set.
std::vector<std::string> realVolumes();

std::vector<std::uint8_t> bytesOfFile(const std::string& path);
