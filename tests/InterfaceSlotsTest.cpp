#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/FileSystemOps.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/IPhysicalPackage.hpp>
#include <opccore/IPhysicalPart.hpp>
#include <opccore/IPhysicalPartInfo.hpp>
#include <opccore/OpenMode.hpp>

// A host that was compiled against other headers calls these interfaces by slot. The tests look at the compiled tables
// in the same way: through the address point of an object's virtual table (Itanium C++ ABI), slots counted from 0.

namespace {

using namespace opc::interfaces;

bool const knowsTheTables =
#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
    true;
#else
    false;
#endif

class InterfaceSlots : public testing::Test {
protected:
    void SetUp() override {
        if (!knowsTheTables)
            GTEST_SKIP() << "the layout of virtual tables is only known here for x86-64";
    }
};

/// The slot that a call through this pointer to a virtual member function goes to.
template <class Function>
std::ptrdiff_t slotOf(Function function) {
    struct {
        std::ptrdiff_t onePlusOffset;
        std::ptrdiff_t adjustment;
    } parts{};
    static_assert(sizeof(parts) == sizeof(function));
    std::memcpy(&parts, &function, sizeof parts);
    EXPECT_EQ(parts.onePlusOffset % static_cast<std::ptrdiff_t>(sizeof(void*)), 1) << "not a virtual function";
    EXPECT_EQ(parts.adjustment, 0);
    return (parts.onePlusOffset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

/// Calls the function in a slot of the object's virtual table.
template <class Result, class Interface, class... Arguments>
Result callSlot(Interface& object, std::size_t slot, Arguments... arguments) {
    void* const* table = nullptr;
    std::memcpy(&table, static_cast<void const*>(&object), sizeof table);
    Result (*function)(Interface*, Arguments...) = nullptr;
    std::memcpy(&function, &table[slot], sizeof function);
    return function(&object, arguments...);
}

/// What was called last on an object below, and how many of the objects were destroyed.
struct Calls {
    std::string last;
    int destroyed = 0;
};

/// What each object below has in common; declared as the second base so that the interface's table comes first.
class Recorder {
public:
    explicit Recorder(Calls& calls) : calls_(calls) {}
    ~Recorder() { ++calls_.destroyed; }

protected:
    template <class Result = void>
    Result record(std::string call, Result result) const {
        calls_.last = std::move(call);
        return result;
    }
    void record(std::string call) const { calls_.last = std::move(call); }

private:
    Calls& calls_;
};

class PartInfo final : public IPhysicalPartInfo, Recorder {
public:
    using Recorder::Recorder;
    std::int32_t getCompression() const override { return record("getCompression", -32); }
    std::int64_t getSize() const override { return record("getSize", std::int64_t{1} << 40); }
    std::int64_t getTimestamp() const override { return record("getTimestamp", std::int64_t{1} << 41); }
};

class InputStream final : public IPhysicalInputStream, Recorder {
public:
    using Recorder::Recorder;
    void open() override { record("open"); }
    std::int64_t read(char* buffer, std::int64_t count) override {
        *buffer = 'r';
        return record("read", count);
    }
    bool atEnd() override { return record("atEnd", true); }
    void close() override { record("close"); }
};

class OutputStream final : public IPhysicalOutputStream, Recorder {
public:
    using Recorder::Recorder;
    std::int64_t write(const char* buffer, std::int64_t count) override {
        return record(std::string("write ") + *buffer, count);
    }
    bool hasFailed() override { return record("hasFailed", true); }
    void flush() override { record("flush"); }
    void close() override { record("close"); }
};

class Part final : public IPhysicalPart, Recorder {
public:
    explicit Part(Calls& calls) : Recorder(calls), input(calls), output(calls) {}
    std::u16string getName() const override { return record("getName", std::u16string(u"/a/rather/long/name.xml")); }
    std::u16string getContentType() const override { return record("getContentType", std::u16string(u"text/xml")); }
    IPhysicalInputStream* getInputStream() override { return record("getInputStream", &input); }
    IPhysicalOutputStream* getOutputStream() override { return record("getOutputStream", &output); }

    InputStream input;
    OutputStream output;
};

class Package final : public IPhysicalPackage, Recorder {
public:
    explicit Package(Calls& calls) : Recorder(calls), part(calls) {}
    bool hasContentTypeStream() const override { return record("hasContentTypeStream", true); }
    IPhysicalInputStream* getContentTypeInputStream() override {
        return record("getContentTypeInputStream", &part.input);
    }
    IPhysicalOutputStream* getContentTypeOutputStream() override {
        return record("getContentTypeOutputStream", &part.output);
    }
    std::vector<IPhysicalPart*> getParts() override {
        return record("getParts", std::vector<IPhysicalPart*>{&part, nullptr});
    }
    void open(OpenMode const& mode) override { record("open " + std::to_string(static_cast<int>(mode))); }
    void close(bool discardChanges) override { record(discardChanges ? "close true" : "close false"); }
    IPhysicalPart* createPart(std::u16string const& name, std::u16string const& contentType,
                              IPhysicalPartInfo const& info) override {
        return record("createPart " + std::to_string(name.size()) + " " + std::to_string(contentType.size()) + " " +
                          std::to_string(info.getCompression()),
                      &part);
    }
    void deletePart(std::u16string const& name) override { record("deletePart " + std::to_string(name.size())); }

    Part part;
};

constexpr int PartsOfAPackage = 4; // itself, its part and the part's two streams
constexpr int PartsOfAPart = 3;

/// Calls the complete object destructor and the deleting one by their slots.
template <class Object, class Interface>
void expectDestructorsInSlots(std::size_t complete, std::size_t deleting, int destructions) {
    Calls calls;
    alignas(Object) std::array<std::byte, sizeof(Object)> storage;
    Interface& inPlace = *new (storage.data()) Object(calls);
    Interface& onHeap = *new Object(calls);

    callSlot<void>(inPlace, complete);
    EXPECT_EQ(calls.destroyed, destructions);

    callSlot<void>(onHeap, deleting); // a leak or a wrong deletion is for the AddressSanitizer to see
    EXPECT_EQ(calls.destroyed, 2 * destructions);
}

TEST_F(InterfaceSlots, OfThePackageHoldTheDestructorsFirstAndThenEachOperation) {
    EXPECT_EQ(slotOf(&IPhysicalPackage::hasContentTypeStream), 2);
    EXPECT_EQ(slotOf(&IPhysicalPackage::getContentTypeInputStream), 3);
    EXPECT_EQ(slotOf(&IPhysicalPackage::getContentTypeOutputStream), 4);
    EXPECT_EQ(slotOf(&IPhysicalPackage::getParts), 5);
    EXPECT_EQ(slotOf(&IPhysicalPackage::open), 6);
    EXPECT_EQ(slotOf(&IPhysicalPackage::close), 7);
    EXPECT_EQ(slotOf(&IPhysicalPackage::createPart), 8);
    EXPECT_EQ(slotOf(&IPhysicalPackage::deletePart), 9);
    expectDestructorsInSlots<Package, IPhysicalPackage>(0, 1, PartsOfAPackage);
}

TEST_F(InterfaceSlots, OfThePackageLeadToItsOperations) {
    Calls calls;
    Package package(calls);
    IPhysicalPackage& object = package;
    std::u16string const name = u"/name";
    std::u16string const contentType = u"type";
    PartInfo const info(calls);
    auto const mode = OpenMode::ReadWrite;

    EXPECT_TRUE(callSlot<bool>(object, 2));
    EXPECT_EQ(calls.last, "hasContentTypeStream");
    EXPECT_EQ(callSlot<IPhysicalInputStream*>(object, 3), &package.part.input);
    EXPECT_EQ(calls.last, "getContentTypeInputStream");
    EXPECT_EQ(callSlot<IPhysicalOutputStream*>(object, 4), &package.part.output);
    EXPECT_EQ(calls.last, "getContentTypeOutputStream");
    callSlot<void>(object, 6, &mode); // a reference travels as a pointer
    EXPECT_EQ(calls.last, "open 2");
    callSlot<void>(object, 7, true);
    EXPECT_EQ(calls.last, "close true");
    callSlot<void>(object, 7, false);
    EXPECT_EQ(calls.last, "close false");
    EXPECT_EQ(callSlot<IPhysicalPart*>(object, 8, &name, &contentType, static_cast<IPhysicalPartInfo const*>(&info)),
              &package.part);
    EXPECT_EQ(calls.last, "createPart 5 4 -32");
    callSlot<void>(object, 9, &name);
    EXPECT_EQ(calls.last, "deletePart 5");
}

/// Calls a slot whose function returns an object of a class, for which the caller gives the room as a hidden first
/// argument.
template <class Result, class Interface>
Result callSlotForAnObject(Interface& object, std::size_t slot) {
    alignas(Result) std::array<std::byte, sizeof(Result)> room;
    void* const* table = nullptr;
    std::memcpy(&table, static_cast<void const*>(&object), sizeof table);
    Result* (*function)(void*, Interface*) = nullptr;
    std::memcpy(&function, &table[slot], sizeof function);
    Result* const returned = function(room.data(), &object);
    EXPECT_EQ(static_cast<void*>(returned), room.data());
    Result result = std::move(*returned);
    returned->~Result();
    return result;
}

TEST_F(InterfaceSlots, OfThePackageReturnTheListOfPartsByValue) {
    Calls calls;
    Package package(calls);
    IPhysicalPackage& object = package;

    EXPECT_THAT(callSlotForAnObject<std::vector<IPhysicalPart*>>(object, 5),
                testing::ElementsAre(&package.part, nullptr));

    EXPECT_EQ(calls.last, "getParts");
}

TEST_F(InterfaceSlots, OfThePartHoldTheDestructorsLast) {
    EXPECT_EQ(slotOf(&IPhysicalPart::getName), 0);
    EXPECT_EQ(slotOf(&IPhysicalPart::getContentType), 1);
    EXPECT_EQ(slotOf(&IPhysicalPart::getInputStream), 2);
    EXPECT_EQ(slotOf(&IPhysicalPart::getOutputStream), 3);
    expectDestructorsInSlots<Part, IPhysicalPart>(4, 5, PartsOfAPart);
}

TEST_F(InterfaceSlots, OfThePartLeadToItsOperations) {
    Calls calls;
    Part part(calls);
    IPhysicalPart& object = part;

    EXPECT_EQ(callSlotForAnObject<std::u16string>(object, 0), u"/a/rather/long/name.xml");
    EXPECT_EQ(calls.last, "getName");
    EXPECT_EQ(callSlotForAnObject<std::u16string>(object, 1), u"text/xml");
    EXPECT_EQ(calls.last, "getContentType");
    EXPECT_EQ(callSlot<IPhysicalInputStream*>(object, 2), &part.input);
    EXPECT_EQ(calls.last, "getInputStream");
    EXPECT_EQ(callSlot<IPhysicalOutputStream*>(object, 3), &part.output);
    EXPECT_EQ(calls.last, "getOutputStream");
}

TEST_F(InterfaceSlots, OfTheInputStreamHoldTheDestructorsLast) {
    EXPECT_EQ(slotOf(&IPhysicalInputStream::open), 0);
    EXPECT_EQ(slotOf(&IPhysicalInputStream::read), 1);
    EXPECT_EQ(slotOf(&IPhysicalInputStream::atEnd), 2);
    EXPECT_EQ(slotOf(&IPhysicalInputStream::close), 3);
    expectDestructorsInSlots<InputStream, IPhysicalInputStream>(4, 5, 1);
}

TEST_F(InterfaceSlots, OfTheInputStreamLeadToItsOperations) {
    Calls calls;
    InputStream stream(calls);
    IPhysicalInputStream& object = stream;
    char byte = '\0';

    callSlot<void>(object, 0);
    EXPECT_EQ(calls.last, "open");
    EXPECT_EQ((callSlot<std::int64_t>(object, 1, &byte, std::int64_t{1} << 40)), std::int64_t{1} << 40);
    EXPECT_EQ(calls.last, "read");
    EXPECT_EQ(byte, 'r');
    EXPECT_TRUE(callSlot<bool>(object, 2));
    EXPECT_EQ(calls.last, "atEnd");
    callSlot<void>(object, 3);
    EXPECT_EQ(calls.last, "close");
}

TEST_F(InterfaceSlots, OfTheOutputStreamHoldTheDestructorsLast) {
    EXPECT_EQ(slotOf(&IPhysicalOutputStream::write), 0);
    EXPECT_EQ(slotOf(&IPhysicalOutputStream::hasFailed), 1);
    EXPECT_EQ(slotOf(&IPhysicalOutputStream::flush), 2);
    EXPECT_EQ(slotOf(&IPhysicalOutputStream::close), 3);
    expectDestructorsInSlots<OutputStream, IPhysicalOutputStream>(4, 5, 1);
}

TEST_F(InterfaceSlots, OfTheOutputStreamLeadToItsOperations) {
    Calls calls;
    OutputStream stream(calls);
    IPhysicalOutputStream& object = stream;
    char const byte = 'w';

    EXPECT_EQ((callSlot<std::int64_t>(object, 0, &byte, std::int64_t{-1})), -1);
    EXPECT_EQ(calls.last, "write w");
    EXPECT_TRUE(callSlot<bool>(object, 1));
    EXPECT_EQ(calls.last, "hasFailed");
    callSlot<void>(object, 2);
    EXPECT_EQ(calls.last, "flush");
    callSlot<void>(object, 3);
    EXPECT_EQ(calls.last, "close");
}

TEST_F(InterfaceSlots, OfThePartInfoHoldTheDestructorsLast) {
    EXPECT_EQ(slotOf(&IPhysicalPartInfo::getCompression), 0);
    EXPECT_EQ(slotOf(&IPhysicalPartInfo::getSize), 1);
    EXPECT_EQ(slotOf(&IPhysicalPartInfo::getTimestamp), 2);
    expectDestructorsInSlots<PartInfo, IPhysicalPartInfo>(3, 4, 1);
}

TEST_F(InterfaceSlots, OfThePartInfoLeadToItsQueries) {
    Calls calls;
    PartInfo info(calls);
    IPhysicalPartInfo& object = info;

    EXPECT_EQ(callSlot<std::int32_t>(object, 0), -32);
    EXPECT_EQ(calls.last, "getCompression");
    EXPECT_EQ(callSlot<std::int64_t>(object, 1), std::int64_t{1} << 40);
    EXPECT_EQ(calls.last, "getSize");
    EXPECT_EQ(callSlot<std::int64_t>(object, 2), std::int64_t{1} << 41);
    EXPECT_EQ(calls.last, "getTimestamp");
}

TEST_F(InterfaceSlots, StandInTheOnlyTableAtTheStartOfTheObject) {
    EXPECT_EQ(sizeof(IPhysicalPackage), sizeof(void*));
    EXPECT_EQ(sizeof(IPhysicalPart), sizeof(void*));
    EXPECT_EQ(sizeof(IPhysicalInputStream), sizeof(void*));
    EXPECT_EQ(sizeof(IPhysicalOutputStream), sizeof(void*));
    EXPECT_EQ(sizeof(IPhysicalPartInfo), sizeof(void*));
}

TEST(Interfaces, AreAbstract) {
    EXPECT_TRUE(std::is_abstract_v<IPhysicalPackage>);
    EXPECT_TRUE(std::is_abstract_v<IPhysicalPart>);
    EXPECT_TRUE(std::is_abstract_v<IPhysicalInputStream>);
    EXPECT_TRUE(std::is_abstract_v<IPhysicalOutputStream>);
    EXPECT_TRUE(std::is_abstract_v<IPhysicalPartInfo>);
}

TEST(OpenModeValues, AreThoseOfTheContractIn32Bits) {
    EXPECT_EQ(sizeof(OpenMode), 4U);
    EXPECT_EQ(static_cast<std::uint32_t>(OpenMode::Read), 0U);
    EXPECT_EQ(static_cast<std::uint32_t>(OpenMode::Create), 1U);
    EXPECT_EQ(static_cast<std::uint32_t>(OpenMode::ReadWrite), 2U);
}

TEST(ExistsModeValues, AreThoseOfTheContractIn32Bits) {
    EXPECT_EQ(sizeof(opc::ExistsMode), 4U);
    EXPECT_EQ(static_cast<std::uint32_t>(opc::ExistsMode::Fail), 0U);
    EXPECT_EQ(static_cast<std::uint32_t>(opc::ExistsMode::Overwrite), 1U);
}

TEST(PermsValues, ArePosixPermissionBits) {
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<opc::Perms::Perms_tag>, unsigned>));
    EXPECT_EQ(opc::Perms::None, 0U);
    EXPECT_EQ(opc::Perms::OwnerRead, 0400U);
    EXPECT_EQ(opc::Perms::OwnerWrite, 0200U);
    EXPECT_EQ(opc::Perms::OwnerExecute, 0100U);
    EXPECT_EQ(opc::Perms::OwnerReadWrite, 0600U);
    EXPECT_EQ(opc::Perms::OwnerAll, 0700U);
    EXPECT_EQ(opc::Perms::GroupRead, 0040U);
    EXPECT_EQ(opc::Perms::OthersRead, 0004U);
}

TEST(StreamModeValues, AreThoseOfTheContract) {
    EXPECT_EQ(opc::StreamMode::App, 1U);
    EXPECT_EQ(opc::StreamMode::Ate, 2U);
    EXPECT_EQ(opc::StreamMode::Binary, 4U);
    EXPECT_EQ(opc::StreamMode::In, 8U);
    EXPECT_EQ(opc::StreamMode::Out, 16U);
    EXPECT_EQ(opc::StreamMode::Trunc, 32U);
}

} // namespace
