#pragma once

/// How the terminal on standard input treats what is typed. On anything but a terminal, nothing of
/// this does anything. The attributes found at start-up come back when the process exits.
namespace PlatformTerminal {

/// Notes the attributes to come back to. Call it once, before the others.
void saveAttributes();

/// Every character is delivered as it is typed, and not echoed.
void deliverCharacters();

/// Lines are edited by the terminal and delivered whole, echoed if they were at start-up.
void deliverLines();

}  // namespace PlatformTerminal
