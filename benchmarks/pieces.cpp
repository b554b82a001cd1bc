// The pieces that the library is made of, each beside what the hardware or the standard library needs for the same
// bytes: benchmarks PIECE/textpackage and PIECE/<reference>.

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include <benchmarks/GeneratedPackage.hpp>
#include <opccore/Base64.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/OpenMode.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/Base64Encoder.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/PartIndex.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageHelpers.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using benchmark::State;
using namespace opc::textpackage;

constexpr std::size_t PackageBytes = 64 << 20; // beyond any cache

/// A package with as much text as Base64, without its package-begin line.
std::string const& packageText() {
    static std::string const text = [] {
        std::ostringstream out;
        benchmarks::generateLarge(out, PackageBytes);
        auto whole = out.str();
        return whole.substr(whole.find('\n') + 1);
    }();
    return text;
}

/// The content of the first part of a kind.
std::string contentOf(bool isBase64) {
    std::string content;
    indexParts(packageText(), [&](IndexedPart const& part) {
        if (part.contentEnd - part.contentBegin > content.size() && part.begin.isBase64 == isBase64)
            content = packageText().substr(part.contentBegin, part.contentEnd - part.contentBegin);
    });
    return content;
}

/// A package file, removed at the end.
class PackageFile {
public:
    explicit PackageFile(std::size_t bytes)
        : path_(std::filesystem::temp_directory_path() / ("bench_pieces." + std::to_string(bytes) + ".txt")) {
        std::ofstream out(path_, std::ios::binary);
        benchmarks::generateSeries(out, bytes);
    }

    ~PackageFile() { std::filesystem::remove(path_); }

    std::u16string path() const { return path_.u16string(); }
    std::string native() const { return path_.native(); }

private:
    std::filesystem::path path_;
};

void countBytes(State& state, std::size_t bytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(bytes));
}

/// Copies the bytes into room whose pages are in place.
void copy(State& state, std::string const& bytes) {
    std::string room(bytes.size(), 'x');
    for (auto _ : state) {
        std::memcpy(room.data(), bytes.data(), bytes.size());
        benchmark::DoNotOptimize(room.data());
        benchmark::ClobberMemory();
    }
    countBytes(state, bytes.size());
}

void scan(State& state) {
    std::istringstream stream(packageText());
    for (auto _ : state) {
        stream.clear();
        stream.seekg(0);
        std::size_t bytes = 0;
        TextPackageHelpers::readParts(
            stream, [](TextPackageHelpers::PartBegin const&) {}, [] { return true; },
            [&](std::string const& line) { bytes += line.size(); });
        if (bytes < PackageBytes / 2)
            state.SkipWithError("the scan lost lines");
    }
    countBytes(state, packageText().size());
}
BENCHMARK(scan)->Name("scan a stream/textpackage");

void getLines(State& state) {
    std::istringstream stream(packageText());
    std::string line;
    for (auto _ : state) {
        stream.clear();
        stream.seekg(0);
        while (std::getline(stream, line))
            benchmark::DoNotOptimize(line.data());
    }
    countBytes(state, packageText().size());
}
BENCHMARK(getLines)->Name("scan a stream/std::getline");

void index(State& state) {
    for (auto _ : state) {
        std::size_t parts = 0;
        indexParts(packageText(), [&](IndexedPart const&) { ++parts; });
        if (parts != 20)
            state.SkipWithError("the index lost parts");
    }
    countBytes(state, packageText().size());
}
BENCHMARK(index)->Name("index memory/textpackage");

void copyPackage(State& state) {
    copy(state, packageText());
}
BENCHMARK(copyPackage)->Name("index memory/memcpy");

void decode(State& state) {
    std::vector<std::string> lines;
    std::istringstream text(contentOf(true));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    for (auto _ : state) {
        for (auto const& line : lines)
            benchmark::DoNotOptimize(foundation::crypto::utils::base64Decode(line).data());
    }
    countBytes(state, text.str().size());
}
BENCHMARK(decode)->Name("decode Base64 lines/textpackage");

void copyBase64(State& state) {
    copy(state, contentOf(true));
}
BENCHMARK(copyBase64)->Name("decode Base64 lines/memcpy");

void encode(State& state) {
    auto const bytes = contentOf(true); // any bytes will do
    std::istringstream in(bytes);
    std::ostringstream out;
    for (auto _ : state) {
        in.clear();
        in.seekg(0);
        out.seekp(0);
        writeBase64Lines(in, out);
    }
    if (out.str().size() < bytes.size() / 3 * 4)
        state.SkipWithError("the encoder lost bytes");
    countBytes(state, bytes.size());
}
BENCHMARK(encode)->Name("encode Base64 lines/textpackage");
BENCHMARK(copyBase64)->Name("encode Base64 lines/memcpy");

void fromUtf8(State& state) {
    auto const text = contentOf(false);
    for (auto _ : state)
        benchmark::DoNotOptimize(opc::toString(text, true).data());
    countBytes(state, text.size());
}
BENCHMARK(fromUtf8)->Name("UTF-8 to UTF-16/textpackage");

void copyText(State& state) {
    copy(state, contentOf(false));
}
BENCHMARK(copyText)->Name("UTF-8 to UTF-16/memcpy");

void toUtf8(State& state) {
    auto const text = contentOf(false);
    auto const units = opc::toString(text, true);
    for (auto _ : state)
        benchmark::DoNotOptimize(opc::detail::toUTF8String(units, true).data());
    countBytes(state, text.size());
}
BENCHMARK(toUtf8)->Name("UTF-16 to UTF-8/textpackage");
BENCHMARK(copyText)->Name("UTF-16 to UTF-8/memcpy");

void readText(State& state) {
    PackageFile const file(PackageBytes);
    TextFilePhysicalPackage package(file.path());
    package.open(opc::interfaces::OpenMode::Read);
    std::vector<char> block(262144);
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (auto* const part : package.getParts()) {
            auto& stream = *part->getInputStream();
            while (auto const count = stream.read(block.data(), static_cast<std::int64_t>(block.size())))
                bytes += static_cast<std::size_t>(count);
        }
    }
    if (bytes < PackageBytes / 2)
        state.SkipWithError("bytes were lost");
    countBytes(state, bytes);
}
BENCHMARK(readText)->Name("read text parts/textpackage");
BENCHMARK(copyPackage)->Name("read text parts/memcpy");

/// The bytes that the light reader has to go through when nothing is wanted behind the third part: up to the end of
/// the fourth.
constexpr std::size_t EarlyBytes = 64 << 10;

void stopEarly(State& state) {
    PackageFile const file(PackageBytes);
    for (auto _ : state) {
        TextPackageLightweightReader reader(file.path());
        reader.open(opc::interfaces::OpenMode::Read);
        if (reader.getParts().size() != 2)
            state.SkipWithError("other parts than the first three were kept");
    }
    countBytes(state, EarlyBytes);
}
BENCHMARK(stopEarly)->Name("light reader, early stop/textpackage");

void readBeginning(State& state) {
    PackageFile const file(PackageBytes);
    std::vector<char> block(EarlyBytes);
    for (auto _ : state) {
        std::ifstream stream(file.native(), std::ios::binary);
        stream.read(block.data(), static_cast<std::streamsize>(block.size()));
        benchmark::DoNotOptimize(block.data());
    }
    countBytes(state, EarlyBytes);
}
BENCHMARK(readBeginning)->Name("light reader, early stop/std::ifstream");

} // namespace
