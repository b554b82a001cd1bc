#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

/// Ends the process where something that must hold does not, so that the fuzzer keeps the input.
inline void require(bool holds, std::string const& what) {
    if (holds)
        return;
    std::fprintf(stderr, "\nfuzz: violated: %s\n", what.c_str());
    std::abort();
}

/// Runs an action and returns what the exception that ended it says; empty where none did. Only exceptions of type
/// `Failure` are expected: any other ends the process.
template <class Failure, class Action>
std::string failureOf(Action const& action) {
    try {
        action();
    } catch (Failure const& failure) {
        std::string const message = failure.what();
        require(!message.empty(), "a failure without a message");
        return message;
    }
    return {};
}

} // namespace fuzz
