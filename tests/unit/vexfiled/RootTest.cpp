// No name leads out of the root, and only regular files can be opened.
#include "Root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <system_error>

#include "ChildProcess.h"
#include "Row.h"
#include "SocketFile.h"
#include "TempDirectory.h"
#include "Users.h"

namespace {

namespace fs = std::filesystem;
using vexfiled::Refusal;
using vexfiled::Root;

// root/ and, beside it, files that nothing may change.
class RootDirectory {
public:
    RootDirectory() {
        fs::create_directories(Root() + "/directory");
        fs::create_directory(m_directory.Path("outside"));
        m_directory.Write("outside/secret", "untouched");
        m_directory.Write("root/file", "content");
        m_directory.Write("root/directory/inner", "content");
        fs::create_symlink("file", Root() + "/link");
        fs::create_symlink("nowhere", Root() + "/dangling");
        fs::create_symlink("directory", Root() + "/linkeddirectory");
        fs::create_symlink("../outside", Root() + "/wayout");
        fs::create_symlink(m_directory.Path("outside/secret"), Root() + "/linkout");
        fs::create_symlink("loop", Root() + "/loop");
        fs::create_hard_link(m_directory.Path("outside/secret"), Root() + "/secondname");
        EXPECT_EQ(mkfifo((Root() + "/pipe").c_str(), 0600), 0);
        close(MakeSocket(Root() + "/socket"));
    }

    std::string Root() const { return m_directory.Path("root"); }
    std::string Path(const std::string& strName) const { return m_directory.Path(strName); }

    // All names below the temporary directory.
    std::set<std::string> Names() const {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(m_directory.Path())) {
            names.insert(entry.path().string());
        }
        return names;
    }

private:
    TempDirectory m_directory;
};

std::string Repeated(const std::string& strPart, std::size_t cTimes) {
    std::string strText;
    for (std::size_t i = 0; i < cTimes; ++i) {
        strText += strPart;
    }
    return strText;
}

// A name of cb bytes with components of allowed lengths.
std::string NameOfLength(std::size_t cb) {
    std::string strName;
    while (strName.size() < cb) {
        strName += '/' + std::string(std::min<std::size_t>(255, cb - strName.size() - 1), 'n');
    }
    return strName;
}

// ---- The directory itself ----

TEST(RootItself, IsRefusedWhenItCannotBeWrittenTo) {
    const TempDirectory directory;
    fs::permissions(directory.Path(), fs::perms(0555));
    ExpectChildPasses([&] {
        ASSERT_TRUE(BecomeUser(kSomebody));
        try {
            const Root root(directory.Path());
            ADD_FAILURE() << "no exception";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::permission_denied);
            EXPECT_NE(std::string(error.what()).find(directory.Path()), std::string::npos);
        }
    });
    fs::permissions(directory.Path(), fs::perms(0700));
    EXPECT_EQ(Root(directory.Path()).Owner(), geteuid());
}

// ---- Refused ----

struct HostileName : Row {
    std::string strFileName;
    DWORD dwError;
};

class RootRefuses : public testing::TestWithParam<HostileName> {};

TEST_P(RootRefuses, AndMakesNothing) {
    const RootDirectory directory;
    const auto before = directory.Names();
    const Root root(directory.Root());
    const auto result = root.Open(GetParam().strFileName);
    ASSERT_TRUE(std::holds_alternative<Refusal>(result));
    EXPECT_EQ(std::get<Refusal>(result).dwError, GetParam().dwError);
    EXPECT_FALSE(std::get<Refusal>(result).strReason.empty());
    EXPECT_EQ(directory.Names(), before);
    EXPECT_EQ(ReadWholeFile(directory.Path("outside/secret")), "untouched");
}

INSTANTIATE_TEST_SUITE_P(
    All, RootRefuses,
    testing::Values(HostileName{{"Empty"}, "", ERROR_INVALID_NAME},                                //
                    HostileName{{"Slash"}, "/", ERROR_ACCESS_DENIED},                              //
                    HostileName{{"Slashes"}, "///", ERROR_ACCESS_DENIED},                          //
                    HostileName{{"Dot"}, ".", ERROR_ACCESS_DENIED},                                //
                    HostileName{{"SlashDot"}, "/.", ERROR_ACCESS_DENIED},                          //
                    HostileName{{"DotDot"}, "..", ERROR_ACCESS_DENIED},                            //
                    HostileName{{"DotDotFirst"}, "../outside/secret", ERROR_ACCESS_DENIED},        //
                    HostileName{{"DotDotAbsolute"}, "/../outside/secret", ERROR_ACCESS_DENIED},    //
                    HostileName{{"DotDotInside"}, "directory/../file", ERROR_ACCESS_DENIED},       //
                    HostileName{{"DotDotBehindNew"}, "new/../../outside/x", ERROR_ACCESS_DENIED},  //
                    HostileName{{"DotDotLast"}, "directory/..", ERROR_ACCESS_DENIED},              //
                    HostileName{{"DotDotBehindDot"}, "./../outside/secret", ERROR_ACCESS_DENIED},  //
                    HostileName{{"DirectoryItself"}, "directory", ERROR_ACCESS_DENIED},            //
                    HostileName{{"TrailingSlash"}, "file/", ERROR_ACCESS_DENIED},                  //
                    HostileName{{"TrailingSlashNew"}, "new/", ERROR_ACCESS_DENIED},                //
                    HostileName{{"TrailingDot"}, "new/.", ERROR_ACCESS_DENIED},                    //
                    HostileName{{"FileAsDirectory"}, "file/inner", ERROR_PATH_NOT_FOUND},          //
                    HostileName{{"PipeAsDirectory"}, "pipe/inner", ERROR_PATH_NOT_FOUND},          //
                    HostileName{{"Link"}, "link", ERROR_ACCESS_DENIED},                            //
                    HostileName{{"DanglingLink"}, "dangling", ERROR_ACCESS_DENIED},                //
                    HostileName{{"LinkOut"}, "linkout", ERROR_ACCESS_DENIED},                      //
                    HostileName{{"LinkLoop"}, "loop", ERROR_ACCESS_DENIED},                        //
                    HostileName{{"LinkedDirectory"}, "linkeddirectory/inner", ERROR_ACCESS_DENIED},
                    HostileName{{"LinkedDirectoryNew"}, "linkeddirectory/new", ERROR_ACCESS_DENIED},
                    HostileName{{"DirectoryOut"}, "wayout/secret", ERROR_ACCESS_DENIED},      //
                    HostileName{{"DirectoryOutNew"}, "wayout/new", ERROR_ACCESS_DENIED},      //
                    HostileName{{"LoopAsDirectory"}, "loop/inner", ERROR_ACCESS_DENIED},      //
                    HostileName{{"HardLink"}, "secondname", ERROR_ACCESS_DENIED},             //
                    HostileName{{"Pipe"}, "pipe", ERROR_ACCESS_DENIED},                       //
                    HostileName{{"Socket"}, "socket", ERROR_ACCESS_DENIED},                   //
                    HostileName{{"ZeroByte"}, std::string("file\0", 5), ERROR_INVALID_NAME},  //
                    HostileName{{"ZeroByteInside"}, std::string("new\0file", 8), ERROR_INVALID_NAME},
                    HostileName{{"OnlyZeroByte"}, std::string(1, '\0'), ERROR_INVALID_NAME},       //
                    HostileName{{"Latin1"}, "caf\xE9", ERROR_NO_UNICODE_TRANSLATION},              //
                    HostileName{{"CutOffUtf8"}, "new/\xE6\x97", ERROR_NO_UNICODE_TRANSLATION},     //
                    HostileName{{"OverlongSlash"}, "..\xC0\xAF", ERROR_NO_UNICODE_TRANSLATION},    //
                    HostileName{{"OverlongZero"}, "file\xC0\x80", ERROR_NO_UNICODE_TRANSLATION},   //
                    HostileName{{"LoneSurrogate"}, "\xED\xA0\x80", ERROR_NO_UNICODE_TRANSLATION},  //
                    HostileName{{"SurrogatePair"}, "\xED\xA0\xBD\xED\xB8\x80", ERROR_NO_UNICODE_TRANSLATION},
                    HostileName{{"LongComponent"}, "new/" + std::string(256, 'n'), ERROR_FILENAME_EXCED_RANGE},
                    HostileName{{"LongParent"}, std::string(256, 'n') + "/new", ERROR_FILENAME_EXCED_RANGE},
                    HostileName{{"LongName"}, NameOfLength(4096), ERROR_FILENAME_EXCED_RANGE},  //
                    HostileName{{"LongNameOfSlashes"}, std::string(4096, '/'), ERROR_FILENAME_EXCED_RANGE},
                    HostileName{{"VeryLongName"}, std::string(1000000, 'n'), ERROR_FILENAME_EXCED_RANGE},
                    HostileName{{"DeepName"}, Repeated("d/", 64) + "file", ERROR_FILENAME_EXCED_RANGE}),
    RowName);

// ---- Opened ----

struct GoodName : Row {
    std::string strFileName;
    std::string strPlace;  // below the root
    bool bCreated;
};

class RootOpens : public testing::TestWithParam<GoodName> {};

TEST_P(RootOpens, ForReadingAndWriting) {
    const RootDirectory directory;
    const Root root(directory.Root());
    auto result = root.Open(GetParam().strFileName);
    ASSERT_TRUE(std::holds_alternative<vexposix::OpenedFile>(result)) << std::get<Refusal>(result).strReason;
    const auto& opened = std::get<vexposix::OpenedFile>(result);
    EXPECT_EQ(opened.bCreated, GetParam().bCreated);

    const std::string strPath = directory.Root() + '/' + GetParam().strPlace;
    EXPECT_EQ(ReadWholeFile(strPath), GetParam().bCreated ? "" : "content");
    EXPECT_EQ(pwrite(opened.descriptor.Get(), "written", 7, 0), 7);
    EXPECT_EQ(ReadWholeFile(strPath), "written");

    const auto again = root.Open(GetParam().strFileName);
    ASSERT_TRUE(std::holds_alternative<vexposix::OpenedFile>(again));
    EXPECT_FALSE(std::get<vexposix::OpenedFile>(again).bCreated);
}

INSTANTIATE_TEST_SUITE_P(
    All, RootOpens,
    testing::Values(
        GoodName{{"Existing"}, "file", "file", false}, GoodName{{"ExistingAbsolute"}, "/file", "file", false},
        GoodName{{"ExistingInner"}, "/directory/inner", "directory/inner", false},
        GoodName{{"DotsAndSlashes"}, "//.//directory/./inner", "directory/inner", false},
        GoodName{{"New"}, "new", "new", true}, GoodName{{"NewAbsolute"}, "/tmp/PILog.txt", "tmp/PILog.txt", true},
        GoodName{{"NewParents"}, "/a/b/c/d", "a/b/c/d", true},
        GoodName{{"LeadingBlank"}, " /tmp/logs.2024.03.05", " /tmp/logs.2024.03.05", true},
        GoodName{{"ThreeDots"}, "...", "...", true}, GoodName{{"DotsInName"}, "..new/a..", "..new/a..", true},
        GoodName{{"Backslash"}, "..\\new", "..\\new", true}, GoodName{{"LineEnd"}, "a\nb", "a\nb", true},
        GoodName{{"Chinese"}, "/\xE6\x97\xA5\xE5\xBF\x97/x", "\xE6\x97\xA5\xE5\xBF\x97/x", true},
        GoodName{{"Emoji"}, "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", true},
        GoodName{{"LongestComponent"}, std::string(255, 'n'), std::string(255, 'n'), true},
        GoodName{{"Deepest"}, Repeated("d/", 63) + "file", Repeated("d/", 63) + "file", true}),
    RowName);

TEST(RootNames, TheLongest) {
    const RootDirectory directory;
    const Root root(directory.Root());
    EXPECT_TRUE(std::holds_alternative<vexposix::OpenedFile>(root.Open(NameOfLength(4094))));
    EXPECT_TRUE(std::holds_alternative<vexposix::OpenedFile>(root.Open(NameOfLength(4095))));
}

TEST(RootModes, NewFilesAndDirectoriesArePrivate) {
    const RootDirectory directory;
    const mode_t oldMask = umask(0);
    const auto result = Root(directory.Root()).Open("a/b/file");
    umask(oldMask);
    ASSERT_TRUE(std::holds_alternative<vexposix::OpenedFile>(result));
    const auto modeOf = [&directory](const char* pszName) {
        return fs::status(directory.Root() + '/' + pszName).permissions();
    };
    EXPECT_EQ(modeOf("a"), fs::perms{0700});
    EXPECT_EQ(modeOf("a/b"), fs::perms{0700});
    EXPECT_EQ(modeOf("a/b/file"), fs::perms{0600});
}

TEST(RootItself, MustBeADirectory) {
    const RootDirectory directory;
    EXPECT_THROW(Root(directory.Path("root/missing")), std::system_error);
    EXPECT_THROW(Root(directory.Path("root/file")), std::system_error);
    EXPECT_NO_THROW(Root(directory.Path("root/linkeddirectory")));
}

TEST(RootItself, KnowsWhetherOthersMayWrite) {
    const RootDirectory directory;
    for (const auto& [nMode, bOthers] : {std::pair{0700, false}, {0755, false}, {0720, true}, {0702, true}}) {
        fs::permissions(directory.Root(), fs::perms(nMode));
        EXPECT_EQ(Root(directory.Root()).IsWritableByOthers(), bOthers) << nMode;
    }
}

// The server keeps its directory open, so that a rename does not change the root.
TEST(RootItself, StaysTheSameDirectoryAfterARename) {
    const RootDirectory directory;
    const Root root(directory.Root());
    fs::rename(directory.Root(), directory.Path("moved"));
    fs::create_symlink("outside", directory.Root());
    ASSERT_TRUE(std::holds_alternative<vexposix::OpenedFile>(root.Open("new")));
    EXPECT_TRUE(fs::exists(directory.Path("moved/new")));
    EXPECT_FALSE(fs::exists(directory.Path("outside/new")));
}

}  // namespace
