#pragma once

#include <cstdint>

#include "HFSPlus/HFSPlusFormat.hpp"

/// Where ordinary files are made known, so that they can be read by file offset like special ones.
class HFSPlusForkDataRegistry {
 public:
  virtual ~HFSPlusForkDataRegistry() = default;

  /// Registers the data fork, in host order, of a file under its ID, or replaces it in place.
  virtual void cacheHostForkData(const HFSPlusForkData& forkData, uint32_t fileID) = 0;

  /// Forgets what was registered; nobody may use the file any more.
  virtual void uncacheHostForkData(uint32_t fileID) = 0;
};

/// Keeps a file's data fork registered for as long as the object lives.
class HFSPlusRegisteredForkData {
 public:
  HFSPlusRegisteredForkData(HFSPlusForkDataRegistry& registry, const HFSPlusCatalogFile& file)
      : _registry(registry), _fileID(file.fileID) {
    _registry.cacheHostForkData(file.dataFork, _fileID);
  }
  HFSPlusRegisteredForkData(const HFSPlusRegisteredForkData&) = delete;
  HFSPlusRegisteredForkData& operator=(const HFSPlusRegisteredForkData&) = delete;
  ~HFSPlusRegisteredForkData() { _registry.uncacheHostForkData(_fileID); }

 private:
  HFSPlusForkDataRegistry& _registry;
  uint32_t _fileID;
};
