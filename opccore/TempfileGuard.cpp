#include <opccore/TempfileGuard.hpp>

#include <fcntl.h>

#include <opccore/Exception.hpp>
#include <opccore/FileDescriptor.hpp>
#include <opccore/RandomName.hpp>
#include <opccore/StringConversion.hpp>

namespace opc::util {

TempfileGuard::TempfileGuard(std::u16string const& folder, std::u16string const& prefix, std::u16string const& suffix)
    : fileName_((folder.empty() ? toString(detail::temporaryFolder(), true) : folder) + u'/' + prefix +
                toString(detail::randomName(), true) + suffix) {
    if ((prefix + suffix).find_first_of(u"/\0", 0, 2) != std::u16string::npos)
        throw Exception("Could not create temporary file \"" + toUDEString(fileName_) +
                        "\": its name holds a \"/\" or a NUL");
    nativeName_ = detail::makeNativePath(fileName_);
    try {
        detail::FileDescriptor(nativeName_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    } catch (Exception const& failure) {
        throw Exception("Could not create temporary file \"" + toUDEString(fileName_) +
                            "\": " + failure.code().message(),
                        failure.code());
    }
}

TempfileGuard::~TempfileGuard() {
    detail::removeFile(nativeName_); // where that fails, nobody is left to be told
}

std::u16string TempfileGuard::getFileName() const {
    return fileName_;
}

} // namespace opc::util
