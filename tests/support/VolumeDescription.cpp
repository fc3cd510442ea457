#include "support/VolumeDescription.hpp"

#include "support/HotFilesTree.hpp"
#include "support/VolumeNames.hpp"

namespace support {

namespace {

constexpr uint16_t kFinderInvisible = 0x4000;
constexpr size_t kPlaylistHeaderSize = 12;
constexpr size_t kPlaylistEntrySize = 20;

}  // namespace

VolumeDescription::VolumeDescription()
    : _ids(std::make_unique<uint32_t>(kFirstUserID)),
      _root(std::make_unique<FolderDescription>(_ids.get())) {
  _root->id = kRootFolderID;
  attributesTree.nodeSize = 8192;
}

FileDescription& VolumeDescription::addInode(ForkDescription data, ForkDescription resource) {
  if (_inodeFolder == nullptr)
    _inodeFolder = &_root->addFolder(std::u16string(4, u'\0') + u"HFS+ Private Data");
  const std::string inodeName = "iNode" + std::to_string(*_ids);
  FileDescription& inode = _inodeFolder->addFile(inodeName, std::move(data), std::move(resource));
  inode.flags |= kHasLinkChainFlag;
  inode.special = 0;
  return inode;
}

void VolumeDescription::addJournal(uint64_t journalSize) {
  const auto addHidden = [&](std::string_view fileName, uint64_t bytes) {
    FileDescription& file = _root->addFile(fileName, fork(bytes));
    file.type = fourCharCode("jrnl");
    file.creator = fourCharCode("hfs+");
    file.mode = 0100000;
    file.finderFlags = kFinderInvisible;
    file.data.atFront = true;
    file.data.unsplittable = true;
    return &file;
  };
  journalInfoFile = addHidden(".journal_info_block", blockSize);
  journalFile = addHidden(".journal", dividedUp(journalSize, blockSize) * blockSize);
}

void VolumeDescription::addBadBlocks(std::vector<BlockExtent> blocks, BadBlocksPlace place) {
  hasBadBlocks = true;
  if (place == BadBlocksPlace::overflowOnly) {
    overflowOnlyBadBlocks = std::move(blocks);
    return;
  }
  uint64_t count = 0;
  for (const BlockExtent& extent : blocks)
    count += extent.count;
  FileDescription& file =
      _root->addFile("Bad Blocks", forkAt(std::move(blocks), count * blockSize));
  file.id = kBadBlocksFileID;
}

FileDescription& VolumeDescription::addHotFilesTree(const std::vector<HotFile>& hotFiles,
                                                    uint32_t fragments) {
  FileDescription& file = _root->addFile(".hotfiles.btree", forkWith(hotFilesTree(hotFiles)));
  file.data.fragments = fragments;
  file.data.atFront = true;
  file.finderFlags = kFinderInvisible;
  return file;
}

FileDescription& VolumeDescription::addPlaylist(std::vector<PlaylistEntry> entries, bool swapped) {
  const uint64_t length = kPlaylistHeaderSize + entries.size() * kPlaylistEntrySize;
  FileDescription& file =
      _root->folderAt("private/var/db").addFile("BootCache.playlist", fork(length));
  playlistFile = &file;
  playlist = std::move(entries);
  playlistSwapped = swapped;
  return file;
}

}  // namespace support
