#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace volumecheck {

// What can be wrong with a volume. The names are stable: tests and command lines refer to them.
#define VOLUME_FINDING_KINDS(X)        \
  /* the volume as a whole */          \
  X(NotAVolume)                        \
  X(ReadFailed)                        \
  X(HeaderInvalid)                     \
  X(HeaderVersion)                     \
  X(AlternateHeaderMissing)            \
  X(AlternateHeaderDiffers)            \
  X(AlternateHeaderLags)               \
  X(NotCleanlyUnmounted)               \
  X(MarkedInconsistent)                \
  X(ReservedAttributeBits)             \
  X(FileCount)                         \
  X(FolderCount)                       \
  X(FreeBlocks)                        \
  X(NextCatalogID)                     \
  X(EncodingsBitmap)                   \
  X(WrapperInvalid)                    \
  /* blocks and their owners */        \
  X(ExtentOutOfRange)                  \
  X(BlockOwnedTwice)                   \
  X(BlockOwnedButClear)                \
  X(BlockSetButUnowned)                \
  X(BitmapTail)                        \
  X(BitmapTooSmall)                    \
  /* every B-tree */                   \
  X(TreeHeader)                        \
  X(TreeFileSize)                      \
  X(TreeDepth)                         \
  X(TreeNodeKind)                      \
  X(TreeNodeHeight)                    \
  X(TreeNodeReserved)                  \
  X(TreeLinks)                         \
  X(TreeChildPointer)                  \
  X(TreeNodeReachedTwice)              \
  X(TreeRecordOffsets)                 \
  X(TreeRecordSize)                    \
  X(TreeKey)                           \
  X(TreeKeyOrder)                      \
  X(TreeIndexKey)                      \
  X(TreeEmptyNode)                     \
  X(TreeLeafRecords)                   \
  X(TreeFirstLastLeaf)                 \
  X(TreeFreeNodes)                     \
  X(TreeMapNode)                       \
  X(TreeMapTail)                       \
  X(TreeNodeNotInMap)                  \
  X(TreeMapNodeUnreached)              \
  X(TreeUnusedNodeNotZero)             \
  /* the catalog */                    \
  X(CatalogRecordType)                 \
  X(CatalogRootFolder)                 \
  X(CatalogDuplicateID)                \
  X(CatalogReservedID)                 \
  X(CatalogParent)                     \
  X(CatalogUnreachable)                \
  X(CatalogFolderThread)               \
  X(CatalogFileThread)                 \
  X(CatalogThreadMismatch)             \
  X(CatalogThreadOrphan)               \
  X(CatalogThreadFlag)                 \
  X(CatalogValence)                    \
  X(CatalogSubfolderCount)             \
  X(CatalogName)                       \
  X(CatalogNameNotDecomposed)          \
  X(HardLinkTarget)                    \
  X(HardLinkCount)                     \
  X(HardLinkFork)                      \
  /* forks and their extents */        \
  X(ForkBlockCount)                    \
  X(ForkSize)                          \
  X(ForkEmptyDescriptor)               \
  X(OverflowKey)                       \
  X(OverflowOrphan)                    \
  X(OverflowStart)                     \
  X(OverflowEmptyRecord)               \
  X(OverflowUnneeded)                  \
  X(OverflowMissing)                   \
  X(OverflowBeyondTotal)               \
  /* attributes, journal, hot files */ \
  X(AttributeRecord)                   \
  X(AttributeOrphan)                   \
  X(AttributeExtents)                  \
  X(JournalInfo)                       \
  X(JournalHeader)                     \
  X(JournalChecksum)                   \
  X(JournalNotEmpty)                   \
  X(HotFiles)

enum class FindingKind : std::uint8_t {
#define VOLUME_FINDING_ENUM(name) name,
  VOLUME_FINDING_KINDS(VOLUME_FINDING_ENUM)
#undef VOLUME_FINDING_ENUM
};

std::string_view nameOf(FindingKind kind);
std::optional<FindingKind> findingKindNamed(std::string_view name);
std::vector<FindingKind> allFindingKinds();

struct Finding {
  FindingKind kind;
  std::string sentence;
};

// Collects findings. At most `kSentencesPerKind` of one kind are kept word for word; the rest are
// counted and summed up in one last sentence, so that a ruined volume cannot flood the memory.
class FindingLog {
 public:
  static constexpr std::uint64_t kSentencesPerKind = 100;

  void add(FindingKind kind, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // The findings in the order they were made, then one summary for every kind that overflowed.
  std::vector<Finding> findings() const;

 private:
  std::vector<Finding> _findings;
  std::map<FindingKind, std::uint64_t> _counts;
};

}  // namespace volumecheck
