#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include <sys/resource.h>
#include <unistd.h>

#include <tests/campaigns/Scenario.hpp>
#include <tests/campaigns/shortTransfers.hpp>

namespace {

using campaigns::Scenario;

constexpr int Succeeded = 0;
constexpr int Failed = 1; // and said so
constexpr int WrongUsage = 2;
constexpr int LeftDescriptors = 10; // added to one of the first two
constexpr int Violated = 20;

/// A system call that nothing else here makes, so that a tracer sees where the run begins and where it ends.
void mark() {
    ::getpriority(PRIO_PROCESS, 0);
}

/// Writes all of a text to a descriptor; whether that worked.
bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        auto const written = ::write(descriptor, text.data(), text.size());
        if (written == -1 && errno != EINTR)
            return false;
        text.remove_prefix(written == -1 ? 0 : static_cast<std::size_t>(written));
    }
    return true;
}

int runOnce(Scenario const& scenario) {
    try {
        return writeAll(STDOUT_FILENO, scenario.run()) ? Succeeded : Failed;
    } catch (campaigns::Violation const& violation) {
        writeAll(STDERR_FILENO, std::string(violation.what()) + "\n");
        return Violated;
    } catch (std::exception const& failure) {
        writeAll(STDERR_FILENO, std::string(failure.what()) + "\n");
        return Failed;
    }
}

int run(Scenario const& scenario) {
    connectInput(scenario);
    int const before = campaigns::openDescriptors();
    mark();
    campaigns::beginShortTransfers();
    int const status = runOnce(scenario);
    mark();
    int const left = campaigns::openDescriptors() - before;
    if (left <= 0)
        return status;
    writeAll(STDERR_FILENO, std::to_string(left) + " descriptors are left open\n");
    return status + LeftDescriptors;
}

/// A line a scenario: its name, its target ("-": none), its properties.
int list() {
    for (auto const& scenario : campaigns::scenarios()) {
        std::cout << scenario.name << '\t' << (scenario.target.empty() ? "-" : scenario.target) << '\t'
                  << (scenario.isAcrossFileSystems ? "across" : "same") << '\t'
                  << (scenario.isProgram ? "program" : "library") << '\n';
    }
    return Succeeded;
}

} // namespace

/// campaign_scenarios list
/// campaign_scenarios prepare NAME FOLDER
/// campaign_scenarios run NAME FOLDER
///
/// What a run read goes to standard output. It exits with 0 where success was reported, with 1 where a failure was,
/// with 10 more where descriptors are left open, and with 20 for what must never happen.
int main(int count, char** arguments) {
    std::string const task = count > 1 ? arguments[1] : "";
    if (task == "list" && count == 2)
        return list();
    if ((task != "prepare" && task != "run") || count != 4)
        return WrongUsage;
    auto const& scenario = campaigns::scenarioNamed(arguments[2]);
    std::filesystem::current_path(arguments[3]);
    if (task == "run")
        return run(scenario);
    scenario.prepare();
    return Succeeded;
}
