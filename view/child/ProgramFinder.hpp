#pragma once

#include <string>

#include "base/Outcome.hpp"

namespace view {

/// The absolute path of xrdefrag: `wanted` when that is given, else the one that lies next to this
/// program, else the first on PATH, /usr/local/sbin, /usr/sbin and /sbin.
Outcome<std::string> findXRDefrag(const std::string& wanted);

/// The absolute path of a program on PATH or in the system's folders; empty when there is none.
std::string findProgram(const std::string& name);

/// The device or image that a user means, as an absolute path: the word itself when something is
/// there, else the device node of that name. A word that means nothing is made absolute as it is.
std::string findDevice(const std::string& word);

}  // namespace view
