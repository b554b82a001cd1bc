#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalPart.hpp>

namespace fuzz {

/// What a part gave to its reader.
struct ReadResult {
    std::optional<std::string> content; ///< none where it was refused
    std::string fault;                  ///< why
};

/// Reads a part from its first byte, in blocks of an odd size.
inline ReadResult readPart(opc::interfaces::IPhysicalPart& part) {
    try {
        auto& stream = *part.getInputStream();
        stream.close();
        stream.open();
        std::string content;
        std::string block(4093, '\0');
        while (auto const count = stream.read(block.data(), static_cast<std::int64_t>(block.size()))) {
            require(count > 0 && count <= static_cast<std::int64_t>(block.size()), "a read gives what was asked for");
            content.append(block.data(), static_cast<std::size_t>(count));
        }
        require(stream.atEnd() && stream.read(block.data(), 1) == 0, "a stream that was read ends");
        return {content, ""};
    } catch (opc::Exception const& failure) {
        return {std::nullopt, failure.what()};
    } catch (foundation::crypto::utils::Exception const& failure) {
        return {std::nullopt, failure.what()};
    }
}

/// Runs an action that reads a package text and returns what its failure says, as `PlainPackage::fault` has it.
template <class Action>
std::string faultOfReading(Action const& action) {
    try {
        auto const fault = failureOf<opc::Exception>(action);
        return fault.rfind(IllFormed, 0) == 0 ? IllFormed : fault;
    } catch (std::out_of_range const&) {
        return Nameless;
    }
}

} // namespace fuzz
