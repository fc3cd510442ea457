#pragma once

#include "session/Session.hpp"

namespace view {

/// Turns signals into something that can be waited for, for as long as it lives: those that end a
/// program, and those that a screen has to know of. There is one at a time.
class SignalWatch {
 public:
  SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  ~SignalWatch();

  int descriptor() const { return _descriptor; }
  /// The next signal that has come; 0 for none.
  int take();

  /// Whether a signal asks the program to end.
  static bool isDeadly(int number);

 private:
  int _descriptor = -1;
};

/// What a wait has ended with.
struct Waited {
  int signal = 0;         // 0 for none
  bool keyboard = false;  // standard input has something, or has ended
};

/// Waits until the session has something (which is received), a signal comes, standard input has
/// something (if `keyboard`), or the time is over; -1 is for ever.
Waited waitForNews(Session* session, SignalWatch& signals, bool keyboard, int milliseconds);

}  // namespace view
