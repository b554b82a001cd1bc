#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <opctext/Failure.hpp>
#include <opctext/StandardOutput.hpp>
#include <opctext/commands.hpp>

namespace opctext {

namespace {

/// What the command line asks for; the functions fill in the command to run.
struct CommandLine {
    CLI::App app{"Reads OPC packages (docx, xlsx, pptx, 3mf, ...) that are stored as one text file.", "opctext"};
    std::string file;
    std::vector<std::string> parts;
    bool namesOnly = false;
    bool json = false;
    std::function<void()> command;

    CommandLine() {
        app.set_version_flag("--version", "opctext " OPCTEXT_VERSION);
        app.require_subcommand(1);
        app.failure_message([](CLI::App const* /*app*/, CLI::Error const& error) {
            return std::string("opctext: ") + error.what() + "\nopctext: see opctext --help\n";
        });
        app.footer("Data go to standard output, words to standard error. Exit status: 0 fine; 1 a check found\n"
                   "something; 2 wrong usage; 3 not a package, or malformed; 4 an input or output error.");
        addList();
        addCat();
        addInfo();
    }

private:
    CLI::App& add(char const* name, char const* description) {
        auto& subcommand = *app.add_subcommand(name, description);
        subcommand.add_option("FILE", file, "a package in text form")->required();
        return subcommand;
    }

    void addList() {
        auto& list = add("list", "List the parts: name, text or binary, size of the content in bytes");
        auto* const one = list.add_flag("-1", namesOnly, "only the names, one a line");
        list.add_flag("--json", json, "as JSON: an array of objects with name, form and size")->excludes(one);
        list.callback([this] {
            auto const form = json ? ListForm::Json : namesOnly ? ListForm::NamesOnly : ListForm::Table;
            command = [this, form] { listParts(file, form); };
        });
    }

    void addCat() {
        auto& cat = add("cat", "Write the contents of parts to standard output. A CR LF inside a text part comes out "
                               "as LF; binary parts are exact");
        cat.add_option("PART", parts, "names of parts, as list shows them; the case of letters doesn't matter")
            ->required();
        cat.callback([this] { command = [this] { catParts(file, parts); }; });
    }

    void addInfo() {
        auto& info = add("info", "Show the header, the release tag, counts and sizes, and whether the file is whole");
        info.callback([this] { command = [this] { showInfo(file); }; });
    }
};

ExitStatus report(std::string const& message, ExitStatus status) {
    std::fprintf(stderr, "opctext: %s\n", message.c_str());
    return status;
}

ExitStatus run(std::function<void()> const& command) {
    try {
        command();
        finishOutput();
        return ExitStatus::Fine;
    } catch (Failure const& failure) {
        std::fflush(stdout);
        return report(failure.what(), failure.status());
    } catch (std::exception const& failure) {
        return report(failure.what(), ExitStatus::InputOutput);
    }
}

} // namespace

} // namespace opctext

int main(int argc, char** argv) {
    // Whoever reads our output may stop at any time, which is no error to speak of; whoever limits the size of files
    // gets a message.
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_IGN);

    opctext::CommandLine commandLine;
    try {
        commandLine.app.parse(argc, argv);
    } catch (CLI::ParseError const& outcome) {
        bool const asked = commandLine.app.exit(outcome) == 0; // --help or --version
        return static_cast<int>(asked ? opctext::ExitStatus::Fine : opctext::ExitStatus::WrongUsage);
    }
    return static_cast<int>(opctext::run(commandLine.command));
}
