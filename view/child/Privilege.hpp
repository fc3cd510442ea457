#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Outcome.hpp"

namespace view {

/// How xrdefrag comes by the root that it asks for.
enum class Privilege {
  Automatic,  // the least of the others that will do
  None,       // this process has what it takes
  Namespace,  // root in a user namespace of its own: it may do what this user may do
  Sudo,
  Pkexec,
};

/// The privilege of that name ("auto", "none", "userns", "sudo", "pkexec"); nothing for another
/// word.
std::optional<Privilege> privilegeNamed(std::string_view name);

/// What the choice depends on, so that a test can have it as it likes.
struct PrivilegeGround {
  bool isRoot = false;   // effective user
  bool mayRead = false;  // the device, by this user
  bool mayWrite = false;
  bool isBlockDevice = false;
  bool hasTerminal = false;  // somebody can be asked for a password there
  bool hasDesktop = false;   // or in a window
  std::string sudo = {};     // absolute paths, empty when not installed
  std::string pkexec = {};
};

/// The ground as this process finds it.
PrivilegeGround surveyPrivilege(const std::string& device);

/// How one command is to be started.
struct Launch {
  std::vector<std::string> words;  // words[0] is an absolute path
  bool inNamespace = false;        // make a user namespace first
  bool mayAskAtTerminal = false;   // it must stay in the terminal's session
  std::string privilege;           // how people call it, e.g. "sudo"
};

/// Picks the least privilege that opens the device as well as possible and wraps the words in it.
/// Fails with ExitStatus::NotStarted and a sentence that says what to do.
Outcome<Launch> planLaunch(Privilege wanted, const PrivilegeGround& ground,
                           std::vector<std::string> words);

}  // namespace view
