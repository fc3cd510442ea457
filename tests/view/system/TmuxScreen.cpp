#include "view/system/TmuxScreen.hpp"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return output;
  }
  std::array<char, 4096> buffer = {};
  while (const size_t bytes = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
    output.append(buffer.data(), bytes);
  }
  ::pclose(pipe);
  return output;
}

std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char byte : text) {
    result += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
  }
  return result + "'";
}

template <typename Condition>
bool waitUntil(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + TmuxScreen::kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    ::usleep(20000);
  }
  return true;
}

}  // namespace

bool TmuxScreen::isAvailable() {
  return !outputOf("command -v tmux").empty();
}

TmuxScreen::TmuxScreen(const std::string& folder, int rows, int columns,
                       const std::string& terminal) {
  static int number = 0;
  _socket = folder + "/tmux" + std::to_string(++number);
  tmux("new-session -d -x " + std::to_string(columns) + " -y " + std::to_string(rows) +
       " 'PS1=\"$ \" TERM=" + terminal + " exec bash --norc --noprofile -i'");
  waitFor("$");
}

TmuxScreen::~TmuxScreen() {
  close();
}

std::string TmuxScreen::tmux(const std::string& words) const {
  return outputOf("LC_ALL=C.UTF-8 tmux -u -S " + quoted(_socket) + " -f /dev/null " + words +
                  " 2>/dev/null");
}

void TmuxScreen::type(const std::string& line) {
  tmux("send-keys -l " + quoted(line));
  tmux("send-keys Enter");
}

void TmuxScreen::press(const std::string& keys) {
  tmux("send-keys " + keys);
}

void TmuxScreen::resize(int rows, int columns) {
  tmux("resize-window -x " + std::to_string(columns) + " -y " + std::to_string(rows));
}

void TmuxScreen::close() {
  tmux("kill-server");
}

std::string TmuxScreen::text() const {
  return tmux("capture-pane -p");
}

std::string TmuxScreen::colouredText() const {
  return tmux("capture-pane -peN");
}

bool TmuxScreen::waitFor(const std::string& part) const {
  return waitUntil([&] { return text().find(part) != std::string::npos; });
}

bool TmuxScreen::waitUntilGone(const std::string& part) const {
  return waitUntil([&] { return text().find(part) == std::string::npos; });
}
