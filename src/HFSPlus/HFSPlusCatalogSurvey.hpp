#pragma once

#include <cstdint>

#include "HFSPlus/HFSPlusCatalog.hpp"

/// Notes where the files of a catalog lie, while somebody passes by all of its nodes in whatever
/// order: a run that looks up every file then finds most of them without descents.
///
/// What is noted counts only in a tree that is whole, where a descent would find the same: when
/// every node but the root turns out to have one index record, with the key that the node begins
/// with. In any other tree files are looked up from the root, which tells what is wrong with it.
class HFSPlusCatalogSurvey {
 public:
  /// The catalog must outlive the survey.
  explicit HFSPlusCatalogSurvey(HFSPlusCatalog& catalog) : _catalog(catalog) {}
  HFSPlusCatalogSurvey(const HFSPlusCatalogSurvey&) = delete;
  HFSPlusCatalogSurvey& operator=(const HFSPlusCatalogSurvey&) = delete;
  /// A survey that was given up leaves nothing noted.
  ~HFSPlusCatalogSurvey();

  /// Takes in a node of any kind.
  void addNode(const HFSPlusBTreeNode& node);
  /// All nodes have been added.
  void finish();

 private:
  void _addRecord(const HFSPlusCatalogRecordView& record, const HFSPlusBTreeNode& node,
                  uint32_t index);
  void _addLeafRecord(const HFSPlusCatalogRecordView& record, uint32_t node, uint32_t index);

  HFSPlusCatalog& _catalog;
  // Sums of a fingerprint for every node, as it begins and as its parent has it.
  uint64_t _nodes = 0;
  uint64_t _children = 0;
  bool _isOrdered = true;
};
