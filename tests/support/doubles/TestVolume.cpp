#include "support/doubles/TestVolume.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"

namespace doubles {

void editHeaders(std::span<std::byte> image, const std::function<void(HFSPlusVolumeHeader&)>& edit,
                 uint64_t start, uint64_t size) {
  const uint64_t end = size == 0 ? image.size() / 512 * 512 : start + size;
  for (const uint64_t offset :
       {start + kHFSPlusVolumeHeaderOffset, end - kHFSPlusAlternateVolumeHeaderDistance}) {
    DiskOrder<HFSPlusVolumeHeader> disk;
    std::ranges::copy(image.subspan(offset, disk.bytes.size()), disk.bytes.begin());
    HFSPlusVolumeHeader header = toHost(disk);
    edit(header);
    std::ranges::copy(toDisk(header).bytes, image.subspan(offset).begin());
  }
}

TestVolume::TestVolume(std::span<const std::byte> image, Mode mode)
    : TestVolume(std::make_shared<MemoryDevice>(image), mode) {}

TestVolume::TestVolume(std::shared_ptr<MemoryDevice> holder, Mode mode)
    : memory(std::move(holder)),
      faulty(std::make_shared<FaultyDevice>(memory)),
      recording(std::make_shared<RecordingDevice>(faulty)),
      device("/dev/test", recording, mode == Mode::Mounted, mode == Mode::ReadWrite) {}

Result<bool> TestVolume::probe() {
  return HFSPlusVolume::probe(device);
}

Result<> TestVolume::open(HFSXVolumes hfsxVolumes) {
  volume = TRY(HFSPlusVolume::open(device, hfsxVolumes));
  recording->clear();
  return {};
}

HFSPlusVolumeHeader TestVolume::headerOnDisk() {
  DiskOrder<HFSPlusVolumeHeader> disk;
  std::ranges::copy(
      memory->bytes(volume->volumeStartOffset() + kHFSPlusVolumeHeaderOffset, disk.bytes.size()),
      disk.bytes.begin());
  return toHost(disk);
}

HFSPlusVolumeHeader TestVolume::alternateOnDisk() {
  DiskOrder<HFSPlusVolumeHeader> disk;
  const uint64_t end = volume->volumeStartOffset() + volume->volumeSizeBytes();
  std::ranges::copy(memory->bytes(end - kHFSPlusAlternateVolumeHeaderDistance, disk.bytes.size()),
                    disk.bytes.begin());
  return toHost(disk);
}

}  // namespace doubles
