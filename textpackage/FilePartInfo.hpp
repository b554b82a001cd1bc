#pragma once

#include <opccore/IPhysicalPartInfo.hpp>
#include <textpackage/Export.hpp>

namespace opc::textpackage {

/// Says nothing about a part: what the package passes for the parts that it creates by itself.
class TEXTPACKAGE_EXPORT FilePartInfo : public interfaces::IPhysicalPartInfo {
public:
    std::int32_t getCompression() const override { return 0; }
    std::int64_t getSize() const override { return 0; }
    std::int64_t getTimestamp() const override { return 0; }
};

} // namespace opc::textpackage
