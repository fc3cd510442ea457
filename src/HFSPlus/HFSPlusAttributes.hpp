#pragma once

#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusBTreeFile.hpp"

/// The key of an attribute where it lies in its node.
struct HFSPlusAttrKeyView {
  uint32_t fileID;
  uint32_t startBlock;                   // allocation blocks from the attribute's start
  std::span<const std::byte> nameUnits;  // big-endian UTF-16 units, at most 127
};

/// The attributes file (file ID 8), which not every volume has. It may be moved, but what it holds
/// is never edited.
class HFSPlusAttributes : public HFSPlusBTreeFile {
 public:
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusAttributes>> open(HFSPlusVolumeAccess& volume);

  /// Orders two keys: by file, then by name, then by start block. Negative, zero or positive.
  static int32_t compare(const HFSPlusAttrKeyView& a, const HFSPlusAttrKeyView& b);

  /// Succeeds; there is never anything to write.
  [[nodiscard]] Result<> flush() override { return {}; }

  [[nodiscard]] XRDefragError inconsistent() const override;

 private:
  explicit HFSPlusAttributes(HFSPlusVolumeAccess& volume)
      : HFSPlusBTreeFile(volume, kHFSAttributesFileID) {}
};
