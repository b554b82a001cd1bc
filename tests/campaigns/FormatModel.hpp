#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace campaigns {

/// One part of a text, as the format has it.
struct ModelPart {
    std::string name; ///< in UTF-8
    bool isBase64 = false;
    std::size_t begin = 0;          ///< offset of the content in the text
    std::string content;            ///< up to the line break before the next marker line
    std::vector<std::string> lines; ///< the same, each without its line break
};

/// What a text holds, up to where it ends or breaks off.
struct ModelText {
    std::vector<std::string> headerLines; ///< with their CR
    std::vector<ModelPart> parts;         ///< each with its end, in the order of the text
    std::string error;                    ///< why the text breaks off behind them; empty where it doesn't
};

/// What a reader must give for one part: bytes, or an error.
struct ModelContent {
    std::size_t begin = 0; ///< offset of the content in the text
    std::string bytes;
    std::string error; ///< beginning of the message; empty where there must be none
};

/// What a reader must give for a whole text.
struct ModelPackage {
    std::string error; ///< beginning of the message that opening ends with; empty where it succeeds
    std::string header;
    std::map<std::string, ModelContent> parts; ///< by name
};

/// Splits a text by the grammar: line by line, with none of the library's code, and as slow as it comes.
ModelText parse(std::string_view text);

/// What TextFilePhysicalPackage must give.
ModelPackage expectedPackage(ModelText const& text, bool isEmptyFile);

/// What TextPackageLightweightReader must give, asked for these parts.
ModelPackage expectedLightReader(ModelText const& text, std::vector<std::string> const& requests);

/// Whether a part of this name can have a file of its own inside a folder.
bool isFileName(std::string const& name);

/// Whether the names can all have files in one folder: none of them is a folder of another, or its file.
bool fitIntoOneFolder(std::set<std::string> const& names);

} // namespace campaigns
