// The IDs of open files: how long they live and how many there can be.
#include "FileTable.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "TempDirectory.h"

namespace {

using namespace std::chrono_literals;
using vexfiled::FileTable;

class FileTableTest : public testing::Test {
protected:
    FileTable MakeTable(std::size_t cMaxFiles = 3) {
        return FileTable(
            {cMaxFiles, 10s},
            [this] {
                const std::uint64_t uId = m_nextIds.front();
                m_nextIds.erase(m_nextIds.begin());
                return uId;
            },
            [this] { return m_now; });
    }

    DWORD Add(FileTable& table) {
        const std::string strPath = m_directory.Write("file", "content");
        return table.Add(vexposix::FileDescriptor(open(strPath.c_str(), O_RDWR | O_CLOEXEC)), "file");
    }

    const TempDirectory m_directory;
    std::vector<std::uint64_t> m_nextIds{11, 12, 13, 14, 15};
    std::chrono::steady_clock::time_point m_now{1000h};
};

TEST_F(FileTableTest, AFileIsFoundUntilItIsClosed) {
    FileTable table = MakeTable();
    const DWORD dwFirst = Add(table);
    const DWORD dwSecond = Add(table);
    EXPECT_EQ(dwFirst, 11U);
    EXPECT_EQ(dwSecond, 12U);
    EXPECT_NE(table.Use(dwFirst), nullptr);
    EXPECT_NE(table.Use(dwFirst), table.Use(dwSecond));
    EXPECT_EQ(table.Use(0), nullptr);
    EXPECT_EQ(table.Use(13), nullptr);
    table.Close(dwFirst);
    table.Close(13);  // no such file
    EXPECT_EQ(table.Use(dwFirst), nullptr);
    EXPECT_NE(table.Use(dwSecond), nullptr);
    EXPECT_EQ(table.Count(), 1U);
}

TEST_F(FileTableTest, AnUnusedFileExpires) {
    for (const auto& [waited, bThere] : {std::pair{9999ms, true}, {10000ms, false}, {10001ms, false}}) {
        FileTable table = MakeTable();
        m_nextIds = {21};
        const DWORD dwId = Add(table);
        m_now += waited;
        EXPECT_EQ(table.Use(dwId) != nullptr, bThere) << waited.count();
        EXPECT_EQ(table.Count(), bThere ? 1U : 0U);
    }
}

TEST_F(FileTableTest, EachUseStartsTheTimeAgain) {
    FileTable table = MakeTable();
    const DWORD dwId = Add(table);
    for (int i = 0; i < 10; ++i) {
        m_now += 9s;
        EXPECT_NE(table.Use(dwId), nullptr);
    }
    m_now += 10s;
    EXPECT_EQ(table.Use(dwId), nullptr);
}

TEST_F(FileTableTest, CloseExpiredClosesOnlyExpiredFiles) {
    FileTable table = MakeTable();
    const DWORD dwOld = Add(table);
    const DWORD dwUsed = Add(table);
    m_now += 5s;
    const DWORD dwNew = Add(table);
    table.Use(dwUsed);
    m_now += 5s;
    EXPECT_EQ(table.CloseExpired(), 1U);
    EXPECT_EQ(table.CloseExpired(), 0U);
    EXPECT_EQ(table.Use(dwOld), nullptr);
    EXPECT_NE(table.Use(dwUsed), nullptr);
    EXPECT_NE(table.Use(dwNew), nullptr);
}

TEST_F(FileTableTest, HasRoomForALimitedNumberOfFiles) {
    FileTable table = MakeTable(2);
    EXPECT_TRUE(table.HasRoom());
    const DWORD dwFirst = Add(table);
    EXPECT_TRUE(table.HasRoom());
    Add(table);
    EXPECT_FALSE(table.HasRoom());
    table.Close(dwFirst);
    EXPECT_TRUE(table.HasRoom());
    Add(table);
    EXPECT_FALSE(table.HasRoom());
    m_now += 10s;
    EXPECT_TRUE(table.HasRoom());
    EXPECT_EQ(table.Count(), 0U);
}

TEST_F(FileTableTest, DoesNotGiveOutZeroOrAnIdInUse) {
    FileTable table = MakeTable();
    m_nextIds = {0, 5, 5, 0, 6};
    EXPECT_EQ(Add(table), 5U);
    EXPECT_EQ(Add(table), 6U);
    EXPECT_EQ(table.Count(), 2U);
}

TEST_F(FileTableTest, CloseClosesTheDescriptor) {
    FileTable table = MakeTable();
    vexposix::FileDescriptor descriptor(open(m_directory.Path().c_str(), O_RDONLY | O_CLOEXEC));
    const int nDescriptor = descriptor.Get();
    table.Add(std::move(descriptor), "directory");
    EXPECT_NE(fcntl(nDescriptor, F_GETFD), -1);
    m_now += 10s;
    table.CloseExpired();
    EXPECT_EQ(fcntl(nDescriptor, F_GETFD), -1);
}

// IDs must be hard to guess: the generator must not have fixed bits or repeat itself.
TEST(RandomId, UsesAllBits) {
    std::set<std::uint64_t> ids;
    std::uint64_t uOnes = 0;
    std::uint64_t uZeroes = 0;
    for (int i = 0; i < 200; ++i) {
        const std::uint64_t uId = FileTable::RandomId();
        ids.insert(uId);
        uOnes |= uId;
        uZeroes |= ~uId;
    }
    EXPECT_EQ(ids.size(), 200U);
    EXPECT_EQ(uOnes, ~std::uint64_t{0});
    EXPECT_EQ(uZeroes, ~std::uint64_t{0});
}

}  // namespace
