#include "plain/PlainRun.hpp"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>

#include "base/Files.hpp"
#include "base/Json.hpp"
#include "base/Text.hpp"
#include "model/SavedPicture.hpp"
#include "plain/ProgressDisplay.hpp"
#include "plain/SummaryText.hpp"
#include "report/HtmlReport.hpp"
#include "session/Examination.hpp"
#include "session/Waiting.hpp"

namespace view {

namespace {

constexpr int kTick = 200;             // milliseconds between two looks at the clock
constexpr double kQuickLook = 1.0;     // seconds after which a look is worth a word
constexpr int kSafePointWait = 60000;  // milliseconds for xrdefrag to come to one

/// A conversation without a screen. Signals stop it at xrdefrag's next safe point.
class PlainSession {
 public:
  explicit PlainSession(std::unique_ptr<Session> session) : _session(std::move(session)) {}

  Outcome<Picture> examine(const std::string& device) {
    Examination examination(*_session, device);
    const double begun = steadySeconds();
    const Outcome<> waited = waitUntil(
        [&] { return examination.isDone(); },
        [&] {
          if (steadySeconds() - begun < kQuickLook) {
            return;
          }
          _progress.show(
              examination.activity(), examination.percent(),
              examination.filesSeen() == 0 ? "" : prettyCount(examination.filesSeen()) + " files");
        });
    _progress.clear();
    if (examination.failure() && !_session->isQuitting()) {
      return std::unexpected(*examination.failure());
    }
    if (!waited) {
      return std::unexpected(waited.error());
    }
    return examination.takePicture();
  }

  Outcome<> rewrite(const RewriteOrder& order, const Picture& before) {
    TileMap map = before.map;
    Rewrite run(*_session, order, map);
    const Outcome<> waited = waitUntil(
        [&] { return run.isOver(); },
        [&] {
          const RunMeter& meter = run.meter();
          std::string details = prettyBlocks(before, meter.blocksMoved()) + " moved";
          if (const auto left = meter.remaining(run.now())) {
            details += ", about " + prettyDuration(*left) + " left";
          }
          _progress.show(order.compact ? "Compacting" : "Defragmenting", meter.percent(), details);
        });
    _progress.clear();
    if (run.failure()) {
      return std::unexpected(*run.failure());
    }
    if (!waited) {
      return waited;
    }
    std::fprintf(stderr, "%s moved in %s.\n",
                 prettyBlocks(before, run.meter().blocksMoved()).c_str(),
                 prettyDuration(run.meter().elapsed(run.now())).c_str());
    return {};
  }

  /// Asks the person at the terminal, who may also answer with ^C.
  Outcome<> confirm(const CommandLine& line, const Picture& picture) {
    if (line.assumeYes) {
      return {};
    }
    std::fprintf(stderr, "%s %s (%s)? The volume will be rewritten. Type yes: ",
                 line.order->compact ? "Compact" : "Defragment", visibleText(line.device).c_str(),
                 prettyBlocks(picture, picture.blocks()).c_str());
    std::string answer;
    for (Waited waited; !waited.keyboard;) {
      waited = waitForNews(_session.get(), _signals, true, -1);
      if (_session->isOver()) {
        return std::unexpected(_session->trouble().value_or(stopped()));
      }
      if (SignalWatch::isDeadly(waited.signal)) {
        std::fputc('\n', stderr);
        return std::unexpected(stopped());
      }
      takeSignal(waited.signal);
    }
    std::getline(std::cin, answer);
    if (answer != "yes") {
      return fail(ExitStatus::Cancelled, "Nothing was changed.");
    }
    return {};
  }

  void finish() {
    _session->quit();
    _session->finish(kSafePointWait);
  }

 private:
  static Failure stopped() { return {ExitStatus::Cancelled, "Stopped; nothing was changed."}; }

  template <typename Done, typename Show>
  Outcome<> waitUntil(Done isDone, Show show) {
    double shownAt = 0;
    while (!isDone()) {
      if (_session->isOver()) {
        if (const auto trouble = _session->trouble()) {
          return std::unexpected(*trouble);
        }
        return fail(ExitStatus::Cancelled, "Stopped.");
      }
      takeSignal(waitForNews(_session.get(), _signals, false, kTick).signal);
      if (const double now = steadySeconds(); now - shownAt > kTick / 1000.0) {
        shownAt = now;
        if (_session->hasAnswered() && !isDone()) {
          show();
        }
      }
    }
    if (_session->isQuitting()) {
      return _session->finish(kSafePointWait)
                 ? fail(ExitStatus::Cancelled, "Stopped; the volume is sound.")
                 : fail(ExitStatus::Cancelled,
                        "xrdefrag goes on by itself to its next safe point, and ends there.");
    }
    return {};
  }

  void takeSignal(int number) {
    if (number == SIGTSTP) {
      _progress.clear();
      ::raise(SIGSTOP);
    } else if (SignalWatch::isDeadly(number) && !_session->isQuitting()) {
      _progress.clear();
      std::fputs("Stopping at the next safe point.\n", stderr);
      _session->quit();
    }
  }

  SignalWatch _signals;
  ProgressDisplay _progress{stderr};
  std::unique_ptr<Session> _session;
};

Outcome<> writeFiles(const CommandLine& line, const Picture* before, const Picture& picture) {
  if (!line.saveFile.empty()) {
    if (const auto saved = savePicture(line.saveFile, picture); !saved) {
      return saved;
    }
  }
  if (!line.reportFile.empty()) {
    return writeFile(line.reportFile, htmlReport(before, picture));
  }
  return {};
}

std::string comparisonJson(const Picture& before, const Picture& after) {
  JsonWriter json;
  json.beginObject().name("before");
  writePicture(json, before);
  json.lineBreak().name("after");
  writePicture(json, after);
  json.endObject();
  return json.text() + "\n";
}

Outcome<> print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    return fail(ExitStatus::FileTrouble, "Standard output cannot be written.");
  }
  return {};
}

Outcome<> printResult(const CommandLine& line, const Picture* before, const Picture& picture) {
  if (line.output == CommandLine::Output::Json) {
    return print(before == nullptr ? pictureAsJson(picture) : comparisonJson(*before, picture));
  }
  const bool onlyFiles = !line.saveFile.empty() || !line.reportFile.empty();
  if (onlyFiles && !line.output) {
    return {};
  }
  return print(before == nullptr ? summaryText(picture) : comparisonText(*before, picture));
}

}  // namespace

Outcome<> runPlain(const CommandLine& line) {
  const Outcome<Launch> launch = line.launch();
  if (!launch) {
    return std::unexpected(launch.error());
  }
  if (line.order && !line.assumeYes && ::isatty(STDIN_FILENO) != 1) {
    return fail(ExitStatus::Usage, "Nobody can be asked here whether to rewrite " +
                                       visibleText(line.device) + "; --yes says so beforehand.");
  }
  Outcome<std::unique_ptr<Session>> opened = Session::open(*launch);
  if (!opened) {
    return std::unexpected(opened.error());
  }
  PlainSession session(std::move(*opened));
  Outcome<Picture> picture = session.examine(line.device);
  if (!picture) {
    return std::unexpected(picture.error());
  }
  std::optional<Picture> before;
  if (line.order) {
    if (const auto confirmed = session.confirm(line, *picture); !confirmed) {
      return confirmed;
    }
    if (const auto rewritten = session.rewrite(*line.order, *picture); !rewritten) {
      return rewritten;
    }
    before = std::move(*picture);
    picture = session.examine(line.device);
    if (!picture) {
      return std::unexpected(picture.error());
    }
  }
  session.finish();
  const Picture* earlier = before ? &*before : nullptr;
  if (const auto written = writeFiles(line, earlier, *picture); !written) {
    return written;
  }
  return printResult(line, earlier, *picture);
}

Outcome<> runComparison(const CommandLine& line) {
  const Outcome<Picture> before = loadPicture(line.compareFiles[0]);
  if (!before) {
    return std::unexpected(before.error());
  }
  const Outcome<Picture> after = loadPicture(line.compareFiles[1]);
  if (!after) {
    return std::unexpected(after.error());
  }
  if (const auto written = writeFiles(line, &*before, *after); !written) {
    return written;
  }
  return printResult(line, &*before, *after);
}

}  // namespace view
