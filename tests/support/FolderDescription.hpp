#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "support/ForkDescription.hpp"

namespace support {

/// An extended attribute: inline when `bytes` holds its value, otherwise with a fork of its own.
struct AttributeDescription {
  /// Lower-case names sort alike by folded and by binary comparison, which readers disagree about.
  std::u16string name;
  Bytes bytes;
  bool hasFork = false;
  ForkDescription fork;
};

/// What files and folders have in common.
struct ItemDescription {
  /// The name's units exactly as stored.
  std::u16string name;
  /// The catalog node ID, given when the item is added; a test may set another, unused one.
  uint32_t id = 0;
  std::vector<AttributeDescription> attributes;

  AttributeDescription& addAttribute(std::string_view attributeName, Bytes value);
  AttributeDescription& addForkAttribute(std::string_view attributeName, ForkDescription value);
};

struct FileDescription : ItemDescription {
  ForkDescription data;
  ForkDescription resource;
  uint32_t type = 0;
  uint32_t creator = 0;
  uint16_t mode = 0100644;
  uint16_t flags = kThreadExistsFlag;
  uint16_t finderFlags = 0;
  /// The record's `special` field: a link's inode number, an inode's link count.
  uint32_t special = 1;
  /// The chain of hard links: a link's neighbours; an inode's first link.
  uint32_t previousLink = 0;
  uint32_t nextLink = 0;
  uint32_t firstLink = 0;
  /// The newest link to this inode, where the next one is chained.
  FileDescription* lastLink = nullptr;
};

/// A folder and what lies in it. References to what is added stay valid as long as the volume
/// description lives, also when that is moved.
class FolderDescription : public ItemDescription {
 public:
  /// `ids` counts the catalog node IDs and outlives the folder.
  explicit FolderDescription(uint32_t* ids) : _ids(ids) {}

  /// Adds a file with a name given as UTF-8 text (see storedName()).
  FileDescription& addFile(std::string_view fileName, ForkDescription data = {},
                           ForkDescription resource = {});
  /// Adds a file with a name given as stored units.
  FileDescription& addFile(std::u16string fileName, ForkDescription data = {},
                           ForkDescription resource = {});

  FolderDescription& addFolder(std::string_view folderName);
  FolderDescription& addFolder(std::u16string folderName);

  /// The folder at a path below this one ("private/var/db"); its parts are added where missing.
  FolderDescription& folderAt(std::string_view path);

  FileDescription& addSymbolicLink(std::string_view linkName, std::string_view target);

  /// Adds a hard link to an inode made by VolumeDescription::addInode().
  FileDescription& addHardLink(std::string_view linkName, FileDescription& inode);

  const std::list<FileDescription>& files() const { return _files; }
  const std::list<FolderDescription>& folders() const { return _folders; }

  uint16_t mode = 040755;

 private:
  uint32_t* _ids;
  std::list<FileDescription> _files;
  std::list<FolderDescription> _folders;
};

}  // namespace support
