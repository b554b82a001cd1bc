#pragma once

#include <string>

namespace opctext {

/// Says something to the person who called the program: a line on standard error that begins with "opctext: ".
/// Threads: may be called from several at once.
void tell(std::string const& message);

/// A name or line for people: control characters, which could do something to a terminal, are shown as \xNN.
std::string printable(std::string const& text);

} // namespace opctext
