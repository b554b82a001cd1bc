#pragma once

#include <stdexcept>
#include <string>

namespace opctext {

/// What the program ends with; the same for every command.
enum class ExitStatus {
    Fine = 0,
    CheckFoundSomething = 1,
    WrongUsage = 2,
    NotAPackage = 3, ///< or a malformed one
    InputOutput = 4,
    LimitExceeded = 5, ///< a ZIP file holds more than it may
    UnsafeName = 6,    ///< a ZIP file has a member whose name might lead out of a folder
};

/// Ends a command with a message for the person who called it and an exit status.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, std::string const& message) : std::runtime_error(message), status_(status) {}

    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};

} // namespace opctext
