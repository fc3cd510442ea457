#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CommandLine.hpp"
#include "session/Waiting.hpp"
#include "terminal/Scene.hpp"
#include "terminal/Terminal.hpp"

namespace view {

/// The program on a screen: looks, waits for keys, runs what they ask for.
///
/// At any moment there is at most one conversation with xrdefrag, and in it at most one look
/// (_examination) or one run (_run). A run that is stopped ends the conversation; the next look
/// begins another.
class ScreenApplication {
 public:
  explicit ScreenApplication(const CommandLine& line);

  /// Runs until the user leaves. A start that fails never touches the screen.
  Outcome<> run();

 private:
  /// Starts xrdefrag and the first look, away from the screen while a password may be asked for.
  Outcome<> connect();
  Outcome<> waitForAnswer();
  void disconnect();
  void lookAgain();

  void takeNews();
  void finishLook();
  void finishRun();
  void takeTrouble();

  void takeSignal(int number);
  void takeKeys();
  void takeKey(char32_t key);
  void takeFilterKey(char32_t key);
  void takeListKey(char32_t key);
  void askToRewrite(bool compact);
  void startRun(const RewriteOrder& order);
  void askToStop(bool leave);
  void leave();
  void suspend();

  void paint();
  void say(Dialog dialog) { _dialog = std::move(dialog); }

  const CommandLine& _line;
  Launch _launch;
  SignalWatch _signals;
  Terminal _terminal;
  std::unique_ptr<Session> _session;
  std::unique_ptr<Examination> _examination;
  std::unique_ptr<Rewrite> _run;
  std::optional<Picture> _picture;
  std::optional<Failure> _failure;  // what the program ends with
  FileList _files;
  Scene::Page _page = Scene::Page::Map;
  std::string _message;
  std::string _outcome;  // of a run, until the look after it is done
  std::optional<Dialog> _dialog;
  bool _typingFilter = false;
  bool _leaving = false;
  bool _left = false;
  bool _stale = true;  // the screen does not show how things are
};

}  // namespace view
