#include "HFSPlus/HFSPlusBTreeNodeCache.hpp"

#include <algorithm>
#include <bit>
#include <utility>

#include "LWKit/LWDebug.hpp"

namespace {

constexpr size_t kFirstBucketCount = 64;

unsigned shiftForBuckets(size_t count) {
  return 64U - static_cast<unsigned>(std::countr_zero(count));
}

}  // namespace

HFSPlusBTreeNodeCache::HFSPlusBTreeNodeCache()
    : _nodeCacheTOC(kFirstBucketCount), _nodeCacheTOCShift(shiftForBuckets(kFirstBucketCount)) {}

HFSPlusBTreeNodeCache::~HFSPlusBTreeNodeCache() {
  forgetAll();
}

HFSPlusBTreeNode* HFSPlusBTreeNodeCache::retain(uint32_t index) {
  HFSPlusBTreeNode* node = _find(index);
  if (node != nullptr && node->_cacheRetainCount++ == 0) {
    _unlinkIdle(*node);
  }
  return node;
}

HFSPlusBTreeNode& HFSPlusBTreeNodeCache::add(std::unique_ptr<HFSPlusBTreeNode> node) {
  if (_nodeCount == _nodeCacheTOC.size()) {
    _grow();
  }
  HFSPlusBTreeNode& added = *node.release();
  HFSPlusBTreeNode*& bucket = _nodeCacheTOC[_bucket(added.index())];
  added._cacheChainLink = std::exchange(bucket, &added);
  added._cacheRetainCount = 1;
  ++_nodeCount;
  return added;
}

void HFSPlusBTreeNodeCache::release(HFSPlusBTreeNode& node) {
  LW_ASSERT(node._cacheRetainCount > 0);
  if (--node._cacheRetainCount > 0) {
    return;
  }
  _linkIdle(node);
  if (_nodeCacheLimit != 0 && _nodeCacheCount > _nodeCacheLimit) {
    _cachedNodeDealloc(*_nodeCacheQTail);
  }
}

void HFSPlusBTreeNodeCache::evictAll() {
  while (_nodeCacheQTail != nullptr) {
    _cachedNodeDealloc(*_nodeCacheQTail);
  }
}

void HFSPlusBTreeNodeCache::forgetAll() {
  // A hold would outlive its node.
  LW_ASSERT(_nodeCount == _nodeCacheCount);
  while (_nodeCacheQHead != nullptr) {
    delete std::exchange(_nodeCacheQHead, _nodeCacheQHead->_cacheNextLink);
  }
  _nodeCacheQTail = nullptr;
  std::ranges::fill(_nodeCacheTOC, nullptr);
  _nodeCount = 0;
  _nodeCacheCount = 0;
  _spare.reset();
}

std::vector<HFSPlusBTreeNode*> HFSPlusBTreeNodeCache::dirtyNodes() const {
  std::vector<HFSPlusBTreeNode*> nodes;
  for (HFSPlusBTreeNode* node : _nodeCacheTOC) {
    for (; node != nullptr; node = node->_cacheChainLink) {
      if (node->dirty()) {
        nodes.push_back(node);
      }
    }
  }
  std::ranges::sort(nodes, {}, &HFSPlusBTreeNode::index);
  return nodes;
}

HFSPlusBTreeNode* HFSPlusBTreeNodeCache::_find(uint32_t index) const {
  HFSPlusBTreeNode* node = _nodeCacheTOC[_bucket(index)];
  while (node != nullptr && node->index() != index) {
    node = node->_cacheChainLink;
  }
  return node;
}

void HFSPlusBTreeNodeCache::_grow() {
  std::vector<HFSPlusBTreeNode*> old(_nodeCacheTOC.size() * 2);
  old.swap(_nodeCacheTOC);
  _nodeCacheTOCShift = shiftForBuckets(_nodeCacheTOC.size());
  for (HFSPlusBTreeNode* node : old) {
    while (node != nullptr) {
      HFSPlusBTreeNode*& bucket = _nodeCacheTOC[_bucket(node->index())];
      HFSPlusBTreeNode* next = std::exchange(node->_cacheChainLink, bucket);
      bucket = std::exchange(node, next);
    }
  }
}

void HFSPlusBTreeNodeCache::_linkIdle(HFSPlusBTreeNode& node) {
  node._cachePrevLink = nullptr;
  node._cacheNextLink = _nodeCacheQHead;
  (_nodeCacheQHead != nullptr ? _nodeCacheQHead->_cachePrevLink : _nodeCacheQTail) = &node;
  _nodeCacheQHead = &node;
  ++_nodeCacheCount;
}

void HFSPlusBTreeNodeCache::_unlinkIdle(HFSPlusBTreeNode& node) {
  HFSPlusBTreeNode* previous = std::exchange(node._cachePrevLink, nullptr);
  HFSPlusBTreeNode* next = std::exchange(node._cacheNextLink, nullptr);
  (previous != nullptr ? previous->_cacheNextLink : _nodeCacheQHead) = next;
  (next != nullptr ? next->_cachePrevLink : _nodeCacheQTail) = previous;
  --_nodeCacheCount;
}

void HFSPlusBTreeNodeCache::_cachedNodeDealloc(HFSPlusBTreeNode& node) {
  // The node reports a failure itself; there is nobody here to pass it to.
  (void)node.flush();

  HFSPlusBTreeNode** link = &_nodeCacheTOC[_bucket(node.index())];
  while (*link != &node) {
    link = &(*link)->_cacheChainLink;
  }
  *link = std::exchange(node._cacheChainLink, nullptr);
  --_nodeCount;
  _unlinkIdle(node);
  _spare.reset(&node);
}
