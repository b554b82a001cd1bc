#pragma once

#include <functional>
#include <string>
#include <vector>

#include <opctext/conversion.hpp>

namespace opctext {

/// One direction of the conversion.
struct Direction {
    char const* task;   ///< "packing", for the progress bar
    char const* result; ///< "packed", for the summary

    /// The name of the output; empty where the input's name doesn't tell.
    std::function<std::string(std::string const& input)> outputFor;

    /// Whether a file found in a folder is one to convert.
    std::function<bool(std::string const& path)> isInput;

    /// Converts the file at a path, called `shownPath` in messages, into one at another path, which exists and is
    /// empty.
    std::function<void(std::string const& path, std::string const& shownPath, std::string const& outputPath)> convert;
};

/// Converts one file or many: finds them, converts several at a time where that is asked for, puts each result in its
/// place only when it is whole, and says in the end how it went. Returns the exit status that this makes.
ExitStatus runConversion(std::vector<std::string> const& inputs, ConversionOptions const& options,
                         Direction const& direction);

} // namespace opctext
