#pragma once

#include <string>

#include <opccore/Export.hpp>

namespace opc::util {

/// Owns one temporary file: makes it at once, empty, for its owner alone (mode 0600), and removes it in the end.
class OPCCORE_EXPORT TempfileGuard {
public:
    /// The file's name is `prefix`, a random text, then `suffix`; it lies in `folder`, or in the system's temporary
    /// area where `folder` is empty. Never takes over a file that exists.
    /// Throws `opc::Exception` "Could not create temporary file ..." with the system's code.
    TempfileGuard(std::u16string const& folder, std::u16string const& prefix, std::u16string const& suffix);

    TempfileGuard(TempfileGuard const&) = delete;
    TempfileGuard& operator=(TempfileGuard const&) = delete;

    /// Removes the file if it is still there; a failure to do so is ignored.
    ~TempfileGuard();

    /// The path of the file.
    std::u16string getFileName() const;

private:
    std::u16string fileName_;
    std::string nativeName_; // made at once: removing the file needs no memory
};

} // namespace opc::util
