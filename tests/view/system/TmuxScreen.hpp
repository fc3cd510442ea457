#pragma once

#include <chrono>
#include <string>

/// A terminal of a given size with a shell in it, by way of tmux: keys go in, the picture comes
/// out.
class TmuxScreen {
 public:
  static constexpr auto kPatience = std::chrono::seconds(60);

  /// Whether there is a tmux to do it with.
  static bool isAvailable();

  /// Opens the terminal; `folder` is for tmux's socket. `terminal` becomes TERM.
  TmuxScreen(const std::string& folder, int rows, int columns,
             const std::string& terminal = "tmux-256color");
  TmuxScreen(const TmuxScreen&) = delete;
  TmuxScreen& operator=(const TmuxScreen&) = delete;
  ~TmuxScreen();

  /// Types a command line and Enter.
  void type(const std::string& line);
  /// Presses keys, as tmux names them ("Tab", "C-c", "y").
  void press(const std::string& keys);
  void resize(int rows, int columns);
  /// Takes the terminal away.
  void close();

  /// What is on the screen, without the colours, or with their escapes.
  std::string text() const;
  std::string colouredText() const;

  /// Waits until the screen holds a text; false when the time is over.
  bool waitFor(const std::string& part) const;
  /// Waits until it holds it no longer.
  bool waitUntilGone(const std::string& part) const;

 private:
  std::string tmux(const std::string& words) const;

  std::string _socket;
};
