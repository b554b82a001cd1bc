#include <tests/support/TemporaryFolder.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <opccore/StringConversion.hpp>

namespace testsupport {

namespace fs = std::filesystem;

std::string readFile(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    std::ostringstream content;
    if (file.peek() != std::ifstream::traits_type::eof())
        content << file.rdbuf();
    return content.str();
}

std::u16string toCorePath(fs::path const& path) {
    return opc::toString(path.native(), true);
}

TemporaryFolder::TemporaryFolder() {
    auto name = (fs::path(::testing::TempDir()) / "textpackage_test_XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder for the test: " + name);
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::u16string TemporaryFolder::write(std::string_view name, std::string_view content) const {
    auto const path = path_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    EXPECT_TRUE(file.good()) << path;
    return toCorePath(path);
}

std::u16string TemporaryFolder::corePath(std::string_view name) const {
    return toCorePath(path_ / name);
}

std::string TemporaryFolder::read(std::string_view name) const {
    return readFile(path_ / name);
}

std::vector<std::string> TemporaryFolder::entries() const {
    std::vector<std::string> names;
    for (auto const& entry : fs::directory_iterator(path_))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

PrivateTemporaryArea::PrivateTemporaryArea() {
    char const* const earlier = std::getenv("TMPDIR");
    wasSet_ = earlier != nullptr;
    earlier_ = wasSet_ ? earlier : "";
    ::setenv("TMPDIR", folder_.path().c_str(), 1);
}

PrivateTemporaryArea::~PrivateTemporaryArea() {
    if (wasSet_)
        ::setenv("TMPDIR", earlier_.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
}

} // namespace testsupport
