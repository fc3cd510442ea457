#include "support/FolderDescription.hpp"

#include "support/VolumeNames.hpp"

namespace support {

AttributeDescription& ItemDescription::addAttribute(std::string_view attributeName, Bytes value) {
  AttributeDescription& attribute = attributes.emplace_back();
  attribute.name = storedName(attributeName);
  attribute.bytes = std::move(value);
  return attribute;
}

AttributeDescription& ItemDescription::addForkAttribute(std::string_view attributeName,
                                                        ForkDescription value) {
  AttributeDescription& attribute = attributes.emplace_back();
  attribute.name = storedName(attributeName);
  attribute.hasFork = true;
  attribute.fork = std::move(value);
  return attribute;
}

FileDescription& FolderDescription::addFile(std::string_view fileName, ForkDescription data,
                                            ForkDescription resource) {
  return addFile(storedName(fileName), std::move(data), std::move(resource));
}

FileDescription& FolderDescription::addFile(std::u16string fileName, ForkDescription data,
                                            ForkDescription resource) {
  FileDescription& file = _files.emplace_back();
  file.name = std::move(fileName);
  file.id = (*_ids)++;
  file.data = std::move(data);
  file.resource = std::move(resource);
  return file;
}

FolderDescription& FolderDescription::addFolder(std::string_view folderName) {
  return addFolder(storedName(folderName));
}

FolderDescription& FolderDescription::addFolder(std::u16string folderName) {
  FolderDescription& folder = _folders.emplace_back(_ids);
  folder.name = std::move(folderName);
  folder.id = (*_ids)++;
  return folder;
}

FolderDescription& FolderDescription::folderAt(std::string_view path) {
  const size_t slash = path.find('/');
  const std::u16string first = storedName(path.substr(0, slash));
  FolderDescription* found = nullptr;
  for (FolderDescription& folder : _folders) {
    if (folder.name == first)
      found = &folder;
  }
  if (found == nullptr)
    found = &addFolder(first);
  return slash == std::string_view::npos ? *found : found->folderAt(path.substr(slash + 1));
}

FileDescription& FolderDescription::addSymbolicLink(std::string_view linkName,
                                                    std::string_view target) {
  FileDescription& link = addFile(linkName, forkWith(target));
  link.type = fourCharCode("slnk");
  link.creator = fourCharCode("rhap");
  link.mode = 0120755;
  return link;
}

FileDescription& FolderDescription::addHardLink(std::string_view linkName, FileDescription& inode) {
  FileDescription& link = addFile(linkName);
  link.type = fourCharCode("hlnk");
  link.creator = fourCharCode("hfs+");
  link.mode = 0100444;
  link.flags |= kHasLinkChainFlag;
  link.special = inode.id;
  ++inode.special;
  if (inode.lastLink == nullptr) {
    inode.firstLink = link.id;
  } else {
    inode.lastLink->nextLink = link.id;
    link.previousLink = inode.lastLink->id;
  }
  inode.lastLink = &link;
  return link;
}

}  // namespace support
