#include "terminal/ScreenApplication.hpp"

#include <csignal>
#include <sstream>

#include "base/Text.hpp"

namespace view {

namespace {

constexpr int kTick = 100;       // milliseconds between two pictures of something that goes on
constexpr int kPatience = 2000;  // for xrdefrag to end when nothing is being rewritten
constexpr size_t kMessageColumns = 70;

/// A message of any length and origin as lines of a dialog.
std::vector<std::string> linesOf(const std::string& message) {
  std::vector<std::string> lines;
  std::istringstream stream(message);
  for (std::string paragraph; std::getline(stream, paragraph);) {
    std::istringstream words(visibleText(paragraph));
    std::string line;
    for (std::string word; words >> word;) {
      if (!line.empty() && displayWidth(line) + 1 + displayWidth(word) > kMessageColumns) {
        lines.push_back(std::move(line));
        line.clear();
      }
      line += (line.empty() ? "" : " ") + word;
    }
    lines.push_back(line);
  }
  return lines;
}

}  // namespace

ScreenApplication::ScreenApplication(const CommandLine& line)
    : _line(line), _terminal({.colour = line.colour, .ascii = line.ascii}) {}

Outcome<> ScreenApplication::run() {
  const Outcome<Launch> launch = _line.launch();
  if (!launch) {
    return std::unexpected(launch.error());
  }
  _launch = *launch;
  if (const auto connected = connect(); !connected) {
    return connected;
  }
  if (const auto started = _terminal.start(); !started) {
    return started;
  }
  double paintedAt = 0;
  while (!_left) {
    const bool goesOn = _examination || _run || _leaving;
    if (const double now = steadySeconds(); _stale || now - paintedAt >= kTick / 1000.0) {
      paint();
      paintedAt = now;
    }
    const Waited waited =
        waitForNews(_session.get(), _signals, !_terminal.inputEnded(), goesOn ? kTick : -1);
    takeSignal(waited.signal);
    if (waited.keyboard) {
      takeKeys();
    }
    takeNews();
  }
  _terminal.stop();
  disconnect();
  return _failure ? Outcome<>(std::unexpected(*_failure)) : Outcome<>();
}

Outcome<> ScreenApplication::connect() {
  const bool wasTaken = _terminal.isTaken();
  if (_launch.mayAskAtTerminal) {
    _terminal.stop();
  }
  Outcome<std::unique_ptr<Session>> opened = Session::open(_launch);
  Outcome<> outcome;
  if (!opened) {
    outcome = std::unexpected(opened.error());
  } else {
    _session = std::move(*opened);
    _examination = std::make_unique<Examination>(*_session, _line.device);
    outcome = waitForAnswer();
  }
  if (!outcome) {
    disconnect();
  }
  if (wasTaken) {
    _terminal.resume();
  }
  _stale = true;
  return outcome;
}

Outcome<> ScreenApplication::waitForAnswer() {
  while (!_session->hasAnswered() && !_session->isOver()) {
    if (SignalWatch::isDeadly(waitForNews(_session.get(), _signals, false, -1).signal)) {
      return fail(ExitStatus::Cancelled, "Stopped.");
    }
  }
  // An error instead of an answer is worth more with what became of the program.
  if (_examination->failure()) {
    _session->finish(kPatience);
  }
  if (const auto trouble = _session->trouble()) {
    return std::unexpected(*trouble);
  }
  return {};
}

void ScreenApplication::disconnect() {
  if (_session && !_session->isOver()) {
    _session->quit();
    _session->finish(kPatience);
  }
  _run.reset();
  _examination.reset();
  _session.reset();
}

void ScreenApplication::lookAgain() {
  if (_examination || _run) {
    return;
  }
  if (_session) {
    _examination = std::make_unique<Examination>(*_session, _line.device);
  } else if (const auto connected = connect(); !connected) {
    say({"xrdefrag could not be started again", linesOf(connected.error().message), {}, true});
  }
  _stale = true;
}

/// Looks at what the conversation has brought since the last time.
void ScreenApplication::takeNews() {
  if (_run && _run->isOver()) {
    finishRun();
  }
  if (_examination && _examination->isDone()) {
    finishLook();
  }
  if (_session && _session->isOver()) {
    takeTrouble();
  }
}

void ScreenApplication::finishLook() {
  _stale = true;
  _failure = _examination->failure();
  if (_failure) {
    say({"The volume could not be read", linesOf(_failure->message), {}, true});
    _examination.reset();
    return;
  }
  Picture picture = _examination->takePicture();
  _examination.reset();
  const uint64_t before = _picture ? _picture->fragmentedFiles : 0;
  if (!_outcome.empty()) {
    _message = _outcome + " " + prettyCount(before) + " fragmented files before, " +
               prettyCount(picture.fragmentedFiles) + " now.";
    _outcome.clear();
  }
  _files.setPicture(nullptr);
  _picture = std::move(picture);
  _files.setPicture(&*_picture);
}

void ScreenApplication::finishRun() {
  _stale = true;
  const RunMeter& meter = _run->meter();
  const std::string figures = prettyBlocks(*_picture, meter.blocksMoved()) + " moved in " +
                              prettyDuration(meter.elapsed(_run->now())) + ".";
  const bool cancelled = _run->isCancelled();
  if (_run->failure()) {
    say({"xrdefrag has stopped", linesOf(_run->failure()->message), {}, true});
  }
  _outcome = cancelled ? "Stopped; " + figures : figures;
  _run.reset();
  if (!cancelled) {
    lookAgain();
  }
}

void ScreenApplication::takeTrouble() {
  _stale = true;
  const std::optional<Failure> trouble = _session->trouble();
  const bool wasRewriting = _run && !_run->isOver();
  disconnect();
  if (_leaving) {
    _left = true;
    return;
  }
  if (!trouble) {
    // The end that was asked for: a stopped run.
    if (_launch.mayAskAtTerminal) {
      _message = _outcome + " Press r to look again.";
      _outcome.clear();
    } else {
      lookAgain();
    }
    return;
  }
  _failure = trouble;
  std::vector<std::string> lines = linesOf(trouble->message);
  if (wasRewriting) {
    lines.emplace_back();
    lines.emplace_back("It was rewriting the volume. Press r: xrdefrag finds the interrupted");
    lines.emplace_back("run, brings its last step to an end, and the volume is sound again.");
  }
  say({"xrdefrag is gone", std::move(lines), {}, true});
}

void ScreenApplication::takeSignal(int number) {
  if (number == 0) {
    return;
  }
  _stale = true;
  if (number == SIGWINCH) {
    _terminal.resize();
  } else if (number == SIGTSTP) {
    suspend();
  } else if (number == SIGCONT) {
    // Whoever had the terminal meanwhile may have left it in any state.
    _terminal.stop();
    _terminal.resume();
  } else if (SignalWatch::isDeadly(number)) {
    _failure = Failure{ExitStatus::Cancelled, "Ended by a signal."};
    // The screen goes at once; xrdefrag goes on to its next safe point, with or without us.
    _terminal.stop();
    _left = true;
  }
}

void ScreenApplication::suspend() {
  _terminal.stop();
  ::raise(SIGSTOP);
  _terminal.resume();
}

void ScreenApplication::takeKeys() {
  while (!_left) {
    const std::optional<char32_t> key = _terminal.key();
    if (!key) {
      break;
    }
    _stale = true;
    takeKey(*key);
  }
  if (_terminal.inputEnded() && !_left) {
    takeSignal(SIGHUP);
  }
}

void ScreenApplication::takeKey(char32_t key) {
  if (key == Key::control('L')) {
    _terminal.stop();
    _terminal.resume();
    return;
  }
  if (key == Key::control('Z')) {
    suspend();
    return;
  }
  if (_dialog) {
    const Dialog dialog = *std::exchange(_dialog, std::nullopt);
    if (dialog.onYes && (key == 'y' || key == 'Y')) {
      dialog.onYes();
    }
    return;
  }
  if (_typingFilter) {
    takeFilterKey(key);
    return;
  }
  switch (key) {
    case 'q':
    case Key::control('C'):
      askToStop(true);
      break;
    case 'x':
    case Key::kEscape:
      askToStop(false);
      break;
    case 'd':
      askToRewrite(false);
      break;
    case 'c':
      askToRewrite(true);
      break;
    case 'r':
      lookAgain();
      break;
    case 'h':
    case '?':
      say(helpDialog());
      break;
    case Key::kTab:
      _page = _page == Scene::Page::Map ? Scene::Page::Files : Scene::Page::Map;
      break;
    default:
      takeListKey(key);
      break;
  }
}

void ScreenApplication::takeFilterKey(char32_t key) {
  std::string filter = _files.filter();
  if (key == Key::kEnter || key == Key::kEscape || key == Key::control('C')) {
    _typingFilter = false;
    filter = key == Key::kEnter ? filter : "";
  } else if (key == Key::kBackspace) {
    while (!filter.empty() && (filter.back() & 0xC0) == 0x80) {
      filter.pop_back();
    }
    if (!filter.empty()) {
      filter.pop_back();
    }
  } else if (key >= 0x20 && key < 0x110000) {
    appendCharacter(filter, key);
  }
  if (filter != _files.filter()) {
    _files.setFilter(std::move(filter));
  }
}

void ScreenApplication::takeListKey(char32_t key) {
  switch (key) {
    case '/':
      _typingFilter = true;
      _page = Scene::Page::Files;
      break;
    case 's':
      _files.nextOrder();
      break;
    case 'R':
      _files.reverse();
      break;
    case 'l':
      _files.nextSource();
      break;
    case Key::kUp:
    case 'k':
      _files.moveBy(-1);
      break;
    case Key::kDown:
    case 'j':
      _files.moveBy(1);
      break;
    case Key::kPageUp:
      _files.moveByPages(-1);
      break;
    case Key::kPageDown:
    case ' ':
      _files.moveByPages(1);
      break;
    case Key::kHome:
      _files.moveToEnd(false);
      break;
    case Key::kEnd:
      _files.moveToEnd(true);
      break;
    default:
      break;
  }
}

void ScreenApplication::askToRewrite(bool compact) {
  if (_run || _examination) {
    return;
  }
  if (!_session || !_picture) {
    _message = "Press r to look at the volume first.";
    return;
  }
  const RewriteOrder order = {compact, compact ? "" : _line.profiles};
  std::vector<std::string> lines = {
      visibleText(_line.device), "",
      prettyBlocks(*_picture, _picture->blocks()) + ", " + prettyCount(_picture->files) +
          " files, " + prettyCount(_picture->fragmentedFiles) + " of them fragmented.",
      compact ? "All data will be moved to the front of the volume."
              : "Every file will be put in one piece.",
      "The volume is rewritten. It can be stopped at any time."};
  say({compact ? "Compact this volume?" : "Defragment this volume?", std::move(lines),
       [this, order] { startRun(order); }, false});
}

void ScreenApplication::startRun(const RewriteOrder& order) {
  if (_session && _picture && !_run && !_examination) {
    _message.clear();
    _run = std::make_unique<Rewrite>(*_session, order, _picture->map);
    _page = Scene::Page::Map;
  }
}

void ScreenApplication::askToStop(bool wantsToLeave) {
  if (!_run) {
    if (wantsToLeave) {
      leave();
    }
    return;
  }
  if (_run->isCancelled()) {
    if (wantsToLeave) {
      leave();
    }
    return;
  }
  say({wantsToLeave ? "Stop and leave?" : "Stop?",
       {"xrdefrag comes to its next safe point and ends; the volume is sound then.",
        "What has been put in order stays so."},
       [this, wantsToLeave] {
         _leaving = wantsToLeave;
         if (_run) {
           _run->cancel();
         } else if (wantsToLeave) {
           leave();
         }
       },
       false});
}

void ScreenApplication::leave() {
  _left = true;
}

void ScreenApplication::paint() {
  Scene scene = {.device = _line.device,
                 .picture = _picture ? &*_picture : nullptr,
                 .examination = _examination.get(),
                 .run = _run.get(),
                 .files = &_files,
                 .page = _page,
                 .message = _message,
                 .typingFilter = _typingFilter,
                 .dialog = _dialog ? &*_dialog : nullptr};
  if (!_picture && _examination) {
    scene.picture = &_examination->picture();
  }
  Canvas canvas(_terminal.rows(), _terminal.columns());
  paintScene(canvas, scene, {.unicode = _terminal.hasUnicode(), .colours = _terminal.hasColours()});
  _terminal.show(canvas);
  _stale = false;
}

}  // namespace view
