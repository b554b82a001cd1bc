#include <opctext/ConversionRun.hpp>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/TempfileGuard.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/ProgressBar.hpp>
#include <opctext/StandardStreams.hpp>

namespace opctext {

namespace {

namespace fs = std::filesystem;

constexpr char const* StandardStream = "-";

/// A temporary file and its path in the system's form.
class TemporaryFile {
public:
    explicit TemporaryFile(std::u16string const& folder) : guard_(folder, u".opctext-", u".tmp") {}

    std::u16string corePath() const { return guard_.getFileName(); }
    std::string path() const { return opc::detail::makeNativePath(guard_.getFileName()); }

private:
    opc::util::TempfileGuard guard_;
};

void copyStandardInputTo(std::string const& path) {
    std::ofstream file(path, std::ios::binary);
    readInput([&](std::string_view block) { file.write(block.data(), static_cast<std::streamsize>(block.size())); });
    file.close();
    if (!file)
        throw Failure(ExitStatus::InputOutput, "standard input could not be kept in a temporary file");
}

void copyToStandardOutput(std::u16string const& path) {
    auto const stream =
        opc::LocalFileSystemOps().createInputStream(path, opc::StreamMode::In | opc::StreamMode::Binary);
    std::string block(262144, '\0');
    while (stream->read(block.data(), static_cast<std::streamsize>(block.size())), stream->gcount() > 0)
        writeOutput({block.data(), static_cast<std::size_t>(stream->gcount())});
}

/// One run over all inputs.
class ConversionRun {
public:
    ConversionRun(std::vector<std::string> const& inputs, ConversionOptions const& options, Direction const& direction)
        : options_(options),
          direction_(direction) {
        for (auto const& input : inputs)
            addInput(input);
        isSingle_ = files_.size() == 1 && inputs.size() == 1 && files_.front() == inputs.front();
        if (!isSingle_ && !options_.output.empty())
            throw Failure(ExitStatus::WrongUsage, "-o names the output of one file, not of several");
    }

    ExitStatus run() {
        ProgressBar progress(direction_.task, files_.size());
        auto const work = [&] {
            for (auto next = nextFile_++; next < files_.size(); next = nextFile_++) {
                attempt(files_[next], progress);
                std::lock_guard const lock(mutex_);
                progress.step();
            }
        };
        auto const jobs = std::min<std::size_t>(std::max(options_.jobs, 1U), files_.size());
        std::vector<std::thread> others;
        others.reserve(jobs);
        try {
            while (others.size() + 1 < jobs)
                others.emplace_back(work);
        } catch (std::exception const&) {
            // No more to be had: fewer do it as well.
        }
        work();
        for (auto& thread : others)
            thread.join();
        progress.hide();
        if (!isSingle_)
            tell(fmt::format("{} {} of {} files", direction_.result, files_.size() - failures_, files_.size()));
        return worst_;
    }

private:
    void addInput(std::string const& input) {
        std::error_code ignored;
        if (input == StandardStream || !fs::is_directory(input, ignored)) {
            files_.push_back(input);
            return;
        }
        if (!options_.recurse)
            throw Failure(ExitStatus::WrongUsage, input + ": this is a folder; -r converts what is in it");
        std::vector<std::string> found;
        for (auto const& entry : fs::recursive_directory_iterator(input)) {
            if (entry.is_regular_file() && !entry.is_symlink() && mayBeInput(entry.path().string()))
                found.push_back(entry.path().string());
        }
        std::sort(found.begin(), found.end());
        files_.insert(files_.end(), found.begin(), found.end());
    }

    /// A file that can't be read counts as one to convert: that fails then, and says why.
    bool mayBeInput(std::string const& path) const {
        try {
            return direction_.isInput(path);
        } catch (std::exception const&) {
            return true;
        }
    }

    /// Never throws: it runs in several threads.
    void attempt(std::string const& input, ProgressBar& progress) {
        try {
            convertAndReport(input, progress);
        } catch (std::bad_alloc const&) {
            std::lock_guard const lock(mutex_);
            std::fputs("opctext: out of memory\n", stderr);
            ++failures_;
            worst_ = std::max(worst_, ExitStatus::InputOutput);
        }
    }

    void convertAndReport(std::string const& input, ProgressBar& progress) {
        try {
            convert(input);
        } catch (ClosedPipe const& nobody) {
            worst_ = nobody.status(); // there is one output at most, and so one thread
        } catch (Failure const& failure) {
            note(failure.what(), failure.status(), progress);
        } catch (std::bad_alloc const&) {
            throw;
        } catch (std::exception const& failure) {
            note(input + ": " + failure.what(), ExitStatus::InputOutput, progress);
        }
    }

    void note(std::string const& message, ExitStatus status, ProgressBar& progress) {
        {
            std::lock_guard const lock(mutex_);
            progress.hide();
            ++failures_;
            worst_ = std::max(worst_, status);
        }
        tell(message);
    }

    void convert(std::string const& input) {
        bool const fromStandardInput = input == StandardStream;
        auto output = options_.output;
        if (output.empty())
            output = fromStandardInput ? StandardStream : direction_.outputFor(input);
        if (output.empty())
            throw Failure(ExitStatus::WrongUsage, input + ": its name does not end in .txt; -o names the output");

        std::optional<TemporaryFile> spooled;
        if (fromStandardInput)
            copyStandardInputTo(spooled.emplace(u"").path());
        auto const path = fromStandardInput ? spooled->path() : input;
        if (output == StandardStream) {
            TemporaryFile const result(u"");
            direction_.convert(path, input, result.path());
            return copyToStandardOutput(result.corePath());
        }

        opc::LocalFileSystemOps fileSystem;
        auto const target = PackageFile(output).corePath();
        requireFree(target, output);
        TemporaryFile const result(fileSystem.getParentPath(target));
        direction_.convert(path, input, result.path());
        opc::CommitOptions options;
        options.beforeReplace = [&](std::u16string const& /*target*/) { requireFree(target, output); };
        fileSystem.replaceFileWithBackup(target, fileSystem, result.corePath(), options);
    }

    void requireFree(std::u16string const& target, std::string const& output) const {
        if (!options_.force && opc::LocalFileSystemOps().exists(target))
            throw Failure(ExitStatus::InputOutput, output + ": exists already; -f overwrites it");
    }

    ConversionOptions const& options_;
    Direction const& direction_;
    std::vector<std::string> files_;
    bool isSingle_ = false; // and then there is no summary
    std::atomic<std::size_t> nextFile_{0};
    std::mutex mutex_; // for the progress bar and the two below
    std::size_t failures_ = 0;
    ExitStatus worst_ = ExitStatus::Fine;
};

} // namespace

ExitStatus runConversion(std::vector<std::string> const& inputs, ConversionOptions const& options,
                         Direction const& direction) {
    return ConversionRun(inputs, options, direction).run();
}

} // namespace opctext
