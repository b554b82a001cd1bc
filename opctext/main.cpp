#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <opctext/Messages.hpp>
#include <opctext/StandardStreams.hpp>
#include <opctext/commands.hpp>
#include <opctext/conversion.hpp>

namespace opctext {

namespace {

/// What the command line asks for; parsing it fills in the command to run.
class CommandLine {
public:
    CommandLine() {
        app.set_version_flag("--version", "opctext " OPCTEXT_VERSION);
        app.require_subcommand(1);
        app.failure_message([](CLI::App const* /*app*/, CLI::Error const& error) {
            return std::string("opctext: ") + error.what() + "\nopctext: see opctext --help\n";
        });
        app.footer("Data go to standard output, words to standard error. Exit status: 0 fine; 1 a check found\n"
                   "something; 2 wrong usage; 3 not a package, or malformed; 4 an input or output error; 5 a ZIP file\n"
                   "over a limit; 6 a ZIP file with an unsafe name.");
        addList();
        addCat();
        addExtract();
        addInfo();
        addCheck();
        addCreate();
        addSet();
        addRemove();
        addHeader();
        addPack();
        addUnpack();
    }

    /// Parses the arguments. Throws what the parser throws.
    void parse(int argc, char** argv) {
        // The parser splits a value in brackets into several. Behind a mark it stays one; the mark goes again below.
        std::vector<std::string> arguments;
        for (int i = argc - 1; i > 0; --i) // the parser takes them from the back
            arguments.push_back((argv[i][0] == '[' ? BracketMark : "") + std::string(argv[i]));
        app.parse(arguments);
        for (auto* const value : {&file_, &part_, &source_, &folder_, &headerText_, &conversion_.output})
            removeMark(*value);
        for (auto* const values : {&files_, &parts_})
            std::for_each(values->begin(), values->end(), removeMark);
    }

    CLI::App app{"Reads and changes OPC packages (docx, xlsx, pptx, 3mf, ...) that are stored as one text file.",
                 "opctext"};
    std::function<ExitStatus()> command;

private:
    static constexpr char const* BracketMark = "\x01";

    static void removeMark(std::string& value) {
        if (value.compare(0, 2, std::string(BracketMark) + '[') == 0)
            value.erase(0, 1);
    }

    CLI::App& add(char const* name, char const* description) {
        auto& subcommand = *app.add_subcommand(name, description);
        subcommand.add_option("FILE", file_, "a package in text form")->required();
        return subcommand;
    }

    void addList() {
        auto& list = add("list", "List the parts: name, text or binary, size of the content in bytes");
        auto* const one = list.add_flag("-1", namesOnly_, "only the names, one a line");
        list.add_flag("--json", json_, "as JSON: an array of objects with name, form and size")->excludes(one);
        list.callback([this] {
            auto const form = json_ ? ListForm::Json : namesOnly_ ? ListForm::NamesOnly : ListForm::Table;
            run([this, form] { listParts(file_, form); });
        });
    }

    void addCat() {
        auto& cat = add("cat", "Write the contents of parts to standard output, byte for byte");
        addParts(cat)->required();
        cat.add_flag("--light", light_,
                     "stop reading early, and write nothing to the disk; a CR LF inside a text part comes out as LF");
        cat.callback(
            [this] { run([this] { catParts(file_, parts_, light_ ? CatMethod::Light : CatMethod::Exact); }); });
    }

    void addExtract() {
        auto& extract = add("extract", "Write parts, all where none is named, as files below a folder");
        addParts(extract);
        extract.add_option("-C", folder_, "the folder; made if it is missing")->type_name("FOLDER")->default_str(".");
        extract.add_flag("-f,--force", force_, "overwrite files that exist");
        extract.callback(
            [this] { run([this] { extractParts(file_, parts_, folder_, force_ ? Overwrite::Yes : Overwrite::No); }); });
    }

    void addInfo() {
        auto& info = add("info", "Show the header, the release tag, counts and sizes, and whether the file is whole");
        info.callback([this] { run([this] { showInfo(file_); }); });
    }

    void addCheck() {
        auto& check = *app.add_subcommand("check", "Read whole packages and report what is wrong with them");
        check.add_option("FILE", files_, "packages in text form")->required();
        check.add_flag("--strict", strict_, "count warnings as errors");
        check.add_flag("--json", json_, "as JSON: an array of objects with file, line, severity and message");
        check.callback([this] { command = [this] { return checkFiles(files_, strict_, json_); }; });
    }

    void addCreate() {
        auto& create = add("create", "Make a new package with nothing but an empty list of content types");
        create.add_flag("-f,--force", force_, "overwrite a file that exists");
        addBackup(create);
        create.callback([this] { run([this] { createPackage(file_, force_, keepBackup()); }); });
    }

    void addSet() {
        auto& set = add("set", "Give a part, new or not, new content");
        set.add_option("PART", part_, "the name of the part")->required();
        set.add_option("--from", source_, "the file with the content; - for standard input")->default_str("-");
        auto* const binary = set.add_flag("--binary", binary_, "store it in Base64; without either the bytes decide");
        set.add_flag("--text", text_, "store it as text")->excludes(binary);
        addBackup(set);
        set.callback([this] {
            auto const form = binary_ ? ContentForm::Binary : text_ ? ContentForm::Text : ContentForm::ByContent;
            run([this, form] { setPart(file_, part_, source_, form, keepBackup()); });
        });
    }

    void addRemove() {
        auto& remove = add("rm", "Remove parts");
        addParts(remove)->required();
        addBackup(remove);
        remove.callback([this] { run([this] { removeParts(file_, parts_, keepBackup()); }); });
    }

    void addHeader() {
        auto& header = add("header", "Show or change the text above the package");
        auto* const set = header.add_option("--set", headerText_, "the new text");
        auto* const from = header.add_option("--from", source_, "a file with it; - for standard input");
        auto* const clear = header.add_flag("--clear", clear_, "remove it");
        set->excludes(from)->excludes(clear);
        from->excludes(clear);
        addBackup(header);
        header.callback([this, set, from] {
            if (set->count() > 0 || clear_)
                run([this] { setHeader(file_, headerText_, keepBackup()); });
            else if (from->count() > 0)
                run([this] { setHeader(file_, readHeaderFile(source_), keepBackup()); });
            else
                run([this] { showHeader(file_); });
        });
    }

    void addPack() {
        auto& pack = *app.add_subcommand("pack", "Turn ZIP packages into text packages: FILE becomes FILE.txt");
        addConversion(pack,
                      "overwrite; and take a ZIP file without content types, or leave out [trash], with a warning");
        auto& limits = conversion_.limits;
        pack.add_option("--max-parts", limits.parts, "most members")->capture_default_str();
        pack.add_option("--max-part-size", limits.partBytes, "most bytes in one")->capture_default_str();
        pack.add_option("--max-size", limits.totalBytes, "most bytes in all")->capture_default_str();
        pack.add_option("--max-ratio", limits.ratio, "of inflated to stored bytes, for members over 8 MiB")
            ->capture_default_str();
        pack.callback([this] { command = [this] { return packFiles(files_, conversion_); }; });
    }

    void addUnpack() {
        auto& unpack =
            *app.add_subcommand("unpack", "Turn text packages back into ZIP packages: FILE.txt becomes FILE");
        addConversion(unpack, "overwrite files that exist");
        unpack.callback([this] { command = [this] { return unpackFiles(files_, conversion_); }; });
    }

    void addConversion(CLI::App& subcommand, char const* forceDescription) {
        subcommand.add_option("FILE", files_, "files, folders with -r, or - for standard input")->required();
        subcommand.add_option("-o", conversion_.output, "the output, - for standard output");
        subcommand.add_flag("-f,--force", conversion_.force, forceDescription);
        subcommand.add_flag("-r", conversion_.recurse, "take the files in folders, and in the folders in them");
        subcommand.add_option("-j", conversion_.jobs, "how many files at a time")->capture_default_str();
        subcommand.add_flag("!--no-verify", conversion_.verify, "don't read the result back and compare");
    }

    CLI::Option* addParts(CLI::App& subcommand) {
        return subcommand.add_option("PART", parts_,
                                     "names of parts, as list shows them; the case of letters doesn't matter");
    }

    void addBackup(CLI::App& subcommand) { subcommand.add_flag("--backup", backup_, "keep the old file as FILE.bak"); }

    KeepBackup keepBackup() const { return backup_ ? KeepBackup::Yes : KeepBackup::No; }

    template <class Action>
    void run(Action action) {
        command = [action] {
            action();
            return ExitStatus::Fine;
        };
    }

    std::string file_;
    std::vector<std::string> files_;
    std::vector<std::string> parts_;
    std::string part_;
    std::string source_ = "-";
    std::string folder_ = ".";
    std::string headerText_;
    ConversionOptions conversion_;
    bool namesOnly_ = false;
    bool json_ = false;
    bool light_ = false;
    bool strict_ = false;
    bool force_ = false;
    bool binary_ = false;
    bool text_ = false;
    bool clear_ = false;
    bool backup_ = false;
};

/// What went wrong, a line a message.
ExitStatus report(std::string const& messages, ExitStatus status) {
    std::istringstream lines(messages);
    lines.exceptions(std::ios_base::badbit); // for want of memory, which is a message of its own
    for (std::string line; std::getline(lines, line);)
        tell(line);
    return status;
}

/// Needs no memory itself.
ExitStatus reportOutOfMemory() {
    std::fputs("opctext: out of memory\n", stderr);
    return ExitStatus::InputOutput;
}

ExitStatus run(std::function<ExitStatus()> const& command) {
    try {
        auto const status = command();
        finishOutput();
        return status;
    } catch (ClosedPipe const& nobody) {
        return nobody.status();
    } catch (Failure const& failure) {
        std::fflush(stdout);
        return report(failure.what(), failure.status());
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& failure) {
        return report(failure.what(), ExitStatus::InputOutput);
    }
}

/// Ends the program where the command line asked for help, or was wrong.
ExitStatus endParsing(CommandLine& commandLine, CLI::ParseError const& outcome) {
    auto const extras = commandLine.app.remaining();
    if (commandLine.app.get_subcommands().empty() && !extras.empty())
        return report("there is no command " + extras.front() + "; see opctext --help", ExitStatus::WrongUsage);
    std::ostringstream help;
    if (commandLine.app.exit(outcome, help) != 0)
        return ExitStatus::WrongUsage;
    return run([&] {
        writeOutput(help.str());
        return ExitStatus::Fine;
    });
}

ExitStatus runProgram(int argc, char** argv) {
    CommandLine commandLine;
    try {
        commandLine.parse(argc, argv);
    } catch (CLI::ParseError const& outcome) {
        return endParsing(commandLine, outcome);
    }
    return run(commandLine.command);
}

} // namespace

} // namespace opctext

int main(int argc, char** argv) {
    // Both come back as errors of a write: neither may end the program before it has cleaned up.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);

    try {
        return static_cast<int>(opctext::runProgram(argc, argv));
    } catch (std::bad_alloc const&) {
        return static_cast<int>(opctext::reportOutOfMemory());
    }
}
