#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/BitRuns.hpp"
#include "model/Picture.hpp"
#include "session/Session.hpp"

namespace view {

/// One look at a volume: asks for the bitmap, the fragmented files, all files and the totals, one
/// command after the other, and makes a picture of the answers.
///
/// Memory is bounded but for the numbers of the fragmented files, four bytes each.
class Examination : public ReportListener {
 public:
  /// How many files of each list are kept.
  static constexpr size_t kFragmentedMax = 20000;
  static constexpr size_t kLargestMax = 5000;

  /// Begins at once. The session must outlive the examination.
  Examination(Session& session, std::string device);
  Examination(const Examination&) = delete;
  Examination& operator=(const Examination&) = delete;
  ~Examination() override;

  bool isDone() const { return _step == Step::Done; }
  /// Why the picture is not to be had; the commands stop with the first error.
  const std::optional<Failure>& failure() const { return _failure; }

  /// What is going on, for people, and how far it is in percent. It only grows.
  std::string activity() const;
  int percent() const { return _percent; }
  uint64_t filesSeen() const { return _picture.files; }

  /// The picture so far; complete when isDone() and without failure().
  const Picture& picture() const { return _picture; }
  Picture takePicture() { return std::move(_picture); }

 private:
  enum class Step { Bitmap, FragmentedFiles, AllFiles, Totals, Done };

  void ask();
  void finish();
  void beginBitmap(uint64_t bytes);
  bool isFragmented(uint64_t fileID) const;

  void reportToolError(const std::string& message) override;
  void reportProgress(const std::string& task, const ProgressLine& progress) override;
  void reportTaskError(const std::string& task, const std::string& message) override;
  void reportDone(const std::string& task) override;
  void reportFile(const std::string& task, const FileLine& file) override;
  void reportData(const std::string& task, const std::vector<std::string>& fields) override;

  Session& _session;
  Picture _picture;
  Step _step = Step::Bitmap;
  int _percent = 0;
  std::optional<Failure> _failure;
  std::optional<BitRuns> _bits;
  bool _totalsSeen = false;
  std::vector<uint32_t> _fragmentedIDs;  // in catalog order while they come, then sorted
  FileRanking _byPieces{FileRanking::By::Pieces, kFragmentedMax};
  FileRanking _byBlocks{FileRanking::By::Blocks, kLargestMax};
};

}  // namespace view
