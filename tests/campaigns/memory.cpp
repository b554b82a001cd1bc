// Makes each allocation of a scenario fail, once and from then on, and looks at what comes of it. Started by memory.py.
//
//     campaign_memory FOLDER OTHER SCENARIO [N SEED]   N: one allocation in N, chosen by the seed
//     campaign_memory FOLDER OTHER SCENARIO --at K once|from
//     campaign_memory --scenarios
//
// FOLDER and OTHER are for files, empty, and on different file systems if there are two.

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/campaigns/Scenario.hpp>
#include <tests/campaigns/allocationFaults.hpp>

namespace campaigns {

namespace {

namespace fs = std::filesystem;

constexpr unsigned MostSeconds = 20; // for one run
constexpr std::size_t MostMessage = 1000;
constexpr std::size_t MostOutput = 1 << 20;

std::string readFile(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Everything below a folder: what each path is, with permission bits.
using Tree = std::map<std::string, std::string>;

Tree treeOf(fs::path const& folder) {
    Tree tree;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        auto const name = entry.path().lexically_relative(folder).string();
        auto const mode = std::to_string(static_cast<unsigned>(entry.symlink_status().permissions()));
        tree[name] = entry.is_symlink()     ? "link to " + fs::read_symlink(entry.path()).string()
                     : entry.is_directory() ? "folder " + mode
                                            : "file " + mode + " " + readFile(entry.path());
    }
    return tree;
}

void empty(fs::path const& folder) {
    fs::remove_all(folder);
    fs::create_directories(folder);
}

/// What a run reported and what it left.
struct Outcome {
    bool succeeded = false;
    std::string output;
    std::string message; ///< of a failure
    std::uint64_t allocations = 0;
    std::int64_t leaked = 0; ///< blocks of memory
    int descriptors = 0;     ///< left open
};

/// What a child process tells its parent, in memory that they share.
struct Report {
    std::uint64_t allocations;
    bool leftTemporaryFiles;
    bool leftDescriptor; ///< of a mapping
    char violation[4096];
};

struct Figures {
    std::uint64_t allocations = 0;
    std::uint64_t runs = 0;
    std::uint64_t runsThatLeftTemporaryFiles = 0; // only where all later allocations failed as well
    std::uint64_t runsThatLeftADescriptor = 0;    // of a mapping
    std::uint64_t runsThatAborted = 0;            // within the JSON or the C++ library
};

/// One scenario in folders of its own.
class Trial {
public:
    Trial(Scenario const& scenario, fs::path const& folder, fs::path const& other)
        : scenario_(scenario),
          work_(folder / "work"),
          temporary_((scenario.isAcrossFileSystems ? other : folder) / "tmp"),
          output_(folder / "output"),
          report_(static_cast<Report*>(
              ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        static std::array<char, BUFSIZ> outputBuffer;
        std::setvbuf(stdout, outputBuffer.data(), _IOFBF, outputBuffer.size());
        empty(temporary_);
        ::setenv("TMPDIR", temporary_.c_str(), 1);
        // The first run warms up what the libraries keep for good; the second tells what is right.
        prepare();
        run(Failing::None, 0);
        prepare();
        before_ = treeOf(work_);
        right_ = run(Failing::None, 0);
        after_ = treeOf(work_);
        if (!right_.succeeded || right_.leaked != 0 || right_.descriptors != 0)
            throw Violation("undisturbed: " + right_.message + describeLeft(right_));
    }

    std::uint64_t allocations() const { return right_.allocations; }

    /// Runs the scenario with an allocation failing, in a child process. Returns whether it came to that allocation.
    bool tryWith(Failing failing, std::uint64_t number, Figures& figures) {
        std::memset(report_, 0, sizeof *report_);
        auto const child = ::fork();
        if (child == 0) {
            checkInChild(failing, number);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ++figures.runs;
        if (mayAbort() && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
            if (treeOf(work_) != before_)
                throw Violation("aborted, and files are not as they were" + describe(treeOf(work_)));
            empty(temporary_);
            ++figures.runsThatAborted;
            return true;
        }
        if (WIFSIGNALED(status))
            throw Violation("killed by signal " + std::to_string(WTERMSIG(status)));
        if (WEXITSTATUS(status) != 0)
            throw Violation("exited with " + std::to_string(WEXITSTATUS(status)));
        if (report_->violation[0] != '\0')
            throw Violation(report_->violation);
        figures.runsThatLeftTemporaryFiles += report_->leftTemporaryFiles ? 1 : 0;
        figures.runsThatLeftADescriptor += report_->leftDescriptor ? 1 : 0;
        return report_->allocations > number;
    }

private:
    /// The JSON library allocates while it destroys a value, the C++ library where it promises not to throw while it
    /// goes through the folders of -r; both end the program where they can't. No file has been touched by then.
    bool mayAbort() const {
        static std::set<std::string> const scenarios = {"opctext-list-json", "opctext-check-json",
                                                        "opctext-pack-a-folder", "opctext-unpack-a-folder"};
        return scenarios.count(scenario_.name) != 0;
    }

    void prepare() {
        empty(work_);
        fs::current_path(work_);
        scenario_.prepare();
    }

    Outcome run(Failing failing, std::uint64_t number) {
        connectInput(scenario_);
        static std::array<char, BUFSIZ> inputBuffer; // else the C library allocates one when it likes
        std::setvbuf(stdin, inputBuffer.data(), _IOFBF, inputBuffer.size());
        Outcome outcome;
        auto const standardOutput = ::dup(STDOUT_FILENO);
        auto const standardError = ::dup(STDERR_FILENO);
        auto const file = ::open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        ::dup2(file, STDOUT_FILENO);
        auto const nowhere = ::open("/dev/null", O_WRONLY);
        ::dup2(nowhere, STDERR_FILENO);
        outcome.message.reserve(MostMessage); // so that keeping them changes no count
        outcome.output.reserve(MostOutput);

        int const descriptorsBefore = openDescriptors();
        int const mappingsBefore = descriptorsOfWorkingCopies();
        auto const liveBefore = liveAllocations();
        beginAllocationFaults(failing, number);
        try {
            auto const read = scenario_.run();
            outcome.allocations = endAllocationFaults();
            outcome.succeeded = true;
            outcome.output.assign(read, 0, MostOutput);
        } catch (Violation const& violation) {
            endAllocationFaults();
            throw;
        } catch (std::exception const& failure) {
            outcome.allocations = endAllocationFaults();
            outcome.message.assign(std::string_view(failure.what()).substr(0, MostMessage));
        }
        outcome.leaked = liveAllocations() - liveBefore;
        outcome.descriptors = openDescriptors() - descriptorsBefore;
        leftByMapping_ = outcome.descriptors > 0 ? descriptorsOfWorkingCopies() - mappingsBefore : 0;

        __fpurge(stdout); // what a failed run could not write
        ::dup2(standardOutput, STDOUT_FILENO);
        ::dup2(standardError, STDERR_FILENO);
        for (int const descriptor : {standardOutput, standardError, file, nowhere})
            ::close(descriptor);
        if (scenario_.isProgram)
            outcome.output = readFile(output_);
        return outcome;
    }

    void checkInChild(Failing failing, std::uint64_t number) {
        ::alarm(MostSeconds);
        try {
            prepare();
            auto const outcome = run(failing, number);
            report_->allocations = outcome.allocations;
            requireRight(outcome);
            requireNoTemporaryFiles(failing);
            prepare();
            auto const again = run(Failing::None, 0);
            if (!again.succeeded || again.output != right_.output || treeOf(work_) != after_)
                throw Violation("not usable afterwards: " + again.message);
            bool const hasKept = outcome.leaked != 0 || outcome.descriptors != 0;
            if (hasKept && !scenario_.isProgram) // what a program keeps goes with it
                requireNothingKept(failing, number);
        } catch (std::exception const& violation) {
            std::strncpy(report_->violation, violation.what(), sizeof report_->violation - 1);
        }
    }

    void requireRight(Outcome const& outcome) const {
        auto const tree = treeOf(work_);
        if (outcome.succeeded && outcome.output != right_.output)
            throw Violation("success was reported, and what was read is not right: \"" + outcome.output + "\"");
        if (outcome.succeeded && tree != after_)
            throw Violation("success was reported, and the files are not right" + describe(tree));
        if (!outcome.succeeded && !isBetween(tree))
            throw Violation("failure was reported (" + outcome.message +
                            "), and the files are neither as they were "
                            "nor as they were to be" +
                            describe(tree));
    }

    /// What a first failure keeps may be kept for good, on a way that no run went before. A second one keeps nothing.
    void requireNothingKept(Failing failing, std::uint64_t number) {
        prepare();
        run(failing, number);
        prepare();
        auto outcome = run(failing, number);
        empty(temporary_);
        outcome.descriptors -= leftByMapping_;
        report_->leftDescriptor = leftByMapping_ > 0;
        if (outcome.leaked != 0 || outcome.descriptors != 0)
            throw Violation(describeLeft(outcome) + " (" + outcome.message + ")");
    }

    /// How many descriptors are open on working copies of packages.
    static int descriptorsOfWorkingCopies() {
        int count = 0;
        for (int descriptor = 0; descriptor < 256; ++descriptor) {
            std::error_code noneThere;
            auto const target = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), noneThere);
            count += target.native().find("_zkopc_packageCopy.txt") != std::string::npos ? 1 : 0;
        }
        return count;
    }

    /// Whether each file is the old one or the new one, and the target the old one.
    bool isBetween(Tree const& tree) const {
        auto const find = [](Tree const& in, std::string const& name) {
            auto const found = in.find(name);
            return found == in.end() ? std::string() : found->second;
        };
        Tree all = tree;
        all.insert(before_.begin(), before_.end());
        for (auto const& entry : all) {
            auto const now = find(tree, entry.first);
            bool const isOld = now == find(before_, entry.first);
            bool const isNew = now == find(after_, entry.first) && entry.first != scenario_.target;
            if (!isOld && !isNew)
                return false;
        }
        return true;
    }

    std::string describe(Tree const& tree) const {
        std::string text;
        for (auto const& [name, content] : tree) {
            auto const old = before_.find(name);
            text += "\n    " + name +
                    (old != before_.end() && old->second == content ? ": old" : ": " + content.substr(0, 300));
        }
        return text;
    }

    static std::string describeLeft(Outcome const& outcome) {
        return std::to_string(outcome.leaked) + " blocks of memory and " + std::to_string(outcome.descriptors) +
               " descriptors left";
    }

    void requireNoTemporaryFiles(Failing failing) const {
        auto const left = treeOf(temporary_);
        if (left.empty())
            return;
        if (failing == Failing::Once)
            throw Violation("left in the temporary area: " + left.begin()->first);
        report_->leftTemporaryFiles = true;
        empty(temporary_);
    }

    Scenario const& scenario_;
    fs::path work_;
    fs::path temporary_;
    fs::path output_;
    Report* report_;
    Tree before_;
    Tree after_;
    Outcome right_;
    int leftByMapping_ = 0; // descriptors, in the last run: Boost's mapping keeps its file open if memory fails it then
};

std::string nameOf(Failing failing) {
    return failing == Failing::Once ? "once" : "from";
}

int tryAll(Trial& trial, std::string const& name, unsigned oneIn, std::uint64_t seed) {
    Figures figures;
    figures.allocations = trial.allocations();
    std::mt19937_64 random(seed);
    for (auto const failing : {Failing::Once, Failing::FromThenOn}) {
        for (std::uint64_t number = 0;; number += 1 + (oneIn > 1 ? random() % (2 * oneIn - 1) : 0)) {
            try {
                if (!trial.tryWith(failing, number, figures))
                    break;
            } catch (Violation const& violation) {
                std::cout << name << ", allocation " << number << ' ' << nameOf(failing) << ": " << violation.what()
                          << std::endl;
                return 1;
            }
        }
    }
    std::cout << figures.allocations << ' ' << figures.runs << ' ' << figures.runsThatLeftTemporaryFiles << ' '
              << figures.runsThatLeftADescriptor << ' ' << figures.runsThatAborted << '\n';
    return 0;
}

int main(std::vector<std::string> const& arguments) {
    if (arguments == std::vector<std::string>{"--scenarios"}) {
        for (auto const& scenario : scenarios())
            std::cout << scenario.name << '\n';
        return 0;
    }
    if (arguments.size() < 3) {
        std::cerr << "see memory.cpp\n";
        return 2;
    }
    auto const& name = arguments[2];
    try {
        Trial trial(scenarioNamed(name), arguments[0], arguments[1]);
        if (arguments.size() == 6 && arguments[3] == "--at") {
            Figures figures;
            trial.tryWith(arguments[5] == "once" ? Failing::Once : Failing::FromThenOn, std::stoull(arguments[4]),
                          figures);
            return 0;
        }
        if (arguments.size() == 5)
            return tryAll(trial, name, static_cast<unsigned>(std::stoul(arguments[3])), std::stoull(arguments[4]));
        return tryAll(trial, name, 1, 0);
    } catch (Violation const& violation) {
        std::cout << name << ": " << violation.what() << '\n';
        return 1;
    }
}

} // namespace

} // namespace campaigns

int main(int count, char** arguments) {
    return campaigns::main({arguments + 1, arguments + count});
}
