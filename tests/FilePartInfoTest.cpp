#include <textpackage/FilePartInfo.hpp>

#include <gmock/gmock.h>

namespace {

TEST(FilePartInfoTest, SaysNothingAboutAPart) {
    opc::textpackage::FilePartInfo const info;
    opc::interfaces::IPhysicalPartInfo const& whatAPackageSees = info;

    EXPECT_EQ(whatAPackageSees.getCompression(), 0);
    EXPECT_EQ(whatAPackageSees.getSize(), 0);
    EXPECT_EQ(whatAPackageSees.getTimestamp(), 0);
}

} // namespace
