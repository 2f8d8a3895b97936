#pragma once
// The terminal behind standard error, for a status line rewritten in place.

// True when standard error is a terminal that takes "\r" and the erase-to-end
// -of-line sequence (ESC [ K). On Windows the console is switched to take
// such sequences; a console that refuses counts as no terminal.
bool StandardErrorIsTerminal();

// The terminal's width in columns; 80 when it cannot be told.
int StandardErrorColumns();
