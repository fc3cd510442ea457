#include "session/Examination.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>

#include "base/Text.hpp"

namespace view {

namespace {

/// A step's command, the task that answers it, and where its progress begins in the whole.
struct StepPlan {
  std::string_view command;
  std::string_view task;
  std::string_view activity;
  int percentBefore;
};

constexpr std::array<StepPlan, 5> kSteps = {{
    {"BITMAP 1", "BITMAP", "Reading the allocation bitmap", 0},
    {"SCAN --frag-only", "SCAN", "Looking for fragmented files", 5},
    {"SCAN --full-paths", "SCAN", "Reading every file's extents", 45},
    {"FRAGINFO", "FRAGINFO", "Adding up", 95},
    {"", "", "", 100},
}};

const StepPlan& planOf(size_t step) {
  return kSteps[step];
}

}  // namespace

Examination::Examination(Session& session, std::string device) : _session(session) {
  _picture.device = std::move(device);
  _picture.takenAt = static_cast<int64_t>(std::time(nullptr));
  _session.addListener(*this);
  ask();
}

Examination::~Examination() {
  _session.removeListener(*this);
}

std::string Examination::activity() const {
  return std::string(planOf(static_cast<size_t>(_step)).activity);
}

void Examination::ask() {
  const StepPlan& plan = planOf(static_cast<size_t>(_step));
  _percent = plan.percentBefore;
  if (_step != Step::Done) {
    _session.ask(plan.command);
  }
}

void Examination::finish() {
  _step = Step::Done;
  _percent = 100;
  _picture.mostFragmented = _byPieces.take();
  _picture.largest = _byBlocks.take();
}

void Examination::beginBitmap(uint64_t bytes) {
  const auto geometry = findBlockGeometry(deviceBytes(_picture.device), bytes);
  const uint64_t blocks = geometry ? geometry->blocks : bytes * 8;
  if (geometry) {
    _picture.blockBytes = geometry->blockBytes;
  }
  _picture.map = TileMap(blocks);
  _bits.emplace(blocks, [this](BlockRun run, bool isUsed) {
    if (isUsed) {
      _picture.map.addUsed(run);
      return;
    }
    ++_picture.freeRuns;
    _picture.largestFreeRun = std::max(_picture.largestFreeRun, run.count);
    _picture.blocksPerFreeRun.add(run.count);
  });
}

bool Examination::isFragmented(uint64_t fileID) const {
  return std::ranges::binary_search(_fragmentedIDs, static_cast<uint32_t>(fileID));
}

void Examination::reportToolError(const std::string& message) {
  if (!isDone()) {
    _failure = Failure{ExitStatus::Refused, message};
    finish();
  }
}

void Examination::reportProgress(const std::string& task, const ProgressLine& progress) {
  const auto step = static_cast<size_t>(_step);
  if (isDone() || task != planOf(step).task) {
    return;
  }
  const int before = planOf(step).percentBefore;
  const int share = planOf(step + 1).percentBefore - before;
  _percent = std::max(_percent, before + share * progress.percent / 100);
}

void Examination::reportTaskError(const std::string& task, const std::string& message) {
  if (!isDone() && task == planOf(static_cast<size_t>(_step)).task) {
    _failure = Failure{ExitStatus::Refused, message};
  }
}

void Examination::reportDone(const std::string& task) {
  if (isDone() || task != planOf(static_cast<size_t>(_step)).task) {
    return;
  }
  if (_step == Step::Bitmap && _bits) {
    _bits->finish();
  }
  if (_step == Step::FragmentedFiles) {
    std::ranges::sort(_fragmentedIDs);
  }
  const bool unanswered =
      (_step == Step::Bitmap && !_bits) || (_step == Step::Totals && !_totalsSeen);
  if (!_failure && unanswered) {
    // A task that is asked to stop ends with DONE alone.
    _failure = Failure{ExitStatus::Cancelled, task + " ended without its answer."};
  }
  if (_failure) {
    finish();
    return;
  }
  _step = static_cast<Step>(static_cast<int>(_step) + 1);
  if (_step == Step::Done) {
    finish();
  } else {
    ask();
  }
}

void Examination::reportFile(const std::string& task, const FileLine& file) {
  if (task != "SCAN") {
    return;
  }
  if (_step == Step::FragmentedFiles) {
    _fragmentedIDs.push_back(static_cast<uint32_t>(file.fileID));
    return;
  }
  if (_step != Step::AllFiles) {
    return;
  }
  FileEntry entry = {.id = file.fileID,
                     .path = file.name,
                     .pieces = file.extents.size(),
                     .blocks = 0,
                     .fragmented = isFragmented(file.fileID),
                     .modified = file.modified};
  for (const BlockRun& extent : file.extents) {
    entry.blocks += extent.count;
    _picture.map.addFile(extent, entry.fragmented);
  }
  ++_picture.files;
  _picture.pieces += entry.pieces;
  _picture.emptyFiles += entry.pieces == 0 ? 1 : 0;
  // Two forks in one piece each are two extents, and still nothing to mend.
  _picture.piecesPerFile.add(entry.fragmented ? entry.pieces : std::min<uint64_t>(entry.pieces, 1));
  if (entry.fragmented) {
    ++_picture.fragmentedFiles;
    _byPieces.offer(entry);
  }
  _byBlocks.offer(entry);
}

void Examination::reportData(const std::string& task, const std::vector<std::string>& fields) {
  uint64_t number = 0;
  if (_step == Step::Bitmap && task == "BITMAP" && fields.size() == 3) {
    if (fields[1] == "LENGTH" && parseNumber(fields[2], number) && number <= UINT32_MAX / 8 + 1) {
      beginBitmap(number);
    } else if (fields[1] == "DATA" && _bits && !_bits->add(fields[2])) {
      _failure = Failure{ExitStatus::Lost, "xrdefrag sent a bitmap that is not hexadecimal."};
    }
  } else if (_step == Step::Totals && task == "FRAGINFO" && fields.size() == 4) {
    _totalsSeen = parseNumber(fields[1], _picture.fragmentedBlocks) &&
                  parseNumber(fields[2], _picture.fileBlocks);
  }
}

}  // namespace view
