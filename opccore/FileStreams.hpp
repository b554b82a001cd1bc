#pragma once

#include <istream>
#include <memory>
#include <ostream>
#include <string>

namespace opc::detail {

/// Opens a regular file or a device for reading. The stream throws `opc::Exception` when a read fails: a disk error
/// must not look like the end of the file. `tellg` costs no system call.
std::shared_ptr<std::istream> openInputStream(std::string const& nativePath, bool atEnd);

/// What an output stream does when a write fails.
enum class OnWriteFailure {
    Throw,  ///< throws `opc::Exception`
    SetBit, ///< sets its bad bit, or its fail bit while a stream buffer is inserted
};

/// Opens a file for writing; creates it, and empties it unless `append` is set. A regular file that could not be
/// written whole is removed when the stream is destroyed; one that something was to be appended to is cut back.
std::shared_ptr<std::ostream> openOutputStream(std::string const& nativePath, bool append, OnWriteFailure onFailure);

} // namespace opc::detail
