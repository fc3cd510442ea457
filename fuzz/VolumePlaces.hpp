#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "FuzzDevice.hpp"
#include "support/BuiltVolume.hpp"

namespace fuzz {

/// A field of the volume's structures: where it lies on the device and how many bytes it has.
struct Place {
  uint64_t offset;
  uint32_t size;
};

/// What a field belongs to. The order is part of what a recipe means.
enum class PlaceKind : uint8_t {
  Header,       // the volume header's own fields
  SpecialFork,  // fork data of the special files
  Reserved,     // the run's locator, or the bytes where one could be
  RunRecord,    // the flush record that a locator names
  Wrapper,      // the surrounding volume's block that tells where this one is
  Bitmap,
  TreeHeader,
  TreeMap,
  NodeDescriptor,
  RecordOffset,
  Key,
  Child,  // a child pointer of an index record
  CatalogRecord,
  CatalogFork,      // sizes and extents of files
  OverflowExtent,   // extents of overflow records
  AttributeRecord,  // attribute records, their forks and extents
  Content,          // what is in the files that the program reads: journal, hot files, playlist
  Node,             // whole nodes
  Count
};

using VolumePlaces = std::array<std::vector<Place>, static_cast<size_t>(PlaceKind::Count)>;

/// Every field of a volume. `built` tells where the special files lie.
VolumePlaces volumePlaces(const FuzzImage& image, const support::BuiltVolume& built);

}  // namespace fuzz
