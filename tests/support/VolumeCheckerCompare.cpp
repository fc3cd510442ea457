#include <map>
#include <tuple>

#include "support/VolumeCheckerNames.hpp"
#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

using Differences = std::vector<std::string>;

void compareNumber(Differences& differences, const char* what, std::uint64_t before,
                   std::uint64_t after) {
  if (before != after) {
    differences.push_back(std::string("The ") + what + " changed from " + std::to_string(before) +
                          " to " + std::to_string(after) + ".");
  }
}

void compareSpecialFork(Differences& differences, const char* what, const ForkData& before,
                        const ForkData& after) {
  const std::string name = what;
  compareNumber(differences, (name + "'s size").c_str(), before.logicalSize, after.logicalSize);
  compareNumber(differences, (name + "'s clump size").c_str(), before.clumpSize, after.clumpSize);
  compareNumber(differences, (name + "'s block count").c_str(), before.totalBlocks,
                after.totalBlocks);
}

void compareHeaders(Differences& differences, const VolumeTruth& beforeTruth,
                    const VolumeTruth& afterTruth) {
  const HeaderTruth& before = beforeTruth.header;
  const HeaderTruth& after = afterTruth.header;
  const std::tuple<const char*, std::uint64_t, std::uint64_t> fields[] = {
      {"signature", before.signature, after.signature},
      {"version", before.version, after.version},
      {"volume's attributes", before.attributes, after.attributes},
      {"last mounted version", before.lastMountedVersion, after.lastMountedVersion},
      {"journal info block", before.journalInfoBlock, after.journalInfoBlock},
      {"creation date", before.createDate, after.createDate},
      {"modification date", before.modifyDate, after.modifyDate},
      {"backup date", before.backupDate, after.backupDate},
      {"check date", before.checkedDate, after.checkedDate},
      {"file count", before.fileCount, after.fileCount},
      {"folder count", before.folderCount, after.folderCount},
      {"block size", before.blockSize, after.blockSize},
      {"block count", before.totalBlocks, after.totalBlocks},
      {"next allocation", before.nextAllocation, after.nextAllocation},
      {"resource clump size", before.rsrcClumpSize, after.rsrcClumpSize},
      {"data clump size", before.dataClumpSize, after.dataClumpSize},
      {"next catalog ID", before.nextCatalogID, after.nextCatalogID},
      {"encodings bitmap", before.encodingsBitmap, after.encodingsBitmap},
      {"Finder information", before.finderInfo.low, after.finderInfo.low},
      {"volume's offset", beforeTruth.volumeOffset, afterTruth.volumeOffset},
      {"volume's size", beforeTruth.volumeSize, afterTruth.volumeSize}};
  for (const auto& [what, old, now] : fields) {
    compareNumber(differences, what, old, now);
  }
  // A count that was wrong before may have been put right.
  if (after.freeBlocks != afterTruth.clearBits) {
    compareNumber(differences, "free block count", before.freeBlocks, after.freeBlocks);
  }
  compareSpecialFork(differences, "allocation file", before.allocationFile, after.allocationFile);
  compareSpecialFork(differences, "extents file", before.extentsFile, after.extentsFile);
  compareSpecialFork(differences, "catalog file", before.catalogFile, after.catalogFile);
  compareSpecialFork(differences, "attributes file", before.attributesFile, after.attributesFile);
  compareSpecialFork(differences, "startup file", before.startupFile, after.startupFile);
}

std::string describe(const Fork& fork) {
  std::string text = describeFork(fork.cnid, fork.type);
  if (!fork.attributeName.empty()) {
    text += " (" + fork.attributeName + ")";
  }
  return text + (fork.cnid >= kFirstUserID && !fork.path.empty() ? " " + fork.path : "");
}

// What these files hold says where blocks are, so it changes with placement.
bool holdsPlacement(const Fork& fork) {
  return fork.cnid == kExtentsFileID || fork.cnid == kCatalogFileID ||
         fork.cnid == kAllocationFileID;
}

// Forks that must stay where they are: others refer to them by block, or they are damaged places.
bool isImmovable(const Fork& fork) {
  return fork.cnid == kBadBlockFileID || fork.type == ForkType::Attribute ||
         (fork.type == ForkType::Data &&
          (fork.path == "/.journal" || fork.path == "/.journal_info_block"));
}

void compareFork(Differences& differences, const Fork& before, const Fork& after) {
  const std::string name = describe(before);
  compareNumber(differences, (name + "'s size").c_str(), before.logicalSize, after.logicalSize);
  compareNumber(differences, (name + "'s block count").c_str(), before.totalBlocks,
                after.totalBlocks);
  if (before.hashed != after.hashed) {
    differences.push_back("The " + name + " could be read only " +
                          (before.hashed ? "before." : "afterwards."));
  } else if (!holdsPlacement(before) && before.hash != after.hash) {
    differences.push_back("The " + name + "'s bytes changed from " + before.hash.hex() + " to " +
                          after.hash.hex() + ".");
  }
  if (isImmovable(before) && before.extents != after.extents) {
    differences.push_back("The " + name + " was moved.");
  }
}

// Both lists are sorted in the same way.
void compareForks(Differences& differences, const VolumeTruth& before, const VolumeTruth& after) {
  const auto keyOf = [](const Fork& fork) {
    return std::tie(fork.cnid, fork.type, fork.attributeName);
  };
  auto old = before.forks.begin();
  auto now = after.forks.begin();
  while (old != before.forks.end() || now != after.forks.end()) {
    const bool gone =
        now == after.forks.end() || (old != before.forks.end() && keyOf(*old) < keyOf(*now));
    const bool fresh = !gone && (old == before.forks.end() || keyOf(*now) < keyOf(*old));
    if (gone) {
      differences.push_back("The " + describe(*old++) + " is gone.");
    } else if (fresh) {
      differences.push_back("The " + describe(*now++) + " is new.");
    } else {
      compareFork(differences, *old++, *now++);
    }
  }
}

void compareRecords(Differences& differences, const VolumeTruth& before, const VolumeTruth& after) {
  using Key = std::tuple<std::uint32_t, std::u16string_view>;
  std::map<Key, Hash128> old;
  for (const RecordPrint& record : before.records) {
    old.emplace(Key{record.parentID, record.name}, record.hash);
  }
  for (const RecordPrint& record : after.records) {
    const auto found = old.find(Key{record.parentID, record.name});
    const std::string name = "The catalog record \"" + displayName(record.name) + "\" of folder " +
                             std::to_string(record.parentID);
    if (found == old.end()) {
      differences.push_back(name + " is new.");
      continue;
    }
    if (found->second != record.hash) {
      differences.push_back(name + " changed beyond its extents.");
    }
    old.erase(found);
  }
  for (const auto& [key, hash] : old) {
    differences.push_back("The catalog record \"" + displayName(std::get<1>(key)) +
                          "\" of folder " + std::to_string(std::get<0>(key)) + " is gone.");
  }
}

}  // namespace

std::vector<std::string> compareVolumes(const VolumeTruth& before, const VolumeTruth& after) {
  Differences differences;
  compareHeaders(differences, before, after);
  compareForks(differences, before, after);
  compareRecords(differences, before, after);
  if (before.attributesHash != after.attributesHash) {
    differences.push_back("The attribute records changed beyond their extents.");
  }
  if (before.journal.empty != after.journal.empty) {
    differences.push_back("The journal was filled or emptied.");
  }
  return differences;
}

}  // namespace volumecheck
