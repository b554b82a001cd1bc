#pragma once

#include <string_view>

namespace opctext {

/// Writes data to standard output. Throws `Failure` "standard output: REASON" when it doesn't take them.
void writeOutput(std::string_view data);

/// Hands on what is buffered: to be called last, so that a full disk is noticed.
void finishOutput();

} // namespace opctext
