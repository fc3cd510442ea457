#include "Tasks/HFSPlusDefragProgress.hpp"

#include "LWKit/LWFormat.hpp"
#include "XRDefragReport.hpp"

void HFSPlusDefragProgress::expect(uint32_t blocks) {
  _progressBlocksTotal = blocks;
  _progressBlocksProcessed = 0;
  _progressBlocksPercentage = UINT32_MAX;
}

uint32_t HFSPlusDefragProgress::percentage() const {
  // More can be moved than was expected: what stood in the way of the first piece, for one.
  if (_progressBlocksProcessed >= _progressBlocksTotal) {
    return 100;
  }
  return static_cast<uint32_t>(static_cast<double>(_progressBlocksProcessed) * 100.0 /
                               _progressBlocksTotal);
}

void HFSPlusDefragProgress::moved(uint32_t from, uint32_t to, uint32_t count, bool counted) {
  if (counted) {
    _progressBlocksProcessed += count;
  }
  const uint32_t percent = percentage();
  if (!_report) {
    XRDefragReport::shared().print(LWFormat("%s,%d,%u,%u,%u,%u\n", _progressPrefix,
                                            static_cast<int>(percent), from, to, count,
                                            _allocatedBlocks));
  } else if (percent != _progressBlocksPercentage) {
    _progressBlocksPercentage = percent;
    _report(static_cast<int>(percent));
  }
}

void HFSPlusDefragProgress::send() {
  XRDefragReport::shared().printAndFlush({});
}
