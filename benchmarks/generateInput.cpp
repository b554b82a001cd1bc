// Writes a package to measure with, or bytes to encode, and prints what is in it as JSON.

#include <cstdint>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmarks/GeneratedPackage.hpp>

namespace {

using benchmarks::Totals;

Totals generateBytes(std::ostream& out, std::size_t bytes) {
    std::mt19937_64 random(20260502);
    std::vector<std::uint64_t> block(8192);
    for (auto left = bytes; left > 0;) {
        for (auto& word : block)
            word = random();
        auto const count = std::min(left, block.size() * sizeof block[0]);
        out.write(reinterpret_cast<char const*>(block.data()), static_cast<std::streamsize>(count));
        left -= count;
    }
    return {0, 0, bytes};
}

std::map<std::string, std::function<Totals(std::ostream&, std::size_t)>> const shapes{
    {"large", benchmarks::generateLarge},
    {"text", benchmarks::generateText},
    {"series", benchmarks::generateSeries},
    {"many", benchmarks::generateMany},
    {"office", [](std::ostream& out, std::size_t /*size*/) { return benchmarks::generateOffice(out); }},
    {"bytes", generateBytes},
};

} // namespace

int main(int argc, char** argv) {
    try {
        auto const shape = argc == 4 ? shapes.find(argv[1]) : shapes.end();
        if (shape == shapes.end()) {
            std::cerr << "usage: generate_input large|text|series|many|office|bytes FILE SIZE\n"
                         "SIZE is in bytes, for many in parts, and of no effect for office.\n";
            return 2;
        }
        std::ofstream out(argv[2], std::ios::binary);
        out.exceptions(std::ios::badbit | std::ios::failbit);
        auto const totals = shape->second(out, std::stoull(argv[3]));
        out.close();
        std::cout << "{\"parts\": " << totals.parts << ", \"text_bytes\": " << totals.textBytes
                  << ", \"binary_bytes\": " << totals.binaryBytes << "}\n";
        return 0;
    } catch (std::exception const& failure) {
        std::cerr << "generate_input: " << failure.what() << '\n';
        return 1;
    }
}
