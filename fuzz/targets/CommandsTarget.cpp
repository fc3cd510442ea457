// Standard input: how bytes become lines and characters, and lines commands.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string_view>

#include "FuzzTargets.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "LWKit/LWToolInputBuffer.hpp"
#include "LWKit/LWUnicode.hpp"
#include "ReportCapture.hpp"
#include "VolumeBases.hpp"
#include "XRDefragToolApplication.hpp"
#include "XRDefragVolumeCommands.hpp"

namespace fuzz {

namespace {

using Mode = LWToolInputBuffer::Mode;
using Pieces = std::vector<std::optional<std::string>>;

/// How many pieces are cut out before the other framing takes its turn.
constexpr size_t kPiecesPerMode = 5;

/// What is cut out of bytes that arrive `step` at a time. With `alternating` the framing changes
/// every few pieces.
Pieces piecesOf(Input bytes, size_t step, Mode mode, bool alternating) {
  LWToolInputBuffer buffer;
  buffer.setMode(mode);
  Pieces pieces;
  do {
    const Input part = bytes.first(std::min(step, bytes.size()));
    bytes = bytes.subspan(part.size());
    buffer.append(std::as_bytes(part));
    while (auto piece = buffer.next()) {
      pieces.push_back(std::move(piece->text));
      if (alternating && pieces.size() % kPiecesPerMode == 0) {
        mode = mode == Mode::Lines ? Mode::Characters : Mode::Lines;
        buffer.setMode(mode);
      }
    }
  } while (!bytes.empty());
  return pieces;
}

void checkLines(Input bytes, const Pieces& lines) {
  std::string_view rest(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  for (const auto& line : lines) {
    const size_t newline = rest.find('\n');
    FUZZ_CHECK(newline != std::string_view::npos, "a line that was not sent");
    const std::string_view sent = rest.substr(0, newline);
    FUZZ_CHECK(line ? *line == sent && LWIsUTF8(sent) : !LWIsUTF8(sent), "a line that was changed");
    rest.remove_prefix(newline + 1);
  }
  FUZZ_CHECK(!rest.contains('\n'), "a line that was lost");
}

void checkFraming(Input bytes, size_t step) {
  const Pieces lines = piecesOf(bytes, bytes.size() + 1, Mode::Lines, false);
  checkLines(bytes, lines);
  FUZZ_CHECK(piecesOf(bytes, step, Mode::Lines, false) == lines, "lines differ by arrival");
  const Pieces characters = piecesOf(bytes, bytes.size() + 1, Mode::Characters, false);
  for (const auto& character : characters) {
    FUZZ_CHECK(character && LWUTF8SequenceLength(*character) == character->size(),
               "a character that is none");
  }
  FUZZ_CHECK(piecesOf(bytes, step, Mode::Characters, false) == characters,
             "characters differ by arrival");
  FUZZ_CHECK(piecesOf(bytes, step, Mode::Lines, true) ==
                 piecesOf(bytes, bytes.size() + 1, Mode::Lines, true),
             "changing the framing depends on arrival");
}

Result<std::unique_ptr<XRDefragCommandSet>> openCommands(const VolumeBase& base) {
  const XRDefragVolume device("/nowhere", std::make_shared<FuzzDevice>(base.image), false, true);
  return XRDefragCommandsForVolume(TRY(HFSPlusVolume::open(device)));
}

/// A pipe with the bytes in it and its other end closed; its end to read from.
int pipeWith(Input bytes) {
  int ends[2];
  FUZZ_CHECK(::pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  FUZZ_CHECK(::write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
             "a pipe too small");
  ::close(ends[1]);
  return ends[0];
}

/// READY comes first, every task's START has its DONE, and no line belongs to nobody.
void checkProtocol(const std::vector<std::string>& lines) {
  FUZZ_CHECK(!lines.empty() && lines.front() == "READY", "the first line is not READY");
  std::map<std::string, int> open;
  for (const std::string& line : lines) {
    const std::string name = line.substr(0, line.find(','));
    if (line == name + ",START") {
      ++open[name];
    } else if (line == name + ",DONE") {
      FUZZ_CHECK(open[name]-- > 0, "a DONE without its START");
    }
  }
  for (const auto& [name, count] : open) {
    FUZZ_CHECK(count == 0, name + " has not said DONE");
  }
}

void runApplication(Input bytes, const VolumeBase& base) {
  ReportCapture capture;
  const int input = pipeWith(bytes);
  {
    XRDefragToolApplication application(
        {"xrdefrag", "volume"}, [&](const XRDefragCommandLine&) { return openCommands(base); },
        input);
    FUZZ_CHECK(application.run() == 0, "an exit status other than success");
  }
  ::close(input);
  checkProtocol(capture.takeLines());
}

}  // namespace

/// 1 byte: how many bytes arrive at once. The rest is what arrives.
void runCommands(Input input) {
  if (input.empty()) {
    return;
  }
  const Input bytes = input.subspan(1);
  checkFraming(bytes, 1 + input.front() % 64);
  runApplication(bytes, volumeBase(input.front() % 4));
}

}  // namespace fuzz
