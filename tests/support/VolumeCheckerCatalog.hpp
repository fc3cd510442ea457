#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "support/VolumeCheckerTree.hpp"

namespace volumecheck {

// Reads the catalog's records and checks what ties them together: threads, parents, counts.
class VolumeCheckerCatalog {
 public:
  explicit VolumeCheckerCatalog(VolumeCheckerState& state) : _state(state) {}
  void check();

 private:
  struct Thread {
    bool ofFolder = false;
    std::uint32_t cnid = 0;
    std::uint32_t parentID = 0;
    std::u16string name;
    std::uint16_t reserved = 0;
  };
  struct Children {
    std::uint32_t items = 0, folders = 0;
  };

  void _chooseOrder(VolumeCheckerTree& tree);
  void _readRecord(Bytes key, Bytes data);
  void _readItem(RecordType type, std::uint32_t parentID, std::u16string name, Bytes data);
  void _readForks(const CatalogItem& item, Bytes data);
  void _readThread(RecordType type, std::uint32_t cnid, bool named, Bytes data);
  void _addPrint(std::uint32_t parentID, const std::u16string& name, Bytes key, Bytes data);
  void _checkName(const CatalogItem& item);
  void _indexItems();
  void _checkThreads();
  void _checkItems();
  void _checkFolder(const CatalogItem& item, const Children& children);
  void _checkCounts();
  void _buildPaths();
  const std::string& _pathOf(std::size_t index);
  void _nameForks();

  VolumeCheckerState& _state;
  std::uint32_t _leafNode = 0;  // the number of the node whose records are being read
  std::vector<Thread> _threads;
  std::unordered_map<std::uint32_t, std::size_t> _itemOf;  // by CNID
  std::unordered_map<std::uint32_t, Children> _childrenOf;
};

}  // namespace volumecheck
