#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "HFSPlus/HFSPlusBTreeFile.hpp"
#include "HFSPlus/HFSPlusCatalogPlaces.hpp"
#include "HFSPlus/HFSPlusCatalogRecord.hpp"
#include "HFSPlus/HFSPlusNameCompare.hpp"

/// Who is shown the children of a folder. Records and keys lie in the node, in disk order, and are
/// gone afterwards; an error stops the listing and is its error.
class HFSPlusFolderDelegate {
 public:
  virtual ~HFSPlusFolderDelegate() = default;

  virtual void iterateFolderWillStart() {}
  [[nodiscard]] virtual Result<> iterateFolderFile(const DiskOrder<HFSPlusCatalogFile>&,
                                                   const HFSPlusCatalogKeyView&) {
    return {};
  }
  [[nodiscard]] virtual Result<> iterateFolderFolder(const DiskOrder<HFSPlusCatalogFolder>&,
                                                     const HFSPlusCatalogKeyView&) {
    return {};
  }
  /// Also after a failure.
  virtual void iterateFolderDidFinish() {}
};

/// The catalog (file ID 4): finds files and folders by ID and by path, builds paths, lists folders,
/// and rewrites the extents that a file's record holds.
///
/// Every record is checked where it is read, and every walk over nodes or parents is bounded: what
/// does not hold together fails with "Catalog file is inconsistent.". Used by one thread at a time,
/// the one that has closed the volume's gate.
class HFSPlusCatalog : public HFSPlusBTreeFile {
 public:
  /// Opens the tree with a node cache of 32 MiB and the name order that the volume asks for.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusCatalog>> open(HFSPlusVolumeAccess& volume);

  [[nodiscard]] XRDefragError inconsistent() const override;

  /// Orders two keys: by parent, then by name.
  int32_t compare(const HFSPlusCatalogKeyView& a, const HFSPlusCatalogKeyView& b) const;

  /// The file or folder with a catalog node ID; type 0 when there is none.
  [[nodiscard]] Result<HFSPlusCatalogRecord> copyRecordForCNID(uint32_t cnid);

  /// The file or folder at a path of components separated by "/"; a ":" in a component stands for
  /// itself or for a "/" in the name. When a later component is missing, the record of the deepest
  /// one found (type 0 if the missing one holds a ":"): who needs the exact item compares its name.
  /// Fails with the two "Unicode path conversion failed." messages.
  [[nodiscard]] Result<HFSPlusCatalogRecord> copyRecordForPath(std::string_view utf8);

  /// Whether a record that was found has this name, as the volume compares names.
  bool isNamed(const HFSPlusCatalogRecord& record, std::u16string_view name) const;

  /// The path of a catalog node ID in UTF-8, beginning with "/"; empty for the root folder; a text
  /// in parentheses for a special file; nothing when the ID or one of its parents has no thread
  /// record. Fails with a path of 1024 units or more.
  [[nodiscard]] Result<std::optional<std::string>> copyPathForCNID(uint32_t cnid);

  /// Where the records of files, and the threads of folders, have been seen: they are looked for
  /// there first. A file that was found by a descent is added by itself.
  HFSPlusCatalogPlaces& places() { return _places; }

  /// Shows a folder's children to the delegate in the order of their names. A folder that does not
  /// exist has none.
  [[nodiscard]] Result<> iterateFolderID(uint32_t folderID, HFSPlusFolderDelegate& delegate);

  /// Rewrites the first eight extents (host order) of a file's fork in its record; with
  /// `setZeroLength` also its logical size and total blocks, to 0. Changes nothing, without an
  /// error, when the file's records are missing between others; "Volume is inconsistent." when they
  /// would come last in their leaf, for another fork type, and for what is not a file.
  [[nodiscard]] Result<> updateForkExtents(const HFSPlusExtentRecord& host, uint32_t fileID,
                                           uint8_t forkType, bool setZeroLength);

 private:
  /// A place in a node: the first record whose key is not less than the one sought, which may be
  /// one past the last record.
  struct Slot {
    uint32_t index;
    bool equal;
  };
  struct Position {
    HFSPlusBTreeNodeHold leaf;
    Slot slot;
  };
  struct ItemKey;

  explicit HFSPlusCatalog(HFSPlusVolumeAccess& volume);

  /// The record at an index below the node's count.
  Result<HFSPlusCatalogRecordView> _recordAt(const HFSPlusBTreeNode& node, uint32_t index) const;
  Result<Slot> _searchNode(const HFSPlusBTreeNode& node, const HFSPlusCatalogKeyView& key) const;
  Result<uint32_t> _childForKey(const HFSPlusBTreeNode& node,
                                const HFSPlusCatalogKeyView& key) const;
  Result<Position> _findKey(const HFSPlusCatalogKeyView& key);
  Result<std::optional<ItemKey>> _keyOfItem(const Position& thread) const;
  Result<std::optional<ItemKey>> _keyForCNID(uint32_t cnid);
  Result<HFSPlusCatalogRecord> _copyRecordForKey(const HFSPlusCatalogKeyView& key);
  Result<HFSPlusCatalogRecord> _copyRecordAt(const Position& position) const;
  Result<std::optional<Position>> _rememberedFile(uint32_t cnid);
  Result<std::optional<Position>> _rememberedThread(uint32_t cnid);
  template <typename IsSought>
  Result<std::optional<Position>> _rememberedRecord(uint32_t cnid, const IsSought& isSought);
  Result<std::u16string> _nameForComponent(std::string_view component) const;
  Result<> _iterateFolderID(uint32_t folderID, HFSPlusFolderDelegate& delegate);
  Result<> _showChild(const HFSPlusCatalogRecordView& record,
                      HFSPlusFolderDelegate& delegate) const;
  static Result<bool> _isThere(const Position& position);

  bool _binaryKeyCompare = false;
  HFSPlusNameComparison _keyCompareProc = HFSPlusCompareNamesFolded;
  HFSPlusCatalogPlaces _places;
};
