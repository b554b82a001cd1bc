#pragma once

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include <tests/support/PackageText.hpp>
#include <tests/support/Program.hpp>

namespace testsupport {

/// Tests of the program `opctext`, most of them on one package file, "p.txt".
class OpctextFixture : public ProgramFixture {
protected:
    OpctextFixture() : ProgramFixture(OPCTEXT_PROGRAM) {}

    /// Writes the package file; `openingParts` come first.
    void writePackage(std::vector<PartText> const& more = {}, std::string const& header = "") const {
        folder.write("p.txt", packageText(openingParts(more), header));
    }

    /// The package file as it is now.
    std::string package() const { return folder.read("p.txt"); }
};

/// The real packages among the test data that are in text form.
inline std::vector<std::filesystem::path> corpusPackages() {
    std::vector<std::filesystem::path> files;
    for (auto const& entry : std::filesystem::directory_iterator(TEST_DATA_FOLDER "/corpus")) {
        if (entry.path().extension() == ".txt" && entry.path().filename() != "LICENSES.txt")
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// What to call the test on one of them.
inline std::string corpusTestName(::testing::TestParamInfo<std::filesystem::path> const& info) {
    auto name = info.param.stem().string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

} // namespace testsupport
