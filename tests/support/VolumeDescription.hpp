#pragma once

#include <memory>
#include <optional>

#include "support/FolderDescription.hpp"
#include "support/PlacementHints.hpp"

namespace support {

/// In which order a tree's nodes lie in its file.
enum class NodeOrder : uint8_t {
  packed,    ///< one after another from the file's start
  spread,    ///< in order, with free nodes between them
  scattered  ///< anywhere
};

/// One of the volume's own B-trees.
struct TreeDescription {
  uint32_t nodeSize = 4096;
  /// Nodes in the file; 0: those in use and about an eighth more. Always rounded up so that the
  /// file fills its blocks.
  uint32_t totalNodes = 0;
  /// How full nodes are packed, as a share of their room.
  double fill = 1.0;
  NodeOrder order = NodeOrder::packed;
  /// Free nodes hold leftovers instead of zeros, and the volume does not claim otherwise.
  bool junkInFreeNodes = false;
  /// Extents may break a node in two; otherwise they are whole nodes.
  bool nodesMayStraddle = false;
  /// Pieces, places. The extents file has to make do with eight.
  uint32_t fragments = 1;
  std::vector<BlockExtent> extents;
};

/// How ordinary forks are laid out in the data area.
struct LayoutDescription {
  /// Puts the pieces of all forks in random order; without, they come fork by fork (a fork of
  /// several pieces then only stays in pieces where something else or a gap comes between).
  bool shuffled = true;
  /// Which share of the free blocks lies between the pieces; the rest is behind the last one.
  double gapShare = 0.3;
  /// Into how many gaps that share is cut; 0: one for every four pieces.
  uint32_t gaps = 0;
};

/// How the bad-blocks file is kept: as records of the overflow file from its first block on, or
/// with a catalog record of its own like any other file.
enum class BadBlocksPlace : uint8_t { overflowOnly, catalog };

/// A whole volume, ready for buildVolume(). Every field has a value that makes a plain, clean,
/// consistent HFS Plus volume; what a test sets differs from that in exactly that point.
class VolumeDescription {
 public:
  VolumeDescription();

  FolderDescription& root() { return *_root; }
  const FolderDescription& root() const { return *_root; }

  /// Adds a file that hard links can point to, in the hidden folder kept for them.
  FileDescription& addInode(ForkDescription data, ForkDescription resource = {});

  /// Makes the volume journaled: adds the (empty) journal of `journalSize` bytes and its info
  /// block. To be called when `blockSize` has its final value.
  void addJournal(uint64_t journalSize = 512 * 1024);

  /// Adds the bad-blocks file with the given blocks.
  void addBadBlocks(std::vector<BlockExtent> blocks, BadBlocksPlace place);

  /// Adds the tree of hot files at the root, with nodes of 512 bytes.
  FileDescription& addHotFilesTree(const std::vector<HotFile>& hotFiles, uint32_t fragments = 1);

  /// Adds the boot playlist where the system keeps it. `swapped` writes it in little-endian order,
  /// as the other kind of machine did.
  FileDescription& addPlaylist(std::vector<PlaylistEntry> entries, bool swapped = false);

  /// The ID that the next item gets; may be raised to leave a hole.
  uint32_t& nextID() { return *_ids; }
  uint32_t nextID() const { return *_ids; }

  /// Decides the stamps, the dates and every random choice of the layout.
  uint64_t seed = 1;
  std::u16string name = u"Untitled";

  uint32_t blockSize = 4096;
  /// Bytes of the volume (without wrapper), or 0 for as many as make it `fillPercent` full. What
  /// does not fill a block lies behind the last one.
  uint64_t size = 0;
  uint32_t fillPercent = 50;
  /// With a size of 0: bytes (whole sectors) behind the last block.
  uint32_t trailingBytes = 0;
  LayoutDescription layout;

  TreeDescription catalog;
  TreeDescription extentsTree;
  TreeDescription attributesTree;
  /// An attributes file also without attributes.
  bool hasAttributesFile = true;
  ForkDescription startup;
  uint32_t allocationFragments = 1;
  /// Blocks of the allocation file beyond those that there are bits for.
  uint32_t spareBitmapBlocks = 0;
  std::vector<BlockExtent> allocationExtents;

  bool hfsx = false;
  bool binaryNames = false;
  bool wrapper = false;

  /// Bits of the header's `attributes` to set and to clear, whatever the rest says.
  uint32_t attributesSet = 0;
  uint32_t attributesCleared = 0;
  std::optional<uint16_t> signature;
  std::optional<uint16_t> version;

  /// Blocks that nothing may be laid on and that stay free.
  std::vector<BlockExtent> keptFree;

  /// Deviations that a reader must cope with: blocks set in the bitmap that nothing owns, and
  /// blocks clear in it whoever owns them.
  std::vector<BlockExtent> markedWithoutOwner;
  std::vector<BlockExtent> unmarked;

  /// What the add… operations above made; the builder fills in what follows from the layout.
  const FileDescription* journalInfoFile = nullptr;
  const FileDescription* journalFile = nullptr;
  const FileDescription* playlistFile = nullptr;
  std::vector<PlaylistEntry> playlist;
  bool playlistSwapped = false;
  std::vector<BlockExtent> overflowOnlyBadBlocks;
  bool hasBadBlocks = false;

 private:
  std::unique_ptr<uint32_t> _ids;
  std::unique_ptr<FolderDescription> _root;
  FolderDescription* _inodeFolder = nullptr;
};

}  // namespace support
