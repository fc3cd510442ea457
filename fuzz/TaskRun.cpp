#include "TaskRun.hpp"

#include <memory>

#include "FuzzTargets.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "ReportCapture.hpp"
#include "Tasks/HFSPlusBitmapTask.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "Tasks/HFSPlusFragInfoTask.hpp"
#include "Tasks/HFSPlusMapTask.hpp"
#include "Tasks/HFSPlusScanTask.hpp"

namespace fuzz {

namespace {

/// Runs the task that `make` makes; a task may take hold of the report when it is made.
template <typename Make>
std::vector<std::string> linesOf(Make make) {
  ReportCapture capture;
  const std::shared_ptr<XRDefragTask> task = make();
  FUZZ_CHECK(task->start().has_value(), "no thread to run a task on");
  task->join();
  const std::vector<std::string> lines = capture.takeLines();
  checkTaskLines(lines, task->name());
  return lines;
}

template <typename Task>
std::vector<std::string> reportOf(HFSPlusVolume& volume, const std::string& line) {
  return linesOf([&] {
    auto event = std::make_shared<LWToolEvent>(LWToolEvent::Type::String, line,
                                               [](const std::shared_ptr<LWToolEvent>&) {});
    return std::make_shared<Task>(volume, std::move(event));
  });
}

}  // namespace

std::vector<std::string> runReporting(HFSPlusVolume& volume, const std::string& line) {
  const std::string_view word = LWFirstComponent(line);
  if (word == "SCAN") {
    return reportOf<HFSPlusScanTask>(volume, line);
  }
  if (word == "FRAGINFO") {
    return reportOf<HFSPlusFragInfoTask>(volume, line);
  }
  if (word == "MAP") {
    return reportOf<HFSPlusMapTask>(volume, line);
  }
  FUZZ_CHECK(word == "BITMAP", "no such report");
  return reportOf<HFSPlusBitmapTask>(volume, line);
}

std::vector<std::string> runRewriting(HFSPlusVolume& volume, const std::string& line,
                                      const TaskLimits& limits) {
  const std::vector<std::string> words = LWTrimmedComponents(line);
  return linesOf([&] {
    auto task = std::make_shared<HFSPlusDefragTask>(volume, words.front() == "COMPACT");
    task->setArguments(words);
    task->limitResources(limits.copyBufferBytes, limits.mapCapacity);
    return task;
  });
}

}  // namespace fuzz
