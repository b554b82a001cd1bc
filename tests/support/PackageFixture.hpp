#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>
#include <tests/support/PackageText.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace testsupport {

/// A test on package files: a folder for them, and a temporary area of the test's own, which must be empty when the
/// test is over and its packages are destroyed, whatever the test was about.
class PackageFixture : public ::testing::Test {
protected:
    ~PackageFixture() override;

    /// Writes a package file into the folder and returns its path. `openingParts` come first where nothing else is
    /// said.
    std::u16string writePackage(std::vector<PartText> const& more = {}, std::string const& header = "") const;

    /// Writes a text as it is into a file of the same name.
    std::u16string writeText(std::string const& text) const;

    /// The file that `writePackage` and `writeText` write, as it is now.
    std::string packageFile() const { return folder.read("package.txt"); }

    /// The paths in the temporary area, sorted.
    std::vector<std::filesystem::path> temporaryPaths() const;

    TemporaryFolder folder; // before the area: it must not be made inside that
    PrivateTemporaryArea temporaryArea;
};

std::string toUtf8(std::u16string const& text);

/// A path of the core in the system's form.
std::filesystem::path toNativePath(std::u16string const& path);

/// Matches a callable that throws `opc::Exception` with exactly this message and code.
inline auto throwsPackageError(std::string const& message, boost::system::error_code const& code) {
    return ::testing::Throws<opc::Exception>(
        ::testing::AllOf(::testing::Property("what", &opc::Exception::what, ::testing::StrEq(message)),
                         ::testing::Property("code", &opc::Exception::code, ::testing::Eq(code))));
}

/// Expects neither an open package, nor a folder, nor a part.
void expectClosedWithNothingLeft(opc::textpackage::TextFilePhysicalPackage& package);

/// Counts the commits of a package from now on. Must outlive the last one; takes the place of its commit options.
class CommitCounter {
public:
    explicit CommitCounter(opc::textpackage::TextFilePhysicalPackage& package);
    CommitCounter(CommitCounter const&) = delete;
    CommitCounter& operator=(CommitCounter const&) = delete;

    int count() const { return count_; }

private:
    int count_ = 0;
};

/// The names of the listed parts, in the order of the list.
std::vector<std::string> namesIn(opc::textpackage::TextFilePhysicalPackage& package);

/// The part of that name, be it listed or the content types part; throws `std::runtime_error` where there is none.
opc::textpackage::FilePart& partOf(opc::textpackage::TextFilePhysicalPackage& package, std::u16string const& name);

/// What the part's input stream gives from where it stands.
std::string contentOf(opc::textpackage::TextFilePhysicalPackage& package, std::u16string const& name);

/// Writes into the part's output stream, at its end, and hands it on to the file; fails the test where it can't.
void writeInto(opc::interfaces::IPhysicalPart& part, std::string const& content);

/// Creates a part and writes its content.
opc::textpackage::FilePart& addPart(opc::textpackage::TextFilePhysicalPackage& package, std::u16string const& name,
                                    std::u16string const& contentType, std::string const& content);

/// Everything below a folder: relative path to file content; folders as "(folder)", links as "-> " and their target.
std::map<std::string, std::string> treeOf(std::filesystem::path const& folder);

} // namespace testsupport
