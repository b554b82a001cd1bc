#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace campaigns {

/// The library or the program did what it must never do, whatever else went wrong around it.
class Violation : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

/// Something that a host or a person does with packages, to be done while things go wrong. All of it happens in the
/// current folder, and touches nothing but that and the temporary area.
///
/// A run that nothing disturbs succeeds. One that succeeded although something did leaves and gives the very same. One
/// that failed leaves each file as it was or as that run leaves it.
struct Scenario {
    std::string name;

    /// Makes the files that a run begins with, in an empty folder.
    std::function<void()> prepare;

    /// Does it, and returns what it read; a scenario of opctext writes that to standard output instead. May be called
    /// again and again, each time on what `prepare` made in an empty folder. Throws `Violation`, or what the library
    /// reports.
    std::function<std::string()> run;

    /// The one file that a run replaces or makes, before it does anything else that may fail: a run that failed left
    /// it as it was, but for the sync of its folder. Empty where there is no such file.
    std::string target = "";

    /// The file that standard input is to be.
    std::string input = "/dev/null";

    /// Whether the folder and the temporary area are to lie on different file systems.
    bool isAcrossFileSystems = false;

    /// Whether it runs opctext, in this process, and not the library alone.
    bool isProgram = false;
};

std::vector<Scenario> const& scenarios();

/// Throws `std::out_of_range` where there is none of that name.
Scenario const& scenarioNamed(std::string const& name);

/// Gives standard input what the scenario needs; before each run.
void connectInput(Scenario const& scenario);

/// How many of the first 256 file descriptors are open. Asks with one poll(2), which nothing else here calls.
int openDescriptors();

} // namespace campaigns
