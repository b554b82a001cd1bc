#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TracedProgram.hpp>

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using testsupport::base64Lines;
using testsupport::fails;
using testsupport::limitingOpenFiles;
using testsupport::mixedBytes;
using testsupport::PartText;
using testsupport::ProgramCall;
using testsupport::succeeds;
using testsupport::treeOf;

namespace {

using Tree = std::map<std::string, std::string>;

class OpctextExtract : public testsupport::OpctextFixture {
protected:
    /// Everything below the folder that the parts are extracted to.
    Tree extracted() const { return treeOf(folder / "out"); }
};

TEST_F(OpctextExtract, WritesAllPartsAsFiles) {
    writePackage({{"/empty", ""},
                  {"/empty.bin", "", true},
                  {"/word/document.xml", "one\r\ntwo\n"},
                  {"/word/media/größe.png", base64Lines(mixedBytes(300000)), true}});

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}), succeeds());

    EXPECT_EQ(extracted(), (Tree{{"[Content_Types].xml", "<Types/>"},
                                 {"_rels", "(folder)"},
                                 {"_rels/.rels", "<Relationships/>"},
                                 {"a.xml", "<a/>"},
                                 {"empty", ""},
                                 {"empty.bin", ""},
                                 {"word", "(folder)"},
                                 {"word/document.xml", "one\r\ntwo\n"},
                                 {"word/media", "(folder)"},
                                 {"word/media/größe.png", mixedBytes(300000)}}));
}

TEST_F(OpctextExtract, TakesMoreBinaryPartsThanAProcessMayHaveFilesOpen) {
    std::vector<PartText> parts;
    for (int i = 0; i < 100; ++i)
        parts.push_back({"/" + std::to_string(i) + ".bin", base64Lines("bytes\xFF"), true});
    writePackage(parts);
    ProgramCall call;
    call.words = {"extract", "p.txt", "-C", "out"};
    call.inChild = limitingOpenFiles(50);

    EXPECT_THAT(run(call), succeeds());
    EXPECT_EQ(extracted().at("99.bin"), "bytes\xFF");
}

TEST_F(OpctextExtract, WritesOnlyThePartsThatAreNamedSpeltAsThePackageHasThem) {
    writePackage({{"/Word/Document.xml", "text"}, {"/b.bin", "AAE=", true}});

    EXPECT_THAT(run({"extract", "p.txt", "/WORD/document.XML", "/b.bin", "-C", "out"}), succeeds());

    EXPECT_EQ(extracted(),
              (Tree{{"Word", "(folder)"}, {"Word/Document.xml", "text"}, {"b.bin", std::string("\0\1", 2)}}));
}

TEST_F(OpctextExtract, WritesBelowTheWorkingFolderUnlessAnotherIsNamed) {
    writePackage();

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml"}), succeeds());

    EXPECT_THAT(folder.entries(), ElementsAre("a.xml", "p.txt"));
}

TEST_F(OpctextExtract, KeepsWhatElseIsInTheFolder) {
    writePackage();
    folder.write("out/other", "other");

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out"}), succeeds());

    EXPECT_EQ(extracted(), (Tree{{"a.xml", "<a/>"}, {"other", "other"}}));
}

TEST_F(OpctextExtract, WritesNothingWhereAPartThatIsNamedIsMissing) {
    writePackage();

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "/gone/away.bin", "-C", "out"}),
                fails(4, "opctext: p.txt: there is no part /gone/away.bin\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
}

TEST_F(OpctextExtract, RefusesPartsWhoseNamesLeadOutOfTheFolderAndWritesTheOthers) {
    writePackage({{"/../above", "x"}, {"/b/../../above", "x"}, {"/b/./c", "x"}, {"/b//c", "x"}, {"/b/", "x"}});

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}),
                fails(4, "opctext: p.txt: Not a usable part name: \"/../above\": it has a dot segment\n"
                         "opctext: p.txt: Not a usable part name: \"/b/\": it has an empty segment\n"
                         "opctext: p.txt: Not a usable part name: \"/b/../../above\": it has a dot segment\n"
                         "opctext: p.txt: Not a usable part name: \"/b/./c\": it has a dot segment\n"
                         "opctext: p.txt: Not a usable part name: \"/b//c\": it has an empty segment\n"
                         "opctext: p.txt: 5 of 8 parts were not extracted\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("out", "p.txt"));
    EXPECT_THAT(treeOf(folder / "out"), ::testing::SizeIs(4)); // three parts, one folder
}

TEST_F(OpctextExtract, OverwritesNoFileAndWritesTheOthers) {
    writePackage();
    folder.write("out/a.xml", "older");

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}),
                fails(4, "opctext: out/a.xml: exists already; -f overwrites it\n"
                         "opctext: p.txt: 1 of 3 parts were not extracted\n"));

    EXPECT_EQ(folder.read("out/a.xml"), "older");
    EXPECT_EQ(folder.read("out/_rels/.rels"), "<Relationships/>");
}

TEST_F(OpctextExtract, OverwritesFilesWhereAskedTo) {
    writePackage();
    for (std::string const flag : {"-f", "--force"}) {
        SCOPED_TRACE(flag);
        folder.write("out/a.xml", "older and longer");

        EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out", flag}), succeeds());

        EXPECT_EQ(extracted(), (Tree{{"a.xml", "<a/>"}}));
    }
}

TEST_F(OpctextExtract, OverwritesNoFolder) {
    writePackage();
    folder.write("out/a.xml/inside", "x");

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out"}),
                fails(4, "opctext: out/a.xml: exists already; -f overwrites it\n"
                         "opctext: p.txt: 1 of 1 parts were not extracted\n"));
    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out", "-f"}),
                fails(4, "opctext: out/a.xml: Is a directory\n"
                         "opctext: p.txt: 1 of 1 parts were not extracted\n"));

    EXPECT_EQ(extracted(), (Tree{{"a.xml", "(folder)"}, {"a.xml/inside", "x"}}));
}

TEST_F(OpctextExtract, WritesThroughNoLinkToAFolder) {
    writePackage({{"/dir/file", "text"}, {"/dir/sub/file", "text"}});
    folder.write("elsewhere/sub/kept", "kept");
    folder.write("out/other", "other");
    fs::create_directory_symlink("../elsewhere", folder / "out" / "dir");

    for (std::string const flag : {"-C", "-fC"}) {
        SCOPED_TRACE(flag);
        EXPECT_THAT(run({"extract", "p.txt", "/dir/file", "/dir/sub/file", "/a.xml", flag, "out"}).status, 4);

        EXPECT_EQ(treeOf(folder / "elsewhere"), (Tree{{"sub", "(folder)"}, {"sub/kept", "kept"}}));
    }
    EXPECT_EQ(extracted(), (Tree{{"a.xml", "<a/>"}, {"dir", "-> ../elsewhere"}, {"other", "other"}}));
}

TEST_F(OpctextExtract, SaysThatALinkIsInTheWayOfAFolder) {
    writePackage({{"/dir/file", "text"}});
    folder.write("out/other", "other");
    fs::create_directory_symlink("../elsewhere", folder / "out" / "dir");

    EXPECT_THAT(run({"extract", "p.txt", "/dir/file", "-C", "out"}),
                fails(4, "opctext: out/dir/file: a link or a file is in the way of its folder\n"
                         "opctext: p.txt: 1 of 1 parts were not extracted\n"));
}

TEST_F(OpctextExtract, LeavesTheTargetOfALinkToAFileAlone) {
    writePackage();
    folder.write("out/other", "other");
    folder.write("victim", "untouched");
    for (std::string const target : {"../victim", "../not there"}) {
        SCOPED_TRACE(target);
        fs::create_symlink(target, folder / "out" / "a.xml");

        EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out"}),
                    fails(4, "opctext: out/a.xml: exists already; -f overwrites it\n"
                             "opctext: p.txt: 1 of 1 parts were not extracted\n"));
        EXPECT_EQ(extracted(), (Tree{{"a.xml", "-> " + target}, {"other", "other"}}));
        EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out", "-f"}), succeeds());
        EXPECT_EQ(extracted(), (Tree{{"a.xml", "<a/>"}, {"other", "other"}}));

        EXPECT_EQ(folder.read("victim"), "untouched");
        EXPECT_THAT(folder.entries(), ElementsAre("out", "p.txt", "victim"));
        fs::remove(folder / "out" / "a.xml");
    }
}

TEST_F(OpctextExtract, FollowsALinkThatIsTheFolderItself) {
    writePackage();
    fs::create_directory(folder / "real");
    fs::create_directory_symlink("real", folder / "out");

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out"}), succeeds());

    EXPECT_EQ(treeOf(folder / "real"), (Tree{{"a.xml", "<a/>"}}));
}

TEST_F(OpctextExtract, WritesTheFirstOfPartsThatNoFileSystemCanHoldBesideEachOther) {
    writePackage({{"/c", "file"}, {"/c/d", "inside"}});

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}),
                fails(4, "opctext: out/c/d: a link or a file is in the way of its folder\n"
                         "opctext: p.txt: 1 of 5 parts were not extracted\n"));

    EXPECT_EQ(folder.read("out/c"), "file");
    EXPECT_THAT(run({"extract", "p.txt", "-f", "-C", "out"}).status, 4);
    EXPECT_EQ(folder.read("out/c"), "file");
}

TEST_F(OpctextExtract, ShortensNamesThatAreTooLongForAFileSystemAndKeepsThemApart) {
    std::string const longName(300, 'n');
    writePackage({{"/" + longName + "1", "first"},
                  {"/" + longName + "2", "second"},
                  {"/folder/" + longName + "/file", "third"},
                  {"/ok" + longName.substr(0, 253), "fits"}});

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}), succeeds());

    std::vector<std::string> contents;
    for (auto const& [name, content] : extracted())
        contents.push_back(content);
    EXPECT_THAT(contents, ::testing::IsSupersetOf({"first", "second", "third"}));
    EXPECT_EQ(folder.read("out/ok" + longName.substr(0, 253)), "fits");
}

TEST_F(OpctextExtract, WritesTheCompletePartsOfAFileThatIsCutOff) {
    writePackage({{"/whole", "whole"}, {"/cut", "cu"}});
    auto const text = package();
    folder.write("p.txt", text.substr(0, text.size() - std::string("\n__ZKOPC_PACKAGE_END__\n").size()));

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}),
                fails(3, "opctext: p.txt: the package-end line is missing: the file is cut off in part /cut, which "
                         "counts as missing\n"));

    EXPECT_EQ(folder.read("out/whole"), "whole");
    EXPECT_FALSE(fs::exists(folder / "out" / "cut"));
}

TEST_F(OpctextExtract, NamesThePartThatDoesNotDecodeAndWritesTheOthers) {
    writePackage({{"/b.bin", "AA!A", true}, {"/c", "text"}});

    auto const result = run({"extract", "p.txt", "-C", "out"});

    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(extracted(), (Tree{{"[Content_Types].xml", "<Types/>"},
                                 {"_rels", "(folder)"},
                                 {"_rels/.rels", "<Relationships/>"},
                                 {"a.xml", "<a/>"},
                                 {"c", "text"}}));
    EXPECT_THAT(result.errors, ::testing::EndsWith("\nopctext: p.txt: 1 of 5 parts were not extracted\n"));
    EXPECT_THAT(result.errors, ::testing::HasSubstr("/b.bin"));
}

TEST_F(OpctextExtract, NamesAFolderThatCanNotBeOne) {
    writePackage();

    EXPECT_THAT(run({"extract", "p.txt", "-C", "p.txt"}), fails(4, "opctext: p.txt: Not a directory\n"));
    EXPECT_THAT(run({"extract", "p.txt", "-C", "not/there"}),
                fails(4, "opctext: not/there: No such file or directory\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
}

TEST_F(OpctextExtract, NamesAFolderThatItMayNotWriteTo) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may write everywhere";
    writePackage();
    fs::create_directory(folder / "out");
    fs::permissions(folder / "out", fs::perms::owner_read | fs::perms::owner_exec);

    EXPECT_THAT(run({"extract", "p.txt", "/a.xml", "-C", "out"}),
                fails(4, "opctext: out/a.xml: Permission denied\n"
                         "opctext: p.txt: 1 of 1 parts were not extracted\n"));
}

TEST_F(OpctextExtract, LeavesNoPieceOfAFileThatCouldNotBeWrittenAndKeepsTheOldOne) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    writePackage();
    folder.write("out/a.xml", "older");

    // The last of the renames is the one that would put the new file in place.
    auto const end = testsupport::runTraced(
        {OPCTEXT_PROGRAM, "extract", (folder / "p.txt").string(), "/a.xml", "-f", "-C", (folder / "out").string()},
        "renameat", {"renameat:error=ENOSPC"});

    EXPECT_EQ(end.exitCode, 4);
    EXPECT_THAT(end.output, ::testing::HasSubstr("/out/a.xml: No space left on device\n"));
    EXPECT_EQ(extracted(), (Tree{{"a.xml", "older"}}));
}

TEST_F(OpctextExtract, LeavesThePlaceOfAnotherFileOnlyToOneThatIsOnTheDisk) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    writePackage();
    folder.write("out/a.xml", "older");
    auto const extract = [this](std::vector<std::string> const& injections) {
        return testsupport::runTraced(
            {OPCTEXT_PROGRAM, "extract", (folder / "p.txt").string(), "/a.xml", "-f", "-C", (folder / "out").string()},
            "fsync,renameat", injections);
    };

    auto const failed = extract({"fsync:error=EIO"});

    EXPECT_EQ(failed.exitCode, 4);
    EXPECT_THAT(failed.output, ::testing::HasSubstr("/out/a.xml: Input/output error\n"));
    EXPECT_EQ(extracted(), (Tree{{"a.xml", "older"}}));

    auto const succeeded = extract({});

    EXPECT_EQ(succeeded.exitCode, 0);
    EXPECT_THAT(succeeded.calls, ::testing::ContainsRegex("fsync.*[\n].*renameat"));
    EXPECT_EQ(extracted(), (Tree{{"a.xml", "<a/>"}}));
}

TEST_F(OpctextExtract, SaysNothingOfItsProgressWhereThereIsNoTerminal) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    writePackage();

    testsupport::RunningProgram program(delayed("renameat", 300000, {"extract", "p.txt", "-f", "-C", "out"}));

    EXPECT_THAT(program.wait(), succeeds());
}

class OpctextExtractCorpus : public OpctextExtract, public ::testing::WithParamInterface<fs::path> {
protected:
    /// The parts of the package file in its order, their contents as they were extracted.
    std::vector<PartText> extractedParts() const {
        std::vector<PartText> parts;
        std::istringstream lines(package());
        std::string const begin = "__ZKOPC_PART_BEGIN__ ";
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, begin.size(), begin) != 0)
                continue;
            bool const isBase64 = line.find(" BASE64") != std::string::npos;
            auto const name = line.substr(begin.size(), line.find(" BASE64") - begin.size());
            auto const content = testsupport::readFile((folder / "out").string() + name);
            parts.push_back({name, isBase64 ? base64Lines(content) : content, isBase64});
        }
        return parts;
    }
};

INSTANTIATE_TEST_SUITE_P(EachPackage, OpctextExtractCorpus, ::testing::ValuesIn(testsupport::corpusPackages()),
                         testsupport::corpusTestName);

TEST_P(OpctextExtractCorpus, WritesFilesThatMakeThePackageAgain) {
    fs::copy_file(GetParam(), folder / "p.txt");

    EXPECT_THAT(run({"extract", "p.txt", "-C", "out"}), succeeds());

    auto const parts = extractedParts();
    EXPECT_THAT(parts, ::testing::SizeIs(::testing::Ge(8U)));
    EXPECT_EQ(testsupport::packageText(parts), package());
}

TEST_P(OpctextExtractCorpus, WritesTheSameAsCat) {
    fs::copy_file(GetParam(), folder / "p.txt");
    ASSERT_THAT(run({"extract", "p.txt", "-C", "out"}), succeeds());
    std::istringstream names(run({"list", "-1", "p.txt"}).output);
    std::vector<std::string> words{"cat", "p.txt"};
    std::string contents;
    for (std::string name; std::getline(names, name);) {
        words.push_back(name);
        contents += testsupport::readFile((folder / "out").string() + name);
    }

    EXPECT_THAT(run(words), succeeds(contents));
}

TEST_F(OpctextExtract, OverwritesBesideWhatAKilledProcessOfTheSameNumberLeft) {
    writePackage();
    folder.write("out/a.xml", "old");
    auto const script = "touch out/.opctext-$$.tmp; exec " OPCTEXT_PROGRAM " extract p.txt /a.xml -f -C out";
    ProgramCall call;
    call.words = {"sh", "-c", script};
    call.folder = folder.path();

    EXPECT_THAT(testsupport::RunningProgram(call).wait(), succeeds());

    EXPECT_EQ(folder.read("out/a.xml"), "<a/>");
}

} // namespace
