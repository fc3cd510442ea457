#include "child/Privilege.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "child/ProgramFinder.hpp"

namespace view {

namespace {

constexpr std::array<std::pair<std::string_view, Privilege>, 5> kNames = {{
    {"auto", Privilege::Automatic},
    {"none", Privilege::None},
    {"userns", Privilege::Namespace},
    {"sudo", Privilege::Sudo},
    {"pkexec", Privilege::Pkexec},
}};

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

/// A device node that the user may only read could not be defragmented from a namespace, while an
/// image that is read-only for its owner is meant to be left alone.
bool namespaceWillDo(const PrivilegeGround& ground) {
  return ground.mayRead && (ground.mayWrite || !ground.isBlockDevice);
}

Outcome<Privilege> choose(const PrivilegeGround& ground) {
  if (ground.isRoot) {
    return Privilege::None;
  }
  if (namespaceWillDo(ground)) {
    return Privilege::Namespace;
  }
  const bool desktopFirst = ground.hasDesktop && !ground.hasTerminal;
  if (!ground.pkexec.empty() && (desktopFirst || ground.sudo.empty())) {
    return Privilege::Pkexec;
  }
  if (!ground.sudo.empty()) {
    return Privilege::Sudo;
  }
  return fail(ExitStatus::NotStarted,
              "This device needs root, and neither sudo nor pkexec is installed. Run xrdefrag-view "
              "as root.");
}

}  // namespace

std::optional<Privilege> privilegeNamed(std::string_view name) {
  for (const auto& [known, privilege] : kNames) {
    if (known == name) {
      return privilege;
    }
  }
  return std::nullopt;
}

PrivilegeGround surveyPrivilege(const std::string& device) {
  struct stat status = {};
  const bool known = ::stat(device.c_str(), &status) == 0;
  return {
      .isRoot = ::geteuid() == 0,
      .mayRead = ::access(device.c_str(), R_OK) == 0,
      .mayWrite = ::access(device.c_str(), W_OK) == 0,
      .isBlockDevice = known && S_ISBLK(status.st_mode),
      .hasTerminal = ::isatty(STDIN_FILENO) == 1 || ::isatty(STDERR_FILENO) == 1,
      .hasDesktop = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY"),
      .sudo = findProgram("sudo"),
      .pkexec = findProgram("pkexec"),
  };
}

Outcome<Launch> planLaunch(Privilege wanted, const PrivilegeGround& ground,
                           std::vector<std::string> words) {
  if (wanted == Privilege::Automatic) {
    const Outcome<Privilege> chosen = choose(ground);
    if (!chosen) {
      return std::unexpected(chosen.error());
    }
    wanted = *chosen;
  }
  Launch launch;
  switch (wanted) {
    case Privilege::Sudo: {
      const std::string sudo = ground.sudo.empty() ? "/usr/bin/sudo" : ground.sudo;
      launch.words = {sudo, ground.hasTerminal ? "--" : "-n"};
      if (!ground.hasTerminal) {
        launch.words.emplace_back("--");
      }
      launch.mayAskAtTerminal = ground.hasTerminal;
      launch.privilege = "sudo";
      break;
    }
    case Privilege::Pkexec:
      launch.words = {ground.pkexec.empty() ? "/usr/bin/pkexec" : ground.pkexec};
      launch.mayAskAtTerminal = ground.hasTerminal;
      launch.privilege = "pkexec";
      break;
    case Privilege::Namespace:
      launch.inNamespace = true;
      launch.privilege = "a user namespace";
      break;
    case Privilege::None:
    case Privilege::Automatic:
      launch.privilege = "its own rights";
      break;
  }
  launch.words.insert(launch.words.end(), std::make_move_iterator(words.begin()),
                      std::make_move_iterator(words.end()));
  return launch;
}

}  // namespace view
