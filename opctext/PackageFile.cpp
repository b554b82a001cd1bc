#include <opctext/PackageFile.hpp>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Failure.hpp>

namespace opctext {

namespace {

constexpr unsigned ReadBinary = opc::StreamMode::In | opc::StreamMode::Binary;

/// Runs an action and turns what it throws into a `Failure`; `where` is asked only then.
template <class Action, class Where>
void translateFailures(Action const& action, Where const& where) {
    using std::string_literals::operator""s;
    try {
        action();
    } catch (Failure const&) {
        throw;
    } catch (opc::Exception const& failure) {
        auto const status = failure.code() ? ExitStatus::InputOutput : ExitStatus::NotAPackage;
        throw Failure(status, where() + failure.what());
    } catch (foundation::crypto::utils::Exception const& failure) {
        throw Failure(ExitStatus::NotAPackage, where() + failure.what());
    } catch (std::out_of_range const&) {
        throw Failure(ExitStatus::NotAPackage, where() + "a part begins here, but its name is missing"s);
    } catch (std::bad_alloc const&) {
        throw Failure(ExitStatus::InputOutput, where() + "out of memory"s);
    }
}

} // namespace

PackageFile::PackageFile(std::string const& path) : PackageFile(path, path) {
}

PackageFile::PackageFile(std::string const& path, std::string shownPath) : path_(std::move(shownPath)) {
    run([&] { corePath_ = opc::LocalFileSystemOps().normalizePath(opc::toString(path, true)); });
}

void PackageFile::requireRegular() const {
    run([&] {
        opc::LocalFileSystemOps const fileSystem;
        if (!fileSystem.exists(corePath_))
            throw Failure(ExitStatus::InputOutput, path_ + ": there is no such file");
        if (!fileSystem.isFile(corePath_))
            throw Failure(ExitStatus::InputOutput, path_ + ": this is a folder or a device, not a file");
    });
}

void PackageFile::run(std::function<void()> const& action, std::string const& partName) const {
    translateFailures(action, [&] { return path_ + ": " + (partName.empty() ? "" : "part " + partName + ": "); });
}

void PackageFile::scan(std::function<void(std::istream&)> const& action) const {
    auto const stream = openStream();
    translateFailures([&] { action(*stream); }, [&] { return path_ + ": " + lineBefore(*stream); });
}

std::shared_ptr<std::istream> PackageFile::openStream() const {
    requireRegular();
    std::shared_ptr<std::istream> stream;
    run([&] { stream = opc::LocalFileSystemOps().createInputStream(corePath_, ReadBinary); });
    std::string beginning(4, '\0');
    stream->read(beginning.data(), 4);
    if (stream->gcount() == 0)
        throw Failure(ExitStatus::NotAPackage, path_ + ": the file is empty");
    if (beginning == "PK\x03\x04")
        throw Failure(ExitStatus::NotAPackage, path_ + ": this is a ZIP file, not a package in text form");
    stream->clear();
    stream->seekg(0);
    return stream;
}

/// "line N: " for the line that ends where the stream stands, nothing where the stream is of no help.
std::string PackageFile::lineBefore(std::istream& stream) const {
    auto remaining = static_cast<std::int64_t>(stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
    auto const copy = opc::LocalFileSystemOps().createInputStream(corePath_, ReadBinary);
    std::int64_t lines = 0;
    std::string block(65536, '\0');
    char last = '\n';
    while (remaining > 0) {
        copy->read(block.data(), std::min<std::int64_t>(remaining, static_cast<std::int64_t>(block.size())));
        if (copy->gcount() == 0)
            break;
        lines += std::count(block.begin(), block.begin() + copy->gcount(), '\n');
        last = block[static_cast<std::size_t>(copy->gcount() - 1)];
        remaining -= copy->gcount();
    }
    return fmt::format("line {}: ", last == '\n' ? lines : lines + 1);
}

} // namespace opctext
