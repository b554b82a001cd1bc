#pragma once

#include <functional>
#include <string_view>

#include <opctext/Failure.hpp>

namespace opctext {

/// Nobody reads what the program writes any more, which is no error to speak of.
class ClosedPipe : public Failure {
public:
    ClosedPipe() : Failure(ExitStatus::InputOutput, "nobody reads standard output") {}
};

/// Writes data to standard output. Throws `Failure` "standard output: REASON" when it doesn't take them.
void writeOutput(std::string_view data);

/// Hands on what is buffered: to be called last, so that a full disk is noticed.
void finishOutput();

/// Hands all of standard input to a function, block by block. Throws `Failure` "standard input: REASON".
void readInput(std::function<void(std::string_view)> const& onBlock);

} // namespace opctext
