#include <opctext/commands.hpp>

#include <algorithm>

#include <nlohmann/json.hpp>

#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageCheck.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/StandardStreams.hpp>

namespace opctext {

namespace {

nlohmann::ordered_json asJson(std::string const& path, Finding const& finding) {
    return {{"file", path},
            {"line", finding.line},
            {"severity", finding.severity == Severity::Error ? "error" : "warning"},
            {"message", finding.message}};
}

} // namespace

ExitStatus checkFiles(std::vector<std::string> const& paths, bool strict, bool json) {
    auto status = ExitStatus::Fine;
    auto array = nlohmann::ordered_json::array();
    for (auto const& path : paths) {
        try {
            for (auto const& finding : checkPackage(PackageFile(path))) {
                if (json)
                    array.push_back(asJson(path, finding));
                else
                    writeOutput(finding.asText(path) + '\n');
                if (strict || finding.severity == Severity::Error)
                    status = std::max(status, ExitStatus::CheckFoundSomething);
            }
        } catch (ClosedPipe const&) {
            throw;
        } catch (Failure const& failure) { // of one file: the others are still to be checked
            tell(failure.what());
            status = std::max(status, failure.status());
        }
    }
    if (json)
        writeOutput(array.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n');
    return status;
}

} // namespace opctext
