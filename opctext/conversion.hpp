#pragma once

#include <string>
#include <vector>

#include <opctext/Failure.hpp>
#include <opctext/ZipReader.hpp>

namespace opctext {

/// What `pack` and `unpack` are asked for.
struct ConversionOptions {
    std::string output; ///< empty: a name made from that of the input
    bool force = false; ///< overwrite, and take what is doubtful with a warning
    bool verify = true; ///< read the result back and compare before it takes its place
    bool recurse = false;
    unsigned jobs = 1;
    ZipLimits limits;
};

/// Turns ZIP packages into text packages, which get the ending ".txt".
ExitStatus packFiles(std::vector<std::string> const& inputs, ConversionOptions const& options);

/// Turns text packages back into ZIP packages, which lose the ending ".txt".
ExitStatus unpackFiles(std::vector<std::string> const& inputs, ConversionOptions const& options);

} // namespace opctext
