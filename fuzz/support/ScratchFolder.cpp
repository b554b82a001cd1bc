#include <fuzz/support/ScratchFolder.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fuzz/support/require.hpp>
#include <opccore/StringConversion.hpp>

namespace fs = std::filesystem;

namespace fuzz {

namespace {

std::string firstIn(fs::path const& folder) {
    fs::directory_iterator const entry(folder);
    return entry == fs::directory_iterator() ? "" : entry->path().string();
}

} // namespace

ScratchFolder& ScratchFolder::get() {
    static ScratchFolder folder;
    return folder;
}

ScratchFolder::ScratchFolder() : root_((fs::temp_directory_path() / "fuzz-XXXXXX").string()) {
    require(::mkdtemp(root_.data()) != nullptr, "there is a temporary folder");
    fs::create_directory(root_ + "/area");
    fs::create_directory(root_ + "/files");
    ::setenv("TMPDIR", (root_ + "/area").c_str(), 1);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string ScratchFolder::path(std::string_view name) const {
    return root_ + "/files/" + std::string(name);
}

std::u16string ScratchFolder::corePath(std::string_view name) const {
    return opc::toString(path(name), true);
}

void ScratchFolder::write(std::string_view name, std::string_view content) const {
    std::ofstream file(path(name), std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    require(file.good(), "a file can be written");
}

std::optional<std::string> ScratchFolder::read(std::string_view name) const {
    std::ifstream file(path(name), std::ios::binary);
    if (!file)
        return {};
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void ScratchFolder::remove(std::string_view name) const {
    fs::remove(path(name));
}

void ScratchFolder::requireNothingLeft(std::size_t expectedFiles) const {
    auto const left = firstIn(root_ + "/area");
    require(left.empty(), "nothing is left in the temporary area, not " + left);
    auto const files = std::distance(fs::directory_iterator(root_ + "/files"), fs::directory_iterator());
    require(static_cast<std::size_t>(files) == expectedFiles,
            "there are " + std::to_string(expectedFiles) + " files beside the package, not " + std::to_string(files));
}

} // namespace fuzz
