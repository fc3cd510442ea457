#include "support/VolumeCheckerSource.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace volumecheck {

namespace {

// Beyond this many holes a file is read as if it had none.
constexpr std::size_t kMaxHoles = 1 << 20;

}  // namespace

VolumeCheckerSource::VolumeCheckerSource(Bytes buffer)
    : _buffer(buffer), _windowSize(buffer.size()) {}

VolumeCheckerSource::VolumeCheckerSource(int descriptor, std::uint64_t size)
    : _descriptor(descriptor), _windowSize(size) {}

VolumeCheckerSource::~VolumeCheckerSource() {
  if (_descriptor >= 0) {
    ::close(_descriptor);
  }
}

std::unique_ptr<VolumeCheckerSource> VolumeCheckerSource::openFile(const std::string& path,
                                                                   std::string& whyNot) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    whyNot = std::strerror(errno);
    return nullptr;
  }
  // The end of a block device is where seeking to its end leads.
  const off_t size = ::lseek(descriptor, 0, SEEK_END);
  struct stat status{};
  if (size < 0 || ::fstat(descriptor, &status) != 0) {
    whyNot = std::strerror(errno);
    ::close(descriptor);
    return nullptr;
  }
  std::unique_ptr<VolumeCheckerSource> source(
      new VolumeCheckerSource(descriptor, static_cast<std::uint64_t>(size)));
  if (S_ISREG(status.st_mode)) {
    source->_findHoles();
  }
  return source;
}

void VolumeCheckerSource::_findHoles() {
  const auto end = static_cast<off_t>(_windowSize);
  off_t hole = ::lseek(_descriptor, 0, SEEK_HOLE);
  while (hole >= 0 && hole < end) {
    off_t data = ::lseek(_descriptor, hole, SEEK_DATA);
    data = data < 0 ? end : data;
    _holes.emplace_back(hole, data);
    if (_holes.size() > kMaxHoles) {
      _holes.clear();
      return;
    }
    hole = data < end ? ::lseek(_descriptor, data, SEEK_HOLE) : end;
  }
}

bool VolumeCheckerSource::narrow(std::uint64_t offset, std::uint64_t size) {
  if (offset > _windowSize || size > _windowSize - offset) {
    return false;
  }
  _windowOffset += offset;
  _windowSize = size;
  return true;
}

bool VolumeCheckerSource::read(std::uint64_t offset, std::span<std::uint8_t> out) const {
  if (offset > _windowSize || out.size() > _windowSize - offset) {
    return false;
  }
  if (out.empty()) {
    return true;
  }
  offset += _windowOffset;
  if (_descriptor < 0) {
    std::memcpy(out.data(), _buffer.data() + offset, out.size());
    return true;
  }
  while (!out.empty()) {
    const ssize_t got = ::pread(_descriptor, out.data(), out.size(), static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    offset += static_cast<std::uint64_t>(got);
    out = out.subspan(static_cast<std::size_t>(got));
  }
  return true;
}

std::uint64_t VolumeCheckerSource::holeEnd(std::uint64_t offset) const {
  const std::uint64_t absolute = offset + _windowOffset;
  auto hole = std::upper_bound(
      _holes.begin(), _holes.end(), absolute,
      [](std::uint64_t at, const auto& candidate) { return at < candidate.second; });
  if (hole == _holes.end() || hole->first > absolute) {
    return offset;
  }
  return std::min(hole->second - _windowOffset, _windowSize);
}

VolumeCheckerForkReader::VolumeCheckerForkReader(const VolumeCheckerSource& source,
                                                 std::uint32_t blockSize,
                                                 const std::vector<Extent>& extents)
    : _source(source) {
  for (const Extent& extent : extents) {
    const std::uint64_t size = std::uint64_t{extent.blockCount} * blockSize;
    _pieces.push_back({_mappedSize, std::uint64_t{extent.startBlock} * blockSize, size});
    _mappedSize += size;
  }
}

template <typename Visit>
bool VolumeCheckerForkReader::_eachPart(std::uint64_t offset, std::uint64_t size,
                                        Visit visit) const {
  if (offset > _mappedSize || size > _mappedSize - offset) {
    return false;
  }
  auto piece = std::upper_bound(
      _pieces.begin(), _pieces.end(), offset,
      [](std::uint64_t at, const Piece& candidate) { return at < candidate.forkOffset; });
  for (--piece; size > 0 && piece != _pieces.end(); ++piece) {
    const std::uint64_t inside = offset - piece->forkOffset;
    const std::uint64_t part = std::min(size, piece->size - inside);
    if (part > 0 && !visit(piece->volumeOffset + inside, part)) {
      return false;
    }
    offset += part;
    size -= part;
  }
  return size == 0;
}

bool VolumeCheckerForkReader::read(std::uint64_t offset, std::span<std::uint8_t> out) const {
  if (out.empty()) {
    return offset <= _mappedSize;
  }
  std::size_t filled = 0;
  return _eachPart(offset, out.size(), [&](std::uint64_t at, std::uint64_t size) {
    filled += size;
    return _source.read(at, out.subspan(filled - size, size));
  });
}

bool VolumeCheckerForkReader::isHole(std::uint64_t offset, std::uint64_t size) const {
  return size > 0 && _eachPart(offset, size, [&](std::uint64_t at, std::uint64_t part) {
           return _source.isHole(at, part);
         });
}

}  // namespace volumecheck
