#include <opccore/FileSystemOps.hpp>

namespace opc {

// Defined here so that the type has one home.
FileSystemOps::~FileSystemOps() = default;

} // namespace opc
