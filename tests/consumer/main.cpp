// A host that knows nothing but the installed library.
#include <opccore/StringConversion.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

int main(int, char** argv) {
    opc::textpackage::TextFilePhysicalPackage package(opc::toString(argv[1], true));
    package.open(opc::interfaces::OpenMode::Read);
    return package.getParts().size() == 3 ? 0 : 1;
}
