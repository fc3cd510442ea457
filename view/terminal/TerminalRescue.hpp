#pragma once

/// Gives the terminal back when the program crashes: the attributes that it had, the normal screen,
/// a cursor. Between arm() and disarm() the signals of a crash lead here first and then end the
/// program as they would have.
namespace view::TerminalRescue {

/// Takes down how the terminal is now.
void remember();
void arm();
void disarm();

}  // namespace view::TerminalRescue
