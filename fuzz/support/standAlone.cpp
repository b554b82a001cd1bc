// Runs a fuzz target without a fuzzer: on the files given, and where that is asked for on random changes of them.
// Builds with any compiler.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

extern "C" {
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
__attribute__((weak)) std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                                          unsigned seed);
__attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)()); // where a sanitizer is linked in
}

namespace {

constexpr std::size_t LongestMutant = 65536;

std::minstd_rand byteRandom; // of LLVMFuzzerMutate

// The input at hand, for the handler that keeps it when the process dies.
std::vector<std::uint8_t> input;
std::string reproducerPath;

/// Calls only what a signal handler may.
void keepInput() {
    int const file = ::open(reproducerPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool const isKept = ::write(file, input.data(), input.size()) == static_cast<ssize_t>(input.size());
    auto const say = [](char const* text) { return ::write(STDERR_FILENO, text, std::strlen(text)); };
    if (say(isKept ? "\nreproducer: " : "\nnot kept: ") < 0 || say(reproducerPath.c_str()) < 0 || say("\n") < 0)
        ::_exit(1);
}

void onSignal(int number) {
    keepInput();
    std::signal(number, SIG_DFL);
    std::raise(number);
}

void keepInputWhenDying() {
    for (int const number : {SIGABRT, SIGALRM, SIGTERM, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        std::signal(number, onSignal);
    if (__sanitizer_set_death_callback != nullptr)
        __sanitizer_set_death_callback(keepInput);
}

std::vector<std::uint8_t> readFile(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: can't be read\n", path.c_str());
        std::exit(2);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<fs::path> filesAt(fs::path const& path) {
    if (!fs::is_directory(path))
        return {path};
    std::vector<fs::path> files;
    for (auto const& entry : fs::directory_iterator(path))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void run(std::vector<std::uint8_t> const& bytes) {
    constexpr unsigned MostSeconds = 60; // sanitizers included; a hang shows all the same
    input = bytes;
    ::alarm(MostSeconds);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ::alarm(0);
}

/// What a fuzzer would make of the input, or nearly.
std::vector<std::uint8_t> mutantOf(std::vector<std::uint8_t> bytes, unsigned seed) {
    auto const size = bytes.size();
    bytes.resize(std::max(size + 4096, LongestMutant));
    byteRandom.seed(seed + 1);
    auto const mutate = LLVMFuzzerCustomMutator;
    auto const newSize = mutate != nullptr ? mutate(bytes.data(), size, bytes.size(), seed)
                                           : LLVMFuzzerMutate(bytes.data(), size, bytes.size());
    bytes.resize(newSize);
    return bytes;
}

/// Runs changed inputs, each made from one of those given and a seed of its own, until the time is up.
void runMutants(std::vector<std::vector<std::uint8_t>> const& inputs, unsigned seed, double seconds) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    unsigned count = 0;
    for (; std::chrono::steady_clock::now() < end; ++count)
        run(mutantOf(inputs[count % inputs.size()], seed + count));
    std::printf("%u changed inputs (seed %u)\n", count, seed);
}

int fail() {
    std::fprintf(stderr, "usage: fuzz_TARGET [--mutate SECONDS] [--seed N] [--reproducer FILE] FILE-OR-FOLDER...\n");
    return 2;
}

} // namespace

/// Changes a byte, adds some or removes some.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize) {
    auto const below = [](std::size_t limit) { return limit == 0 ? 0 : byteRandom() % limit; };
    std::vector<std::uint8_t> bytes(data, data + size);
    for (auto edits = below(4) + 1; edits > 0; --edits) {
        auto const at = static_cast<std::ptrdiff_t>(below(bytes.size() + 1));
        auto const count = static_cast<std::ptrdiff_t>(
            std::min<std::size_t>(below(8) + 1, bytes.size() - static_cast<std::size_t>(at)));
        auto const kind = below(3);
        if (kind == 0 || count == 0) {
            bytes.insert(bytes.begin() + at, below(8) + 1, static_cast<std::uint8_t>(byteRandom()));
        } else if (kind == 1) {
            bytes.erase(bytes.begin() + at, bytes.begin() + at + count);
        } else {
            bytes[static_cast<std::size_t>(at)] ^= static_cast<std::uint8_t>(1U << below(8));
        }
    }
    auto const newSize = std::min(bytes.size(), maxSize);
    std::copy_n(bytes.begin(), newSize, data);
    return newSize;
}

int main(int argc, char** argv) {
    double seconds = 0;
    unsigned seed = 1;
    std::vector<std::vector<std::uint8_t>> inputs;
    reproducerPath = "fuzz-reproducer";
    keepInputWhenDying();
    for (int i = 1; i < argc; ++i) {
        std::string const argument = argv[i];
        if (argument.rfind("--", 0) != 0) {
            for (auto const& path : filesAt(argument))
                inputs.push_back(readFile(path));
        } else if (i + 1 == argc) {
            return fail();
        } else if (argument == "--mutate") {
            seconds = std::stod(argv[++i]);
        } else if (argument == "--seed") {
            seed = static_cast<unsigned>(std::stoul(argv[++i]));
        } else if (argument == "--reproducer") {
            reproducerPath = argv[++i];
        } else {
            return fail();
        }
    }
    if (inputs.empty())
        return fail();
    for (auto const& bytes : inputs)
        run(bytes);
    std::printf("%zu inputs\n", inputs.size());
    if (seconds > 0)
        runMutants(inputs, seed, seconds);
}
